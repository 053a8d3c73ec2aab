// The workspace operations on their own: the serial-number check, making the
// directory and copying the scripts, and the removal that never follows a
// symbolic link out of the tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "base/handles.h"
#include "collect/collect_fixture.h"
#include "collect/collect_task.h"
#include "collect/result_upload.h"
#include "collect/workspace.h"
#include "inventory/array_list.h"

namespace hic_test {
namespace {

struct SnCase {
    const char* name;
    const char* sn;
    uint32_t bound;
    int expected;
};

class ArraySnTest : public ::testing::TestWithParam<SnCase> {};

TEST_P(ArraySnTest, LettersAndDigitsOnly) {
    EXPECT_EQ(HIC_IsValidArraySn(GetParam().sn, GetParam().bound), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Workspace, ArraySnTest,
    ::testing::Values(SnCase{"Empty", "", 21, 0}, SnCase{"LettersDigits", "Ab09Zz", 21, 0},
                      SnCase{"TwentyCharacters", "ABCDEFGHIJ0123456789", 21, 0},
                      SnCase{"Blank", "AB 12", 21, -1}, SnCase{"Slash", "AB/12", 21, -1},
                      SnCase{"Dot", "AB.12", 21, -1}, SnCase{"Dash", "AB-12", 21, -1},
                      SnCase{"DotDot", "..", 21, -1}, SnCase{"Underscore", "AB_12", 21, -1},
                      SnCase{"HighByte", "AB\xC3\xA9", 21, -1},
                      SnCase{"BadByteAtBoundNotSeen", "ABC!", 3, 0},
                      SnCase{"BadByteBeforeBound", "ABC!", 4, -1}, SnCase{"Null", nullptr, 21, -1}),
    CaseName());

struct DeleteCase {
    const char* name;
    const char* setup;  // shell commands run in /opt/Vornal
    const char* path;   // null is refused quietly
    const char* check;  // shell test that must hold afterwards
};

class DeleteTest : public SandboxTest, public ::testing::WithParamInterface<DeleteCase> {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        ASSERT_EQ(std::system("rm -rf /opt/Vornal/T /srv/outside && mkdir -p /srv/outside/sub && "
                              "echo keep > /srv/outside/keep.txt && "
                              "echo deep > /srv/outside/sub/deep.txt"),
                  0);
    }
    void TearDown() override {
        EXPECT_EQ(std::system("rm -rf /opt/Vornal/T /srv/outside"), 0);
        SandboxTest::TearDown();
    }
};

TEST_P(DeleteTest, RemovesTreeWithoutLeavingIt) {
    const DeleteCase& c = GetParam();
    ASSERT_EQ(std::system((std::string("cd /opt/Vornal && ") + c.setup).c_str()), 0);
    HIC_DeleteFileByPath(c.path);
    EXPECT_EQ(std::system(c.check), 0) << c.check;
    // Nothing outside was touched, whatever the tree held.
    EXPECT_EQ(ReadFile("/srv/outside/keep.txt"), "keep\n");
    EXPECT_EQ(ReadFile("/srv/outside/sub/deep.txt"), "deep\n");
    EXPECT_EQ(LoggedMessages(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Workspace, DeleteTest,
    ::testing::Values(
        DeleteCase{"RegularFile", "mkdir T && echo x > T/f", "/opt/Vornal/T/f",
                   "test ! -e /opt/Vornal/T/f && test -d /opt/Vornal/T"},
        DeleteCase{"EmptyDirectory", "mkdir T", "/opt/Vornal/T", "test ! -e /opt/Vornal/T"},
        DeleteCase{"NestedTree",
                   "mkdir -p T/a/b/c T/d && echo 1 > T/f && echo 2 > T/a/f && echo 3 > T/a/b/c/f "
                   "&& chmod 600 T T/a && chmod 0 T/d",
                   "/opt/Vornal/T", "test ! -e /opt/Vornal/T"},
        DeleteCase{"LinkToDirectoryStays",
                   "mkdir -p T/sub && echo 1 > T/f && echo 2 > T/sub/f && ln -s /srv/outside T/out",
                   "/opt/Vornal/T",
                   "test \"$(ls -A /opt/Vornal/T)\" = out && "
                   "test \"$(readlink /opt/Vornal/T/out)\" = /srv/outside"},
        DeleteCase{"LinkInSubdirectoryStays", "mkdir -p T/a && ln -s /srv/outside/sub T/a/l",
                   "/opt/Vornal/T",
                   "test \"$(ls -A /opt/Vornal/T)\" = a && test -L /opt/Vornal/T/a/l"},
        DeleteCase{"LinkToFileStays", "mkdir T && ln -s /srv/outside/keep.txt T/l", "/opt/Vornal/T",
                   "test -L /opt/Vornal/T/l"},
        DeleteCase{"WorkspaceItselfALink", "ln -s /srv/outside T", "/opt/Vornal/T",
                   "test -L /opt/Vornal/T && test -d /srv/outside/sub"},
        DeleteCase{"FifoStays", "mkdir T && mkfifo T/p && echo 1 > T/f", "/opt/Vornal/T",
                   "test -p /opt/Vornal/T/p && test ! -e /opt/Vornal/T/f"},
        DeleteCase{"MissingPath", "true", "/opt/Vornal/T", "test ! -e /opt/Vornal/T"},
        DeleteCase{"NullPath", "mkdir T", nullptr, "test -d /opt/Vornal/T"}),
    CaseName());

// A child path longer than 4095 characters cannot be built: the walk stops
// in that directory, which keeps what it holds, and so do the levels above.
TEST_F(DeleteTest, ChildPathTooLongStopsInThatDirectory) {
    const std::string name(200, 'n');
    ASSERT_EQ(::mkdir("/opt/Vornal/T", 0700), 0);
    hic::UniqueFd dir(::open("/opt/Vornal/T", O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(dir.Valid());
    // "/opt/Vornal/T" and 20 levels of 201 characters make 4033; 200 more do not fit.
    for (int depth = 0; depth < 20; ++depth) {
        ASSERT_EQ(::mkdirat(dir.Get(), name.c_str(), 0700), 0);
        dir.Reset(::openat(dir.Get(), name.c_str(), O_RDONLY | O_DIRECTORY));
        ASSERT_TRUE(dir.Valid());
    }
    ASSERT_EQ(::mkdirat(dir.Get(), name.c_str(), 0700), 0);

    HIC_DeleteFileByPath("/opt/Vornal/T");
    EXPECT_EQ(LoggedMessages(), "ERR HIC_DeleteFileByPath: sprintf_s failed.\n");
    struct stat st {};
    EXPECT_EQ(::fstatat(dir.Get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_TRUE(Exists("/opt/Vornal/T"));
}

using WorkspaceTest = CollectTest;

TEST_F(WorkspaceTest, CreateDirectoryReportsEachOutcome) {
    const mode_t old = ::umask(0);  // as the daemon runs
    HIC_CreateDirectory("/opt/Vornal/NEW01");
    HIC_CreateDirectory("/opt/Vornal/NEW01");
    HIC_CreateDirectory("/opt/Vornal/none/NEW02");
    HIC_CreateDirectory(nullptr);
    (void)::umask(old);
    struct stat st {};
    ASSERT_EQ(::stat("/opt/Vornal/NEW01", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    EXPECT_FALSE(Exists("/opt/Vornal/none"));
    EXPECT_EQ(LoggedMessages(),
              "INFO HIC_CreateDirectory: The directory{/opt/Vornal/NEW01} recreate success.\n"
              "ERR HIC_CreateDirectory: The directory{/opt/Vornal/NEW01} recreate fail.\n"
              "ERR HIC_CreateDirectory: The directory{/opt/Vornal/none/NEW02} recreate fail.\n"
              "ERR HIC_CreateDirectory: file path is null, can not recreate.\n");
}

TEST_F(WorkspaceTest, GetCollectFileMakesWorkspaceWithBothScripts) {
    const mode_t old = ::umask(0);
    CollectRig::UseArrays({"ROAD01"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    EXPECT_EQ(HIC_GetCollectFile(&Record("ROAD01")), 0);
    (void)::umask(old);
    struct stat st {};
    ASSERT_EQ(::stat("/opt/Vornal/ROAD01", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    EXPECT_EQ(ReadFile("/opt/Vornal/ROAD01/hic_collect.sh"), kCollectScript);
    EXPECT_EQ(ReadFile("/opt/Vornal/ROAD01/hic_data.sh"), kDataScript);
    EXPECT_EQ(std::system("test \"$(ls -A /opt/Vornal/ROAD01 | tr '\\n' ' ')\" = "
                          "'hic_collect.sh hic_data.sh '"),
              0);
    EXPECT_EQ(LoggedMessages(),
              "INFO HIC_CreateDirectory: The directory{/opt/Vornal/ROAD01} recreate success.\n");
    EXPECT_EQ(HIC_GetCollectFile(nullptr), -1);
}

// Every operation that builds a path or a command from the serial number
// refuses a bad one before anything reaches the file system or the array.
TEST_F(WorkspaceTest, InvalidSerialNumberRefusedEverywhere) {
    CollectRig::UseArrays({"ROAD01"});
    ASSERT_EQ(HIC_GetArrayList(), 0);
    HIC_ArrayInfo& rec = Record("ROAD01");
    std::strcpy(rec.arraySn, "../x");
    const auto* lun = reinterpret_cast<const HIC_LunInfo*>(HIC_LunListHead.next);

    EXPECT_EQ(HIC_GetCollectFile(&rec), -1);
    EXPECT_EQ(HIC_StartQueryCollectInfoByLun(lun, &rec), -1);
    EXPECT_EQ(HIC_WriteResultToArray(lun, &rec), -1);
    HIC_ExecuteCollectScript(&rec);
    (void)HIC_CollectTaskThread(&rec);
    std::strcpy(rec.arraySn, "ROAD01");

    std::string expected;
    for (int i = 0; i < 5; ++i) {
        expected += "ERR HIC_GetWorkspacePath: Invalid array sn: ../x.\n";
    }
    EXPECT_EQ(LoggedMessages(), expected);
    EXPECT_TRUE(array().Opens().empty());
    EXPECT_FALSE(Exists("/opt/x"));
    EXPECT_TRUE(HIC_IsArrayReleased(&rec));
    EXPECT_EQ(HIC_StartQueryCollectInfoByLun(nullptr, &rec), -1);
    EXPECT_EQ(HIC_StartQueryCollectInfoByLun(lun, nullptr), -1);
    EXPECT_EQ(HIC_WriteResultToArray(nullptr, &rec), -1);
    EXPECT_EQ(HIC_GetCollectScriptFromArray(nullptr), -1);
}

}  // namespace
}  // namespace hic_test
