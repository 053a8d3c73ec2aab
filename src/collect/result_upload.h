// Upload of a collection's result archive to its array: chunks of a
// 32-byte header and at most 4064 data bytes, one write-buffer command
// each, through the array's LUNs one after another within 300 seconds.
#ifndef HIC_COLLECT_RESULT_UPLOAD_H
#define HIC_COLLECT_RESULT_UPLOAD_H

#include <pthread.h>

#include <cstdint>
#include <cstdio>

#include "inventory/lists.h"

constexpr uint32_t HIC_RESULT_HEADER_LEN = 32;
constexpr uint32_t HIC_RESULT_BUF_LEN = 4096;
constexpr uint32_t HIC_RESULT_CHUNK_LEN = HIC_RESULT_BUF_LEN - HIC_RESULT_HEADER_LEN;
constexpr double HIC_RESULT_BUDGET_SECONDS = 300.0;
// Sizes and offsets travel as signed 32-bit values: 2^31 bytes and more
// cannot be sent.
constexpr long HIC_RESULT_MAX_SIZE = 0x7FFFFFFFL;

// Makes result uploads run one at a time across all arrays. Start-up
// initialises it before the main loop; it is never destroyed.
extern pthread_mutex_t HIC_ResultWriteMutex;

// Uploads the array's result.tar.gz; success shows as HIC_TASK_FINISHED.
void HIC_WriteCollectResultToArray(HIC_ArrayInfo* array);
// The whole archive through one LUN; 0 sets HIC_TASK_FINISHED.
int HIC_WriteResultToArray(const HIC_LunInfo* lun, HIC_ArrayInfo* array);
// Reads and sends the archive chunk by chunk on an open device.
int HIC_WriteResultFileBufToArray(int fd, const HIC_ArrayInfo* array, const char* path);
// Reads n bytes at offset behind the header in buf and sends them.
int HIC_GetFileBufAndWriteToArray(int fd, FILE* file, unsigned char* buf, long offset, uint32_t n);
void HIC_BuildResultBufHeader(unsigned char* buf, uint32_t len, const HIC_ArrayInfo* array,
                              long size);

#endif  // HIC_COLLECT_RESULT_UPLOAD_H
