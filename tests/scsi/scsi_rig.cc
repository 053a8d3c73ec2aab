#include "scsi_rig.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include "scsi/sg_transport.h"

namespace hic_test {
namespace {

constexpr const char* kConfig = R"({
  "arrays": [{"sn": "ARRAY0001", "name": "array-one", "major": 3, "minor": 0}],
  "luns": [{"dev": "sdb", "array": "ARRAY0001", "name": "lun-b"},
           {"dev": "sdc", "array": "ARRAY0001", "name": "lun-c"}]
})";

std::unique_ptr<vnarray::Rig>& TheRig() {
    static std::unique_ptr<vnarray::Rig> rig;
    return rig;
}

// Stops the array after the last test, so that its mounts go first.
class RigEnvironment : public ::testing::Environment {
  public:
    void TearDown() override {
        if (TheRig()) {
            EXPECT_EQ(TheRig()->Stop(), 0);
            TheRig().reset();
        }
    }
};

// gtest's registration idiom; an allocation failure this early ends the run.
// NOLINTNEXTLINE(cert-err58-cpp)
[[maybe_unused]] ::testing::Environment* const kRigEnvironment =
    ::testing::AddGlobalTestEnvironment(new RigEnvironment);

}  // namespace

vnarray::Client& Array() {
    std::unique_ptr<vnarray::Rig>& rig = TheRig();
    if (!rig) {
        auto started = std::make_unique<vnarray::Rig>(kConfig);
        started->Start();
        rig = std::move(started);
    }
    return rig->client();
}

void ScsiRigTest::NextCase() {
    Array().ClearFaults();
    Array().Reset();
    (void)std::remove(HIC_LOG_PATH);
}

hic::UniqueFd OpenLun(const char* path, int mode) {
    hic::UniqueFd fd(HIC_OpenDevByPath(path, mode));
    EXPECT_TRUE(fd.Valid()) << path;
    return fd;
}

int ClosedFd() {
    const int fd = ::dup(0);
    ::close(fd);
    return fd;
}

void InjectOnB(const char* kind, const char* json) {
    Json fault = Json::parse(json);
    fault["lun"] = "sdb";
    fault["kind"] = kind;
    Array().InjectFault(fault);
}

ScopedLun::ScopedLun(Json fields) {
    if (!fields.contains("dev")) {
        fields["dev"] = kCaseDev;
    }
    if (!fields.contains("array")) {
        fields["array"] = kArraySn;
    }
    dev_ = fields["dev"].get<std::string>();
    Array().AddLun(fields);
}

ScopedLun::~ScopedLun() {
    try {
        Array().RemoveLun(dev_);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "cannot remove " << dev_ << ": " << e.what();
    }
}

std::string SpacedHex(const unsigned char* data, size_t len) {
    std::string out;
    char pair[4];
    for (size_t i = 0; i < len; ++i) {
        std::snprintf(pair, sizeof(pair), i == 0 ? "%02x" : " %02x", data[i]);
        out += pair;
    }
    return out;
}

Bytes Hex(const std::string& text) {
    auto bytes = vnarray::FromHex(text);
    if (!bytes) {
        throw std::invalid_argument("bad hex: " + text);
    }
    return *bytes;
}

std::vector<vnarray::OpenRecord> Opens() {
    std::vector<vnarray::OpenRecord> out = Array().Opens();
    std::erase_if(out, [](const vnarray::OpenRecord& r) { return r.close; });
    return out;
}

CommandRecord ExpectOneRequest(const std::string& cdb, int direction, uint32_t dxferLen,
                               int openFlags) {
    const auto commands = Commands();
    EXPECT_EQ(commands.size(), 1U);
    if (commands.size() != 1) {
        return {};
    }
    const CommandRecord& rec = commands[0];
    EXPECT_EQ(SpacedHex(rec.cdb), cdb);
    EXPECT_EQ(rec.interface_id, 'S');
    EXPECT_EQ(rec.dxfer_direction, direction);
    EXPECT_EQ(rec.cmd_len, static_cast<int>(rec.cdb.size()));
    EXPECT_EQ(rec.mx_sb_len, 96);
    EXPECT_EQ(rec.dxfer_len, dxferLen);
    EXPECT_EQ(rec.timeout, 30U);  // milliseconds
    EXPECT_EQ(rec.flags, 0U);
    EXPECT_EQ(rec.iovec_count, 0);
    EXPECT_EQ(rec.pack_id, 0);
    EXPECT_FALSE(rec.usr_ptr);
    EXPECT_EQ(rec.open_flags, openFlags);
    return rec;
}

}  // namespace hic_test
