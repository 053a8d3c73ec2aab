// The collection tests share one virtual array and run on a clock twenty
// times faster than real time: a 10 s heartbeat period is half a real second.
#include "collect/collect_fixture.h"
#include "support/faketime.h"

namespace {

// Each test puts only the arrays it needs in the daemon's LUN list. The
// discovery accepts the last two serial numbers; the collection must not.
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

}  // namespace

HIC_TEST_FAKETIME_MAIN("+0 x20", 20, hic_test::CollectEnvironment(kConfig))
