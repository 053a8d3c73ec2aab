// Shared by the sandboxed heartbeat and collection tests: a virtual array
// (vnarray) serving /dev/sdX, the daemon's lists built from it by the real
// discovery, stand-in collection scripts, the settings file, and helpers to
// wait for the daemon's detached threads and to check what reached the array.
#ifndef HIC_TESTS_SUPPORT_COLLECT_RIG_H
#define HIC_TESTS_SUPPORT_COLLECT_RIG_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "client.h"
#include "inventory/array_list.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "support/faketime.h"
#include "support/sandbox_test.h"

namespace hic_test {

using vnarray::Bytes;

inline constexpr const char* kScriptDir = "/Vornal/install/otherTools";
// Per-array settings of the stand-in script and its notes for the test
// (outside the workspace, which the daemon removes).
inline constexpr const char* kRunDir = "/run/hic-collect-test";
inline constexpr const char* kSettingsPath = "/etc/vn.hostinfo";

// The stand-in collection script. It works in its own directory, as the
// product's does; /run/hic-collect-test/<sn>.conf can make it write a large
// random file (BIG=bytes), leave a symbolic link (LINK=target), wait for other
// arrays' scripts (MEET=count), sleep (SLEEP=seconds) or write nothing
// (NOTHING=1).
inline constexpr const char* kCollectScript = R"SH(#!/bin/sh
dir=$(dirname "$0")
sn=$(basename "$dir")
run=/run/hic-collect-test
echo run >> "$run/$sn.runs"
[ -r "$run/$sn.conf" ] && . "$run/$sn.conf"
[ -n "$NOTHING" ] && exit 0
listing=$(ls "$dir")
echo "$listing" > "$dir/listing.data"
printf '%s\n' "$#" "$@" > "$dir/args.data"
stat -c '%a' "$dir" > "$dir/mode.data"
if cmp -s "$dir/hic_data.sh" /Vornal/install/otherTools/hic_data.sh; then
  echo same > "$dir/copy.data"
else
  echo differs > "$dir/copy.data"
fi
echo "collection for $sn" > "$dir/CollectLog_1.txt"
if [ -n "$BIG" ]; then
  head -c "$BIG" /dev/urandom > "$dir/big.data"
  cp "$dir/big.data" "$run/$sn.big"
fi
[ -n "$LINK" ] && ln -s "$LINK" "$dir/outside"
if [ -n "$MEET" ]; then
  touch "$run/ready.$sn"
  n=0
  while [ "$(ls "$run" | grep -c '^ready\.')" -lt "$MEET" ] && [ $n -lt 2000 ]; do
    sleep 0.1
    n=$((n + 1))
  done
fi
[ -n "$SLEEP" ] && sleep "$SLEEP"
[ "$#" -eq 2 ] && [ "$1" = "-scene" ] && [ "$2" = "upgrade" ] || exit 2
exit 0
)SH";
inline constexpr const char* kDataScript =
    "#!/bin/sh\n# never run by the daemon itself\necho data\n";

inline void WriteSettings(const std::string& type, const std::string& address) {
    WriteFile(kSettingsPath, "IpType=" + type + ";\nIpAddress=" + address + ";\n");
}

inline void ScriptConf(const std::string& sn, const std::string& text) {
    WriteFile(std::string(kRunDir) + "/" + sn + ".conf", text);
}

// How often the stand-in script ran for the array.
inline int ScriptRuns(const std::string& sn) {
    const std::string runs = ReadFile((std::string(kRunDir) + "/" + sn + ".runs").c_str());
    return static_cast<int>(std::count(runs.begin(), runs.end(), '\n'));
}

inline bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

inline Bytes Hex(const std::string& text) {
    return vnarray::FromHex(text).value();
}

// value as n big-endian bytes.
inline Bytes Be(uint64_t value, int n) {
    Bytes b;
    for (int i = n - 1; i >= 0; --i) {
        b.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return b;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// The 16-byte vendor CDB as the daemon lays it out.
inline Bytes VendorCdb(uint8_t op, uint64_t address, uint32_t length) {
    return Join({{op, 0x00}, Be(address, 8), Be(length, 4), {0x81, 0x00}});
}

// The header the array expects before every chunk of an archive.
inline Bytes ChunkHeader(uint32_t size, const Bytes& versions, const Bytes& hostIp,
                         uint8_t ipType) {
    return Join({Hex("0081"), Be(size, 4), Hex("1000"), versions, hostIp, {ipType, 0, 0, 0}});
}

inline Bytes HeartbeatPayload(const Bytes& versions, const Bytes& hostIp, uint8_t ipType) {
    return Join({Hex("0081001C"), versions, hostIp, {0, ipType, 0, 0}});
}

// The request fields every command of the daemon carries.
inline void ExpectDaemonRequest(const vnarray::CommandRecord& r, int direction, uint32_t len,
                                int openFlags) {
    EXPECT_EQ(r.interface_id, 'S');
    EXPECT_EQ(r.dxfer_direction, direction);
    EXPECT_EQ(r.cmd_len, 16);
    EXPECT_EQ(r.mx_sb_len, 96);
    EXPECT_EQ(r.dxfer_len, len);
    EXPECT_EQ(r.timeout, 30U);
    EXPECT_EQ(r.flags, 0U);
    EXPECT_EQ(r.iovec_count, 0);
    EXPECT_EQ(r.pack_id, 0);
    EXPECT_FALSE(r.usr_ptr);
    EXPECT_EQ(r.open_flags, openFlags);
}

// A log line as LoggedMessages() gives it.
inline std::string Info(const std::string& func, const std::string& msg) {
    return "INFO " + func + ": " + msg;
}
inline std::string Err(const std::string& func, const std::string& msg) {
    return "ERR " + func + ": " + msg;
}
inline std::string Debug(const std::string& func, const std::string& msg) {
    return "DEBUG " + func + ": " + msg;
}

using LogList = std::vector<std::string>;

inline void AddTo(LogList& out, const std::string& line) {
    out.push_back(line);
}
inline void AddTo(LogList& out, const LogList& lines) {
    out.insert(out.end(), lines.begin(), lines.end());
}

// Log lines and lists of them, in order.
template <typename... Parts>
LogList Cat(const Parts&... parts) {
    LogList out;
    (AddTo(out, parts), ...);
    return out;
}

// The log split into lines (each with its line end), prefixes reduced to
// "LEVEL func: ".
inline LogList LogLines() {
    const std::string log = LoggedMessages();
    LogList lines;
    for (size_t start = 0; start < log.size();) {
        const size_t end = log.find('\n', start);
        const size_t stop = end == std::string::npos ? log.size() : end + 1;
        lines.push_back(log.substr(start, stop - start));
        start = stop;
    }
    return lines;
}

inline std::string Joined(const LogList& lines) {
    std::string out;
    for (const std::string& l : lines) {
        out += l;
    }
    return out;
}

// Whether observed is an interleaving of a and b, each kept in its own
// order: what two threads logging side by side produce.
inline bool IsInterleaving(const LogList& observed, const LogList& a, const LogList& b) {
    if (observed.size() != a.size() + b.size()) {
        return false;
    }
    // can[j]: a[0..i) and b[0..j) can make observed[0..i+j).
    std::vector<char> can(b.size() + 1, 0);
    can[0] = 1;
    for (size_t j = 1; j <= b.size(); ++j) {
        can[j] = static_cast<char>(can[j - 1] != 0 && b[j - 1] == observed[j - 1]);
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        can[0] = static_cast<char>(can[0] != 0 && a[i - 1] == observed[i - 1]);
        for (size_t j = 1; j <= b.size(); ++j) {
            const std::string& o = observed[i + j - 1];
            can[j] = static_cast<char>((can[j] != 0 && a[i - 1] == o) ||
                                       (can[j - 1] != 0 && b[j - 1] == o));
        }
    }
    return can[b.size()] != 0;
}

// The log must be the two threads' lines, interleaved in some order.
#define EXPECT_LOG_INTERLEAVES(first, second)                                          \
    EXPECT_TRUE(::hic_test::IsInterleaving(::hic_test::LogLines(), (first), (second))) \
        << "log:\n"                                                                    \
        << ::hic_test::Joined(::hic_test::LogLines()) << "\nfirst thread:\n"           \
        << ::hic_test::Joined(first) << "\nsecond thread:\n"                           \
        << ::hic_test::Joined(second)

// Polls pred, in real time, until it holds or the seconds have passed.
inline bool WaitUntil(const std::function<bool()>& pred, double seconds = 60) {
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        RealSleep(std::chrono::milliseconds(2));
    }
    return true;
}

// The array records a close when the kernel hands it the release, which
// may come after close(2) has returned: waits until every open that
// succeeded has its close, then gives the records.
inline std::vector<vnarray::OpenRecord> SettledOpens(vnarray::Client& client,
                                                     const std::string& lun = "") {
    std::vector<vnarray::OpenRecord> records;
    (void)WaitUntil(
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

// Calls fn while no new thread can get its default stack, so that thread
// creation fails (EAGAIN).
inline int WithThreadCreationFailing(const std::function<int()>& fn) {
    pthread_attr_t saved;
    pthread_attr_t huge;
    EXPECT_EQ(pthread_getattr_default_np(&saved), 0);
    EXPECT_EQ(pthread_attr_init(&huge), 0);
    EXPECT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 46), 0);
    EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
    const int ret = fn();
    EXPECT_EQ(pthread_setattr_default_np(&saved), 0);
    (void)pthread_attr_destroy(&huge);
    (void)pthread_attr_destroy(&saved);
    return ret;
}

// The whole test binary shares one virtual array and one snapshot of the
// LUN list the real discovery built from it; each test picks its arrays.
class CollectRig {
  public:
    // Writes the scripts and the settings, starts vnarray (on the real
    // clock) and runs the discovery once.
    static void Start(const char* config) {
        MakeDirs(kScriptDir);
        MakeDirs(kRunDir);
        MakeDirs("/opt/Vornal/log");
        WriteFile(std::string(kScriptDir) + "/hic_collect.sh", kCollectScript);
        WriteFile(std::string(kScriptDir) + "/hic_data.sh", kDataScript);
        (void)::chmod((std::string(kScriptDir) + "/hic_collect.sh").c_str(), 0755);
        WriteSettings("IPv4", "10.10.1.20");

        vnarray::RigOptions options;
        options.start_timeout_ms = 60000;
        rig_ = std::make_unique<vnarray::Rig>(config, options);
        WithoutFaketime([] { rig_->Start(); });
        const vnarray::Json parsed = vnarray::Json::parse(config);
        for (const auto& a : parsed.at("arrays")) {
            ids_.push_back(a.value("id", a.at("sn").get<std::string>()));
        }

        HIC_InitListHead(&HIC_LunListHead);
        HIC_InitListHead(&HIC_ArrayListHead);
        ASSERT_EQ(HIC_GetLunList(), 0);
        for (HIC_ListHead* p = HIC_LunListHead.next; p != &HIC_LunListHead; p = p->next) {
            luns_.push_back(*reinterpret_cast<HIC_LunInfo*>(p));
        }
        HIC_FreeLunList();
        std::sort(luns_.begin(), luns_.end(), [](const HIC_LunInfo& x, const HIC_LunInfo& y) {
            return std::strcmp(x.devPath, y.devPath) < 0;
        });
    }

    static void Stop() {
        HIC_FreeLunList();
        HIC_FreeArrayList();
        rig_.reset();
    }

    static vnarray::Client& client() { return rig_->client(); }

    // Brings the array and the records back to their first state.
    static void Reset() {
        ASSERT_TRUE(WaitReleased());
        client().ClearFaults();
        client().Reset();
        for (const std::string& id : ids_) {
            client().SetSwitch(id, 0, "00000000");
            client().SetVersion(id, 3, 0);
        }
        ASSERT_EQ(
            std::system("rm -rf /run/hic-collect-test/* /srv/outside /tmp/EVIL; "
                        "find /opt/Vornal -mindepth 1 -maxdepth 1 ! -name log -exec rm -rf {} +"),
            0);
        WriteSettings("IPv4", "10.10.1.20");
        HIC_FreeArrayList();
        HIC_FreeLunList();
    }

    // The daemon's LUN list: the discovered LUNs of these arrays, in
    // device-name order. The array list is emptied (versions back to zero).
    static void UseArrays(const std::set<std::string>& sns) {
        HIC_FreeArrayList();
        HIC_FreeLunList();
        for (const HIC_LunInfo& lun : luns_) {
            if (sns.count(lun.arraySn) == 0) {
                continue;
            }
            HIC_LunInfo* copy = HIC_AllocLunInfo();
            ASSERT_NE(copy, nullptr);
            *copy = lun;
            HIC_ListAddTail(&copy->list, &HIC_LunListHead);
        }
    }

    // Waits (in real time) until no thread of the daemon holds an array.
    static bool WaitReleased() {
        return WaitUntil([] {
            for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
                if (!HIC_IsArrayReleased(reinterpret_cast<HIC_ArrayInfo*>(p))) {
                    return false;
                }
            }
            return true;
        });
    }

    static HIC_ArrayInfo* FindArray(const std::string& sn) {
        for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
            auto* array = reinterpret_cast<HIC_ArrayInfo*>(p);
            if (sn == array->arraySn) {
                return array;
            }
        }
        return nullptr;
    }

  private:
    static inline std::unique_ptr<vnarray::Rig> rig_;
    static inline std::vector<std::string> ids_;
    static inline std::vector<HIC_LunInfo> luns_;
};

// The binary's environment: the shared array, started once.
class RigEnvironment : public ::testing::Environment {
  public:
    explicit RigEnvironment(const char* config) : config_(config) {}
    void SetUp() override {
        if (!InHostSandbox()) {
            std::fputs("this test must run inside the host sandbox\n", stderr);
            std::abort();
        }
        CollectRig::Start(config_);
    }
    void TearDown() override { CollectRig::Stop(); }

  private:
    const char* config_;
};

// The versions, host address and type a record gets from Armed().
inline Bytes ArmedVersions() {
    return Hex("01020304");
}
inline Bytes ArmedHostIp() {
    return Hex("20010DB8000000000000000000000001");  // 2001:db8::1
}

class RigTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        CollectRig::Reset();
    }
    void TearDown() override {
        // Records armed by hand go back to idle once no thread works on them.
        for (const std::string& sn : armed_) {
            if (HIC_ArrayInfo* a = CollectRig::FindArray(sn)) {
                EXPECT_TRUE(WaitUntil([a] {
                    return a->heartBeatRunning.load() == 0 && a->collectRunning.load() == 0;
                }));
                a->taskState.store(HIC_TASK_IDLE);
            }
        }
        EXPECT_TRUE(CollectRig::WaitReleased()) << "a daemon thread still holds an array";
        SandboxTest::TearDown();
    }

    static vnarray::Client& array() { return CollectRig::client(); }

    static HIC_ArrayInfo& Record(const std::string& sn) {
        HIC_ArrayInfo* a = CollectRig::FindArray(sn);
        EXPECT_NE(a, nullptr) << sn;
        static HIC_ArrayInfo none{};
        return a != nullptr ? *a : none;
    }

    // The record of the only array in use, as the collection thread holds it
    // while it collects.
    HIC_ArrayInfo& Armed(const std::string& sn) {
        CollectRig::UseArrays({sn});
        EXPECT_EQ(HIC_GetArrayList(), 0);
        HIC_ArrayInfo& rec = Record(sn);
        const Bytes versions = ArmedVersions();
        const Bytes hostIp = ArmedHostIp();
        std::copy(versions.begin(), versions.end(), rec.versions);
        std::copy(hostIp.begin(), hostIp.end(), rec.hostIp);
        rec.ipType = 1;
        rec.taskState.store(HIC_TASK_COLLECTING);
        armed_.push_back(sn);
        return rec;
    }

    static std::vector<vnarray::CommandRecord> Commands(const std::string& lun,
                                                        const std::string& kind) {
        return array().Commands({{"lun", lun}, {"kind", kind}});
    }

    static std::vector<std::string> Devs(const std::vector<vnarray::CommandRecord>& cmds) {
        std::vector<std::string> out;
        for (const auto& c : cmds) {
            out.push_back(c.lun);
        }
        return out;
    }

  private:
    std::vector<std::string> armed_;
};

}  // namespace hic_test

#endif  // HIC_TESTS_SUPPORT_COLLECT_RIG_H
