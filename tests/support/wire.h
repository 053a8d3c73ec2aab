// What the daemon puts on the wire, checked at the virtual array: every
// command's request fields, CDB and data-out, byte for byte.
#ifndef HIC_TESTS_SUPPORT_WIRE_H
#define HIC_TESTS_SUPPORT_WIRE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client.h"
#include "support/support.h"

namespace hic_test {

// What an array's heartbeat payload and chunk headers carry.
struct HostFields {
    Bytes versions;  // 4 bytes
    Bytes hostIp;    // 16 bytes
    std::uint8_t ipType = 0;
};

// Every command the array got: INQUIRY of the pages and lengths the daemon
// reads, read-only; 0xC7 read-only; 0xC9 read-write with the array's
// payload; 0xCA read-write with a well-formed header. hosts gives each
// array's fields (an array missing there sends no heartbeat nor chunk).
void ExpectEveryCommand(const std::vector<vnarray::CommandRecord>& commands,
                        const std::map<std::string, HostFields>& hosts);

// The write commands of one upload attempt, chunk by chunk against the
// archive the array reassembled.
void ExpectChunks(const std::vector<vnarray::CommandRecord>& writes, const Bytes& archive,
                  const HostFields& f);

// The open and close records, once every descriptor opened has been
// released (the array sees a close when the kernel hands it over, which may
// come a moment after close(2) has returned).
std::vector<vnarray::OpenRecord> SettledOpens(vnarray::Client& client, const std::string& lun = "");

}  // namespace hic_test

#endif  // HIC_TESTS_SUPPORT_WIRE_H
