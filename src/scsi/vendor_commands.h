// The three vendor commands: heartbeat 0xC9, write buffer 0xCA and query
// collect switch 0xC7. Each builds its CDB and submits it on a descriptor
// the caller holds; the payloads belong to the callers.
#ifndef HIC_SCSI_VENDOR_COMMANDS_H
#define HIC_SCSI_VENDOR_COMMANDS_H

#include <cstdint>

constexpr unsigned char HIC_OPCODE_QUERY_SWITCH = 0xC7;
constexpr unsigned char HIC_OPCODE_HEARTBEAT = 0xC9;
constexpr unsigned char HIC_OPCODE_WRITE_BUF = 0xCA;
// The switch query always asks for this much, whatever the caller's buffer.
constexpr uint32_t HIC_SWITCH_REPLY_LEN = 4096;

int HIC_SendHeartBeat(int fd, unsigned char* payload, unsigned int payloadLen, uint64_t address);
// offset: byte position of this chunk in the result file; negative refused.
int HIC_DoWriteBufToArray(int fd, unsigned char* buf, unsigned int bufLen, int32_t offset);
int HIC_DoQuerySwitchStatus(int fd, unsigned char* buf, unsigned int bufLen);

#endif  // HIC_SCSI_VENDOR_COMMANDS_H
