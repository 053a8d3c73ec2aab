#include "inventory/discovery.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include "base/handles.h"
#include "bounded/bounded.h"
#include "log/log.h"
#include "scsi/inquiry.h"
#include "scsi/sg_transport.h"

namespace {

// Writes "--" into a field whose value could not be read.
void SetNoValue(char* field, uint32_t size) {
    (void)strcpy_s(field, size, HIC_NO_VALUE);
}

}  // namespace

int HIC_CheckIsValidDev(const struct dirent* entry, char* vendor, uint32_t vendorSize,
                        char* devPath, uint32_t devPathSize) {
    char sysPath[HIC_PATH_LEN];
    (void)memset_s(sysPath, sizeof(sysPath), 0, sizeof(sysPath));
    (void)strcpy_s(sysPath, sizeof(sysPath), HIC_SYS_BLOCK_DIR);
    (void)strcat_s(sysPath, sizeof(sysPath), "/");
    if (strcat_s(sysPath, sizeof(sysPath), entry->d_name) != 0) {
        return -1;
    }
    // sysfs entries are links to the device directories: follow them.
    struct stat st {};
    if (::stat(sysPath, &st) != 0 || !S_ISDIR(st.st_mode)) {
        return -1;
    }
    if (std::strncmp(entry->d_name, "sd", 2) != 0) {
        return -1;
    }
    if (sprintf_s(devPath, devPathSize, "/dev/%s", entry->d_name) == -1) {
        HIC_LOG(HIC_LOG_ERROR, "sprintf_s failed.\n");
        return -1;
    }
    hic::UniqueFd fd(
        ::open(devPath, O_RDONLY | O_CLOEXEC));  // NOLINT(cppcoreguidelines-pro-type-vararg)
    if (!fd.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", devPath);
        return -1;
    }
    if (HIC_GetVendorId(fd.Get(), vendor, vendorSize) != 0) {
        return -1;
    }
    if (std::strncmp(vendor, HIC_VENDOR_TRELOX, 6) != 0 &&
        std::strncmp(vendor, HIC_VENDOR_PELKO, 5) != 0) {
        return -1;
    }
    return 0;
}

void HIC_GetDevInfo(HIC_LunInfo* lun) {
    if (lun == nullptr) {
        return;
    }
    // The four identity fields, each with its reader and its name in the
    // failure line.
    const struct {
        int (*read)(int, char*, uint32_t);
        char* field;
        uint32_t size;
        const char* what;
    } fields[] = {
        {HIC_GetLunName, lun->lunName, sizeof(lun->lunName), "lun name"},
        {HIC_GetLunWwn, lun->lunWwn, sizeof(lun->lunWwn), "wwn"},
        {HIC_GetArrayName, lun->arrayName, sizeof(lun->arrayName), "array name"},
        {HIC_GetArraySn, lun->arraySn, sizeof(lun->arraySn), "array SN"},
    };
    hic::UniqueFd fd(HIC_OpenDevByPath(lun->devPath, HIC_OPEN_READ_ONLY));
    if (!fd.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "open %s failed.\n", lun->devPath);
    }
    for (const auto& f : fields) {
        if (!fd.Valid()) {
            SetNoValue(f.field, f.size);
        } else if (f.read(fd.Get(), f.field, f.size) != 0) {
            HIC_LOG(HIC_LOG_ERROR, "get %s for %s failed.\n", f.what, lun->devPath);
            SetNoValue(f.field, f.size);
        }
    }
}

int HIC_GetLunList() {
    hic::UniqueDir dir(::opendir(HIC_SYS_BLOCK_DIR));
    if (!dir.Valid()) {
        HIC_LOG(HIC_LOG_ERROR, "open dir failed.\n");
        return -1;
    }
    char vendor[HIC_VENDOR_BUF_LEN];
    char devPath[HIC_PATH_LEN];
    // The main thread is the only caller, so readdir's shared buffer is safe.
    while (const struct dirent* entry = ::readdir(dir.Get())) {  // NOLINT(concurrency-mt-unsafe)
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        (void)memset_s(vendor, sizeof(vendor), 0, sizeof(vendor));
        (void)memset_s(devPath, sizeof(devPath), 0, sizeof(devPath));
        if (HIC_CheckIsValidDev(entry, vendor, sizeof(vendor), devPath, sizeof(devPath)) != 0) {
            continue;
        }
        HIC_LunInfo* lun = HIC_AllocLunInfo();
        if (lun == nullptr) {
            HIC_LOG(HIC_LOG_ERROR, "alloc mem failed for dev %s.\n", entry->d_name);
            dir.Reset();
            HIC_FreeLunList();
            return -1;
        }
        (void)memcpy_s(lun->devPath, sizeof(lun->devPath), devPath, sizeof(devPath));
        (void)memcpy_s(lun->vendorId, sizeof(lun->vendorId), vendor, sizeof(vendor));
        HIC_GetDevInfo(lun);
        HIC_ListAddTail(&lun->list, &HIC_LunListHead);
        HIC_LOG(HIC_LOG_DEBUG, "add device %s from block dir.\n", entry->d_name);
    }
    return 0;
}
