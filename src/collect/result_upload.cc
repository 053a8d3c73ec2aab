#include "collect/result_upload.h"

#include <fcntl.h>

#include <ctime>

#include "base/coding.h"
#include "base/handles.h"
#include "bounded/bounded.h"
#include "collect/workspace.h"
#include "log/log.h"
#include "scsi/sg_transport.h"
#include "scsi/vendor_commands.h"

pthread_mutex_t HIC_ResultWriteMutex;

namespace {

constexpr uint32_t kSizeOffset = 2;
constexpr uint32_t kVersionOffset = 8;
constexpr uint32_t kHostIpOffset = 12;
constexpr uint32_t kIpTypeOffset = 28;

// Holds the upload mutex for one scope.
class ResultWriteLock {
  public:
    ResultWriteLock() { (void)pthread_mutex_lock(&HIC_ResultWriteMutex); }
    ~ResultWriteLock() { (void)pthread_mutex_unlock(&HIC_ResultWriteMutex); }
    ResultWriteLock(const ResultWriteLock&) = delete;
    ResultWriteLock& operator=(const ResultWriteLock&) = delete;
};

int SendChunk(int fd, FILE* file, unsigned char* buf, const HIC_ArrayInfo* array, long size,
              long offset, uint32_t n) {
    (void)memset_s(buf, HIC_RESULT_BUF_LEN, 0, HIC_RESULT_BUF_LEN);
    HIC_BuildResultBufHeader(buf, HIC_RESULT_BUF_LEN, array, size);
    return HIC_GetFileBufAndWriteToArray(fd, file, buf, offset, n);
}

}  // namespace

void HIC_BuildResultBufHeader(unsigned char* buf, uint32_t len, const HIC_ArrayInfo* array,
                              long size) {
    buf[0] = 0x00;
    buf[1] = 0x81;
    hic::EncodeBigEndian32(buf + kSizeOffset, static_cast<uint32_t>(size));
    buf[6] = 0x10;
    buf[7] = 0x00;
    (void)memcpy_s(buf + kVersionOffset, HIC_VERSION_LEN, array->versions, HIC_VERSION_LEN);
    (void)memcpy_s(buf + kHostIpOffset, len - kHostIpOffset, array->hostIp, HIC_IP_ADDR_LEN);
    buf[kIpTypeOffset] = array->ipType;
}

int HIC_GetFileBufAndWriteToArray(int fd, FILE* file, unsigned char* buf, long offset, uint32_t n) {
    hic::HeapBuffer scratch(HIC_RESULT_CHUNK_LEN);
    if (!scratch.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "alloc mem failed.\n");
        return -1;
    }
    const int ret = std::fseek(file, offset, SEEK_SET);
    if (ret != 0) {
        HIC_LOG(HIC_LOG_ERROR, "fseek to %ld failed, ret:%d.\n", offset, ret);
        return -1;
    }
    (void)memset_s(scratch.Get(), HIC_RESULT_CHUNK_LEN, 0, HIC_RESULT_CHUNK_LEN);
    // A short read (the archive shrank meanwhile) sends zeros; a read error
    // would send zeros in the middle of a good archive.
    if (std::fread(scratch.Get(), 1, n, file) < n && std::ferror(file) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "read at offset %ld failed.\n", offset);
        return -1;
    }
    if (memcpy_s(buf + HIC_RESULT_HEADER_LEN, HIC_RESULT_CHUNK_LEN, scratch.Get(), n) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "copy buffer failed.\n");
        return -1;
    }
    if (HIC_DoWriteBufToArray(fd, buf, HIC_RESULT_HEADER_LEN + n, static_cast<int32_t>(offset)) ==
        0) {
        HIC_LOG(HIC_LOG_INFO, "Write to array Offset %ld success.\n", offset);
        return 0;
    }
    HIC_LOG(HIC_LOG_ERROR, "Write buf to array failed, offset %ld.\n", offset);
    return -1;
}

int HIC_WriteResultFileBufToArray(int fd, const HIC_ArrayInfo* array, const char* path) {
    // Only a regular file: a FIFO in its place would hang this thread while
    // it holds the upload mutex.
    hic::UniqueFile file(hic::OpenRegularStream(path, O_RDONLY, "rb"));
    if (!file.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "fopen %s file error.\n", path);
        return -1;
    }
    (void)std::fseek(file.Get(), 0, SEEK_END);
    const long size = std::ftell(file.Get());
    HIC_LOG(HIC_LOG_INFO, "the array{sn:%s} result fileSize is %ld.\n", array->arraySn, size);
    if (size <= 0) {
        HIC_LOG(HIC_LOG_ERROR, "fileSize is not valid.\n");
        return -1;
    }
    if (size > HIC_RESULT_MAX_SIZE) {
        // The header's size field and the command's offset are signed 32-bit:
        // refuse rather than send wrapped values.
        HIC_LOG(HIC_LOG_ERROR, "result file of %ld bytes is too large, the limit is %ld bytes.\n",
                size, HIC_RESULT_MAX_SIZE);
        return -1;
    }
    hic::HeapBuffer buffer(HIC_RESULT_BUF_LEN);
    if (!buffer.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "alloc mem failed.\n");
        return -1;
    }
    auto* buf = reinterpret_cast<unsigned char*>(buffer.Get());
    long offset = 0;
    while (size - static_cast<long>(HIC_RESULT_CHUNK_LEN) > offset) {
        if (SendChunk(fd, file.Get(), buf, array, size, offset, HIC_RESULT_CHUNK_LEN) == -1) {
            return -1;
        }
        offset += HIC_RESULT_CHUNK_LEN;
    }
    const long rest = size - offset;
    const auto last = static_cast<uint32_t>(
        rest < static_cast<long>(HIC_RESULT_CHUNK_LEN) ? rest : HIC_RESULT_CHUNK_LEN);
    return SendChunk(fd, file.Get(), buf, array, size, offset, last);
}

int HIC_WriteResultToArray(const HIC_LunInfo* lun, HIC_ArrayInfo* array) {
    if (lun == nullptr || array == nullptr) {
        return -1;
    }
    char path[HIC_PATH_LEN];
    if (HIC_GetWorkspacePath(__func__, array, "/result.tar.gz", path, sizeof(path)) != 0) {
        return -1;
    }
    int ret = 0;
    {
        hic::UniqueFd fd(HIC_OpenDevByPath(lun->devPath, HIC_OPEN_READ_WRITE));
        if (!fd.Valid()) {
            HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", lun->devPath);
            return -1;
        }
        ret = HIC_WriteResultFileBufToArray(fd.Get(), array, path);
    }
    if (ret == -1) {
        return -1;
    }
    hic::FinishWork(array);
    return 0;
}

void HIC_WriteCollectResultToArray(HIC_ArrayInfo* array) {
    if (array == nullptr) {
        return;
    }
    ResultWriteLock lock;
    const time_t start = std::time(nullptr);
    for (const HIC_LunInfo* lun : hic::LunsOf(&HIC_LunListHead, array->arraySn)) {
        HIC_LOG(HIC_LOG_INFO, "begin write result array{sn:%s} by lun{%s}.\n", array->arraySn,
                lun->devPath);
        if (HIC_WriteResultToArray(lun, array) == 0) {
            break;
        }
        HIC_LOG(HIC_LOG_ERROR, "Write to array{sn:%s} failed on dev %s.\n", array->arraySn,
                lun->devPath);
        // The budget is looked at only after a failed LUN: an attempt in
        // progress is never cut short.
        if (std::difftime(std::time(nullptr), start) > HIC_RESULT_BUDGET_SECONDS) {
            break;
        }
    }
}
