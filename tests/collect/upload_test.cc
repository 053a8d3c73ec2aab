// The upload step on its own: archives of chosen sizes sent with
// HIC_WriteCollectResultToArray and checked at the array byte for byte, and
// the archives it must refuse.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "collect/collect_fixture.h"
#include "collect/result_upload.h"
#include "inventory/array_list.h"

namespace hic_test {
namespace {

class UploadTest : public CollectTest {
  protected:
    HIC_ArrayInfo& ArmedWithWorkspace() {
        HIC_ArrayInfo& rec = Armed("ROAD01");
        MakeDirs("/opt/Vornal/ROAD01", 0700);
        return rec;
    }
};

class ChunkingTest : public UploadTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(ChunkingTest, SendsEveryByteOnceInOrder) {
    const uint32_t size = GetParam();
    HIC_ArrayInfo& rec = ArmedWithWorkspace();
    Bytes archive(size);
    for (uint32_t i = 0; i < size; ++i) {
        archive[i] = static_cast<uint8_t>((i * 2654435761U) >> 24);
    }
    WriteFile("/opt/Vornal/ROAD01/result.tar.gz", std::string(archive.begin(), archive.end()));

    HIC_WriteCollectResultToArray(&rec);

    EXPECT_EQ(rec.taskState.load(), HIC_TASK_FINISHED);
    const auto uploads = array().Uploads("ROAD01");
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_TRUE(uploads[0].complete);
    EXPECT_TRUE(uploads[0].issues.empty()) << uploads[0].issues.front();
    EXPECT_EQ(array().UploadData("ROAD01"), archive);
    ExpectChunks(Commands("sdb", "ca"), archive, ArmedVersions(), ArmedHostIp(), 1);
    // One open and one close of the device for the whole attempt.
    const auto opens = SettledOpens(array(), "sdb");
    ASSERT_EQ(opens.size(), 2U);
    EXPECT_FALSE(opens[0].close);
    EXPECT_EQ(opens[0].flags, O_RDWR);
    EXPECT_TRUE(opens[1].close);
    EXPECT_TRUE(array().Opens("sdc").empty());
    EXPECT_EQ(LoggedMessages(), Joined(UploadLines("ROAD01", "/dev/sdb", size)));
}

// Chunks carry 4064 data bytes: one of 1, one full, a full one and 1 byte,
// two full and no empty third, and 4064 + 4064 + 1872.
INSTANTIATE_TEST_SUITE_P(Upload, ChunkingTest,
                         ::testing::Values(1U, 4064U, 4065U, 8128U, 10000U, 100000U),
                         [](const ::testing::TestParamInfo<uint32_t>& param) {
                             return "Bytes" + std::to_string(param.param);
                         });

struct RefusedCase {
    const char* name;
    const char* setup;  // shell commands that leave the archive in its state
    LogList perLun;     // lines after "begin write", for each LUN
};

class RefusedTest : public UploadTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedTest, EveryLunTriedNoneWritten) {
    const RefusedCase& c = GetParam();
    HIC_ArrayInfo& rec = ArmedWithWorkspace();
    ASSERT_EQ(std::system(c.setup), 0);

    HIC_WriteCollectResultToArray(&rec);

    // Nothing reached the array, the state is left to the collection thread.
    EXPECT_EQ(rec.taskState.load(), HIC_TASK_COLLECTING);
    EXPECT_TRUE(array().Commands({{"kind", "ca"}}).empty());
    LogList expected;
    for (const char* dev : {"/dev/sdb", "/dev/sdc"}) {
        expected =
            Cat(expected, BeginLines("ROAD01", dev, 0)[0], c.perLun, FailedOnLine("ROAD01", dev));
        // Opened and closed again for each attempt.
        EXPECT_EQ(SettledOpens(array(), std::string(dev).substr(5)).size(), 2U) << dev;
    }
    EXPECT_EQ(LoggedMessages(), Joined(expected));
}

std::string SizeLine(const std::string& size) {
    return Info("HIC_WriteResultFileBufToArray",
                "the array{sn:ROAD01} result fileSize is " + size + ".\n");
}

INSTANTIATE_TEST_SUITE_P(
    Upload, RefusedTest,
    ::testing::Values(RefusedCase{"Missing",
                                  "true",
                                  {Err("HIC_WriteResultFileBufToArray",
                                       "fopen /opt/Vornal/ROAD01/result.tar.gz file error.\n")}},
                      RefusedCase{"Empty",
                                  ": > /opt/Vornal/ROAD01/result.tar.gz",
                                  {SizeLine("0"), Err("HIC_WriteResultFileBufToArray",
                                                      "fileSize is not valid.\n")}},
                      // Sizes and offsets travel as signed 32-bit values: 2 GiB would wrap.
                      RefusedCase{"TwoGiB",
                                  "truncate -s 2G /opt/Vornal/ROAD01/result.tar.gz",
                                  {SizeLine("2147483648"),
                                   Err("HIC_WriteResultFileBufToArray",
                                       "result file of 2147483648 bytes is too large, the limit is "
                                       "2147483647 bytes.\n")}}),
    CaseName());

TEST_F(UploadTest, NoRecordNoUpload) {
    HIC_WriteCollectResultToArray(nullptr);
    // The mutex was not left taken.
    ASSERT_EQ(pthread_mutex_trylock(&HIC_ResultWriteMutex), 0);
    (void)pthread_mutex_unlock(&HIC_ResultWriteMutex);
    EXPECT_EQ(LoggedMessages(), "");
}

}  // namespace
}  // namespace hic_test
