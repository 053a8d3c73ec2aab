#include "scsi/inquiry.h"

#include <scsi/sg.h>

#include <cerrno>
#include <cstring>

#include "base/coding.h"
#include "bounded/bounded.h"
#include "log/log.h"
#include "scsi/sg_transport.h"

namespace {

// Byte positions inside the pages.
constexpr unsigned int kVendorOffset = 8;
constexpr unsigned int kVendorLen = 8;
constexpr unsigned int kShortNameOffset = 29;
constexpr unsigned int kShortNameLen = 40;
constexpr unsigned int kArrayNameLenOffset = 106;
constexpr unsigned int kArrayNameOffset = 107;
constexpr unsigned int kArrayNameScratch = 80;
constexpr unsigned int kNameSelectorOffset = 206;
constexpr unsigned int kLongNameOffset = 208;
constexpr unsigned int kLongNameLen = 256;
constexpr unsigned int kWwnOffset = 8;
constexpr unsigned int kWwnLen = 16;
constexpr unsigned int kMajorOffset = 184;
constexpr unsigned int kMinorOffset = 186;
constexpr unsigned int kSnOffset = 4;
constexpr unsigned int kSnLen = 20;

}  // namespace

int HIC_DoInquiry(int fd, unsigned char evpd, unsigned char page, unsigned char* buf,
                  unsigned int len) {
    (void)memset_s(buf, len, 0, len);

    unsigned char cdb[HIC_INQUIRY_CDB_LEN] = {HIC_INQUIRY_OPCODE, evpd, page, 0x00, 0x00, 0x00};
    hic::EncodeBigEndian16(cdb + 3, static_cast<uint16_t>(len));
    HIC_SgStatus st{};
    if (HIC_SgExchange(fd, cdb, HIC_INQUIRY_CDB_LEN, buf, len, SG_DXFER_FROM_DEV, &st) != 0) {
        HIC_LogIoctlFailure(errno);
        return -1;
    }
    if (st.Clean()) {
        return 0;
    }
    HIC_LOG(HIC_LOG_ERROR, "inqury page 0x%x failed.status:%d, host_status:%d, driver_status:%d.\n",
            page, st.status, st.hostStatus, st.driverStatus);
    return -1;
}

int HIC_GetVendorId(int fd, char* buf, uint32_t capacity) {
    unsigned char page[HIC_STANDARD_INQ_LEN];
    int ret = HIC_DoInquiry(fd, 0, HIC_PAGE_STANDARD, page, sizeof(page));
    if (ret != 0) {
        HIC_LOG(HIC_LOG_ERROR, "get vendor failed.\n");
        return ret;
    }
    if (memcpy_s(buf, capacity, page + kVendorOffset, kVendorLen) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "memcpy_s failed.\n");
        return -1;
    }
    // Blanks pad the field; each one ends the text where it stands.
    for (unsigned int i = 0; i < kVendorLen; ++i) {
        if (buf[i] == ' ') {
            buf[i] = '\0';
        }
    }
    return 0;
}

int HIC_GetLunName(int fd, char* buf, uint32_t capacity) {
    unsigned char page[HIC_LUN_INFO_INQ_LEN];
    int ret = HIC_DoInquiry(fd, 1, HIC_PAGE_LUN_INFO, page, sizeof(page));
    if (ret != 0) {
        return ret;
    }
    const unsigned int selector = hic::DecodeBigEndian16(page + kNameSelectorOffset);
    const unsigned char* name = (selector != 0) ? page + kLongNameOffset : page + kShortNameOffset;
    const uint32_t len = (selector != 0) ? kLongNameLen : kShortNameLen;
    if (memcpy_s(buf, capacity, name, len) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "memcpy_s failed.\n");
        return -1;
    }
    buf[capacity - 1] = '\0';
    return 0;
}

int HIC_GetLunWwn(int fd, char* buf, uint32_t capacity) {
    unsigned char page[HIC_DEVICE_ID_INQ_LEN];
    int ret = HIC_DoInquiry(fd, 1, HIC_PAGE_DEVICE_ID, page, sizeof(page));
    if (ret != 0) {
        return ret;
    }
    return HIC_TransBinaryToAscii(page, kWwnOffset, kWwnLen, buf, capacity);
}

int HIC_TransBinaryToAscii(const unsigned char* src, uint32_t start, uint32_t count, char* out,
                           uint32_t capacity) {
    if (src == nullptr || out == nullptr) {
        return -1;
    }
    // Unsigned on purpose: capacity 0 or 1 wraps and lets the first bounded
    // print run, which then refuses the too-small destination.
    for (uint32_t i = 0; i < count && 2 * i < capacity - 2; ++i) {
        const size_t at = static_cast<size_t>(i) * 2;
        if (sprintf_s(out + at, capacity - 2 * i, "%02x", src[start + i]) == -1) {
            HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
            return -1;
        }
    }
    return 0;
}

int HIC_GetArrayName(int fd, char* buf, uint32_t capacity) {
    unsigned char page[HIC_LUN_INFO_INQ_LEN];
    unsigned char scratch[kArrayNameScratch];
    (void)memset_s(scratch, sizeof(scratch), 0, sizeof(scratch));
    int ret = HIC_DoInquiry(fd, 1, HIC_PAGE_LUN_INFO, page, sizeof(page));
    if (ret != 0) {
        return ret;
    }
    uint32_t n = page[kArrayNameLenOffset];
    if (n > capacity) {
        n = capacity;
    }
    if (memcpy_s(scratch, sizeof(scratch), page + kArrayNameOffset, n) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "memcpy_s failed.\n");
        return -1;
    }
    // Embedded NUL bytes are dropped, so the name comes out packed.
    uint32_t used = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (scratch[i] != 0) {
            buf[used++] = static_cast<char>(scratch[i]);
        }
    }
    return 0;
}

int HIC_CheckArrayVersion(int fd) {
    unsigned char page[HIC_ARRAY_VERSION_INQ_LEN];
    int ret = HIC_DoInquiry(fd, 1, HIC_PAGE_ARRAY_VERSION, page, sizeof(page));
    if (ret != 0) {
        return ret;
    }
    const unsigned int major = page[kMajorOffset];
    const unsigned int minor = page[kMinorOffset];
    HIC_LOG(HIC_LOG_DEBUG, "get array version {%u.%u}.\n", major, minor);
    // The oldest array software that knows the collect commands is 2.7.
    if (major >= 3 || (major == 2 && minor >= 7)) {
        return 0;
    }
    return -1;
}

int HIC_GetArraySn(int fd, char* buf, uint32_t capacity) {
    unsigned char page[HIC_UNIT_SN_INQ_LEN];
    int ret = HIC_DoInquiry(fd, 1, HIC_PAGE_UNIT_SN, page, sizeof(page));
    if (ret != 0) {
        HIC_LOG(HIC_LOG_ERROR, "get array sn failed.\n");
        return ret;
    }
    if (memcpy_s(buf, capacity, page + kSnOffset, kSnLen) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "memcpy_s failed.\n");
        return -1;
    }
    if (HIC_CheckInvalidChars(buf, capacity) != 0) {
        HIC_LOG(HIC_LOG_ERROR, "array sn contains invalid characters.\n");
        return -1;
    }
    return 0;
}

int HIC_CheckInvalidChars(const char* text, uint32_t bound) {
    if (text == nullptr) {
        return -1;
    }
    for (uint32_t i = 0; i < bound && text[i] != '\0'; ++i) {
        if (std::strchr(HIC_SN_FORBIDDEN_CHARS, text[i]) != nullptr) {
            return -1;
        }
    }
    return 0;
}
