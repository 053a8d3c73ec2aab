// The cutting of an archive into chunks, at the sizes where an off-by-one
// would show: one byte, exactly one and two chunks, one byte more.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/handles.h"
#include "client.h"
#include "collect/result_upload.h"
#include "support/support.h"
#include "support/wire.h"

namespace hic_test {
namespace {

using UploadTest = SandboxTest;

TEST_F(UploadTest, ChunksCoverTheArchiveOnceInOrder) {
    vnarray::Rig rig(R"({"arrays": [{"sn": "UP01"}], "luns": [{"dev": "sdb", "array": "UP01"}]})");
    rig.Start();
    const HostFields host{Hex("01020304"), Hex("20010DB8000000000000000000000001"), 1};
    HIC_ArrayInfo array{};
    std::strcpy(array.arraySn, "UP01");
    std::memcpy(array.versions, host.versions.data(), 4);
    std::memcpy(array.hostIp, host.hostIp.data(), 16);
    array.ipType = host.ipType;
    for (const size_t size : {1, 4064, 4065, 8128, 10000}) {
        SCOPED_TRACE("archive of " + std::to_string(size) + " bytes");
        rig.client().Reset();
        Bytes archive(size);
        for (size_t i = 0; i < size; ++i) {
            archive[i] = static_cast<std::uint8_t>(i * 131 + i / 4064);
        }
        WriteFile("/tmp/archive", std::string(archive.begin(), archive.end()));
        hic::UniqueFd fd(::open("/dev/sdb", O_RDWR));
        ASSERT_TRUE(fd.Valid());
        EXPECT_EQ(HIC_WriteResultFileBufToArray(fd.Get(), &array, "/tmp/archive"), 0);
        ExpectChunks(rig.client().Commands({{"kind", "ca"}}), archive, host);
    }
    EXPECT_EQ(rig.Stop(), 0);
}

}  // namespace
}  // namespace hic_test
