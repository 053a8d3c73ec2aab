#include "support/wire.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace hic_test {

namespace {

Bytes ChunkHeader(std::uint32_t size, const HostFields& f) {
    return Join({Hex("0081"), Be(size, 4), Hex("1000"), f.versions, f.hostIp, {f.ipType, 0, 0, 0}});
}

// The request fields every command of the daemon carries.
void ExpectRequest(const vnarray::CommandRecord& r, int direction, std::uint8_t cmdLen,
                   std::uint32_t len, int openFlags) {
    EXPECT_EQ(r.interface_id, 'S');
    EXPECT_EQ(r.dxfer_direction, direction);
    EXPECT_EQ(r.cmd_len, cmdLen);
    EXPECT_EQ(r.mx_sb_len, 96);
    EXPECT_EQ(r.dxfer_len, len);
    EXPECT_EQ(r.timeout, 30U);  // milliseconds
    EXPECT_EQ(r.flags, 0U);
    EXPECT_EQ(r.iovec_count, 0);
    EXPECT_EQ(r.pack_id, 0);
    EXPECT_FALSE(r.usr_ptr);
    EXPECT_EQ(r.open_flags, openFlags);
}

}  // namespace

void ExpectEveryCommand(const std::vector<vnarray::CommandRecord>& commands,
                        const std::map<std::string, HostFields>& hosts) {
    // INQUIRY allocation length by EVPD and page.
    const std::map<std::pair<int, int>, std::uint32_t> inquiries = {
        {{0, 0x00}, 36}, {{1, 0x80}, 28}, {{1, 0x83}, 24}, {{1, 0xC0}, 716}, {{1, 0xC8}, 512}};
    constexpr int kToDev = -2;
    constexpr int kFromDev = -3;
    for (const auto& r : commands) {
        SCOPED_TRACE("command " + std::to_string(r.seq) + " on " + r.lun);
        ASSERT_FALSE(r.cdb.empty());
        const auto host = hosts.find(r.array);
        switch (r.cdb[0]) {
            case 0x12: {
                ASSERT_EQ(r.cdb.size(), 6U);
                const auto it = inquiries.find({r.cdb[1], r.cdb[2]});
                ASSERT_NE(it, inquiries.end())
                    << "EVPD " << int{r.cdb[1]} << " page " << int{r.cdb[2]};
                EXPECT_EQ(r.cdb, Join({{0x12, r.cdb[1], r.cdb[2]}, Be(it->second, 2), {0x00}}));
                ExpectRequest(r, kFromDev, 6, it->second, O_RDONLY);
                break;
            }
            case 0xC7:
                EXPECT_EQ(r.cdb, Hex("C7 00 0000000000000000 00001000 81 00"));
                ExpectRequest(r, kFromDev, 16, 4096, O_RDONLY);
                break;
            case 0xC9:
                EXPECT_EQ(r.cdb, Hex("C9 00 0000000000000000 0000001C 81 00"));
                ExpectRequest(r, kToDev, 16, 28, O_RDWR);
                ASSERT_NE(host, hosts.end()) << "a heartbeat to " << r.array;
                EXPECT_EQ(r.data_out, Join({Hex("0081001C"),
                                            host->second.versions,
                                            host->second.hostIp,
                                            {0, host->second.ipType, 0, 0}}));
                break;
            case 0xCA: {
                ASSERT_GE(r.data_out.size(), 33U);
                ASSERT_LE(r.data_out.size(), 4096U);
                ASSERT_NE(host, hosts.end()) << "a chunk to " << r.array;
                const Bytes header(r.data_out.begin(), r.data_out.begin() + 32);
                const std::uint32_t size = (std::uint32_t{header[2]} << 24) |
                                           (std::uint32_t{header[3]} << 16) |
                                           (std::uint32_t{header[4]} << 8) | header[5];
                EXPECT_EQ(header, ChunkHeader(size, host->second));
                break;
            }
            default:
                ADD_FAILURE() << "unexpected operation code " << int{r.cdb[0]};
        }
    }
}

void ExpectChunks(const std::vector<vnarray::CommandRecord>& writes, const Bytes& archive,
                  const HostFields& f) {
    // 4064 data bytes behind the 32-byte header, the last chunk shorter.
    const auto size = static_cast<std::uint32_t>(archive.size());
    const size_t count = (size + 4063) / 4064;
    ASSERT_EQ(writes.size(), count);
    for (size_t i = 0; i < count; ++i) {
        const auto offset = static_cast<std::uint32_t>(i * 4064);
        const std::uint32_t n = std::min(size - offset, 4064U);
        SCOPED_TRACE("chunk at " + std::to_string(offset));
        EXPECT_EQ(writes[i].cdb, Join({{0xCA, 0x00}, Be(offset, 8), Be(32 + n, 4), {0x81, 0x00}}));
        ExpectRequest(writes[i], -2, 16, 32 + n, O_RDWR);
        Bytes transfer = ChunkHeader(size, f);
        transfer.insert(transfer.end(), archive.begin() + offset, archive.begin() + offset + n);
        EXPECT_EQ(writes[i].data_out, transfer);
    }
}

std::vector<vnarray::OpenRecord> SettledOpens(vnarray::Client& client, const std::string& lun) {
    std::vector<vnarray::OpenRecord> records;
    (void)WaitFor(
        [&] {
            records = client.Opens(lun);
            long held = 0;
            for (const auto& r : records) {
                held += r.close ? -1 : (r.err == 0 ? 1 : 0);
            }
            return held <= 0;
        },
        10);
    return records;
}

}  // namespace hic_test
