// Shared by the SCSI tests: one virtual array for the whole test binary,
// started by the first test that needs it, with faults and records cleared
// before every test so that each sees only its own commands.
#ifndef HIC_TESTS_SCSI_SCSI_RIG_H
#define HIC_TESTS_SCSI_SCSI_RIG_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client.h"
#include "support/sandbox_test.h"

namespace hic_test {

using vnarray::Bytes;
using vnarray::CommandRecord;
using vnarray::Json;

// The array every test may use: sdb and sdc belong to it.
inline constexpr const char* kArraySn = "ARRAY0001";
inline constexpr const char* kLunB = "/dev/sdb";
// The node per-case LUNs are installed at (see ScopedLun).
inline constexpr const char* kCaseDev = "sdt";
inline constexpr const char* kCasePath = "/dev/sdt";

// The virtual array of this process; started on first use.
vnarray::Client& Array();

class ScsiRigTest : public SandboxTest {
  protected:
    void SetUp() override;
};

// A LUN that exists for one case: added with the given fields (dev and
// array filled in unless given), removed again at scope end.
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
std::string SpacedHex(const Bytes& bytes);
Bytes Hex(const std::string& text);

// Every command the array saw since the last reset.
std::vector<CommandRecord> Commands();
// The open flags (O_ACCMODE) and errors of every open since the last reset;
// closes are left out, they arrive after close(2) has returned.
struct OpenSeen {
    int flags;
    int err;
    std::string lun;
};
std::vector<OpenSeen> Opens();

// Checks the request fields every submission of this daemon carries.
void ExpectRequestFields(const CommandRecord& rec, int direction, int cmdLen, uint32_t dxferLen);

}  // namespace hic_test

#endif  // HIC_TESTS_SCSI_SCSI_RIG_H
