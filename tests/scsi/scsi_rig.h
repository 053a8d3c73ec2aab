// Shared by the SCSI tests: one virtual array per test binary, started on
// first use, with faults and records cleared before every test and case.
#ifndef HIC_TESTS_SCSI_SCSI_RIG_H
#define HIC_TESTS_SCSI_SCSI_RIG_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/handles.h"
#include "client.h"
#include "support/sandbox_test.h"

namespace hic_test {

using vnarray::Bytes;
using vnarray::CommandRecord;
using vnarray::Json;

// sdb and sdc belong to this array; per-case LUNs appear at sdt.
inline constexpr const char* kArraySn = "ARRAY0001";
inline constexpr const char* kLunB = "/dev/sdb";
inline constexpr const char* kCaseDev = "sdt";
inline constexpr const char* kCasePath = "/dev/sdt";

vnarray::Client& Array();

class ScsiRigTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        NextCase();
    }
    // Clears faults, command records and the log between cases of a table.
    static void NextCase();
};

// Opens a node, expecting success.
hic::UniqueFd OpenLun(const char* path, int mode);
// A descriptor number that is surely closed: the lowest free one, freed.
int ClosedFd();
// Injects a fault of this kind on sdb; the rest of its fields as JSON text.
void InjectOnB(const char* kind, const char* json);

// A LUN added for one case (dev and array filled in unless given).
class ScopedLun {
  public:
    explicit ScopedLun(Json fields);
    ~ScopedLun();
    ScopedLun(const ScopedLun&) = delete;
    ScopedLun& operator=(const ScopedLun&) = delete;

  private:
    std::string dev_;
};

// "c9 00 1c": readable in a failure message, exact in a comparison.
std::string SpacedHex(const unsigned char* data, size_t len);
inline std::string SpacedHex(const Bytes& bytes) {
    return SpacedHex(bytes.data(), bytes.size());
}
Bytes Hex(const std::string& text);

inline std::vector<CommandRecord> Commands() {
    return Array().Commands();
}
// Opens since the last reset; closes are left out, they arrive after
// close(2) has returned.
std::vector<vnarray::OpenRecord> Opens();

// Expects exactly one command since the last reset, with this CDB and the
// sg_io_hdr fields every submission carries; gives it back.
CommandRecord ExpectOneRequest(const std::string& cdb, int direction, uint32_t dxferLen,
                               int openFlags);

}  // namespace hic_test

#endif  // HIC_TESTS_SCSI_SCSI_RIG_H
