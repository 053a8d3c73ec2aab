// The collection tests share one virtual array for the whole binary and
// run on a clock twenty times faster than real time: a heartbeat period of
// 10 s takes half a real second.
#include "collect/collect_fixture.h"
#include "collect/result_upload.h"
#include "support/faketime.h"

namespace hic_test {
namespace {

// Arrays for every scenario; each test puts only the ones it needs in the
// daemon's LUN list. Two serial numbers are not fit for a path: the
// discovery accepts them (no shell metacharacter), the collection must not.
constexpr const char* kConfig = R"({
  "arrays": [
    {"sn": "ROAD01", "name": "road"},
    {"sn": "FIVE01", "name": "five"},
    {"sn": "TWIN01", "name": "twin"},
    {"sn": "../../tmp/EVIL", "id": "evil", "name": "evil"},
    {"sn": "A B", "id": "space", "name": "space"}],
  "luns": [
    {"dev": "sdb", "array": "ROAD01"}, {"dev": "sdc", "array": "ROAD01"},
    {"dev": "sdd", "array": "FIVE01"}, {"dev": "sde", "array": "FIVE01"},
    {"dev": "sdf", "array": "FIVE01"}, {"dev": "sdg", "array": "FIVE01"},
    {"dev": "sdh", "array": "FIVE01"},
    {"dev": "sdi", "array": "TWIN01"}, {"dev": "sdj", "array": "TWIN01"},
    {"dev": "sdk", "array": "evil"}, {"dev": "sdl", "array": "space"}]
})";

class CollectEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (!InHostSandbox()) {
            std::fputs("this test must run inside the host sandbox\n", stderr);
            std::abort();
        }
        // As start-up does before the main loop.
        ASSERT_EQ(pthread_mutex_init(&HIC_ResultWriteMutex, nullptr), 0);
        CollectRig::Start(kConfig);
    }
    void TearDown() override { CollectRig::Stop(); }
};

}  // namespace
}  // namespace hic_test

HIC_TEST_FAKETIME_MAIN("+0 x20", 20, hic_test::CollectEnvironment)
