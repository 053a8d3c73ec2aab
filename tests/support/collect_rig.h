// Shared by the sandboxed tests of the heartbeat and the collection work:
// a virtual array (vnarray) serving /dev/sdX, the daemon's lists built from
// it by the real discovery, stand-in collection scripts in the product's
// script directory, the settings file, and helpers to wait for the
// daemon's detached threads and to check what reached the array.
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
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "support/faketime.h"
#include "support/sandbox_test.h"

namespace hic_test {

using vnarray::Bytes;

inline constexpr const char* kScriptDir = "/Vornal/install/otherTools";
// Where the stand-in script finds its per-array settings and leaves notes
// for the test (never inside the workspace, which the daemon removes).
inline constexpr const char* kRunDir = "/run/hic-collect-test";
inline constexpr const char* kSettingsPath = "/etc/vn.hostinfo";

// The stand-in collection script. It works in its own directory, as the
// product's does, and can be told (by /run/hic-collect-test/<sn>.conf) to
// write a large random file (BIG=bytes), leave a symbolic link (LINK=target),
// wait for other arrays' scripts (MEET=count), sleep (SLEEP=seconds) or
// write nothing at all (NOTHING=1).
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

// The files the stand-in script leaves, in the order the packing command
// stores them (the shell sorts each pattern's matches).
inline const std::vector<std::string>& ScriptFiles(bool big) {
    static const std::vector<std::string> small = {"args.data", "copy.data", "listing.data",
                                                   "mode.data", "CollectLog_1.txt"};
    static const std::vector<std::string> large = {"args.data",    "big.data",  "copy.data",
                                                   "listing.data", "mode.data", "CollectLog_1.txt"};
    return big ? large : small;
}

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

inline Bytes ReadBytes(const std::string& path) {
    const std::string text = ReadFile(path.c_str());
    return {text.begin(), text.end()};
}

inline Bytes Hex(const std::string& text) {
    return vnarray::FromHex(text).value();
}

// A 16-byte vendor CDB as the daemon lays it out.
inline Bytes VendorCdb(uint8_t op, uint64_t address, uint32_t length) {
    Bytes c(16, 0);
    c[0] = op;
    for (int i = 0; i < 8; ++i) {
        c[2 + i] = static_cast<uint8_t>(address >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; ++i) {
        c[10 + i] = static_cast<uint8_t>(length >> (24 - 8 * i));
    }
    c[14] = 0x81;
    return c;
}

// The chunk header the array expects before every chunk of an archive.
inline Bytes ChunkHeader(uint32_t size, const Bytes& versions, const Bytes& hostIp,
                         uint8_t ipType) {
    Bytes h = {0x00,
               0x81,
               static_cast<uint8_t>(size >> 24),
               static_cast<uint8_t>(size >> 16),
               static_cast<uint8_t>(size >> 8),
               static_cast<uint8_t>(size),
               0x10,
               0x00};
    h.insert(h.end(), versions.begin(), versions.end());
    h.insert(h.end(), hostIp.begin(), hostIp.end());
    h.push_back(ipType);
    h.insert(h.end(), 3, 0x00);
    return h;
}

inline Bytes HeartbeatPayload(const Bytes& versions, const Bytes& hostIp, uint8_t ipType) {
    Bytes p = {0x00, 0x81, 0x00, 0x1C};
    p.insert(p.end(), versions.begin(), versions.end());
    p.insert(p.end(), hostIp.begin(), hostIp.end());
    p.push_back(0x00);
    p.push_back(ipType);
    p.insert(p.end(), 2, 0x00);
    return p;
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

// The log split into its lines (each with its line end), prefixes reduced
// to "LEVEL func: ".
inline std::vector<std::string> LogLines() {
    const std::string log = LoggedMessages();
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < log.size()) {
        const size_t end = log.find('\n', start);
        const size_t stop = end == std::string::npos ? log.size() : end + 1;
        lines.push_back(log.substr(start, stop - start));
        start = stop;
    }
    return lines;
}

inline std::string Joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& l : lines) {
        out += l;
    }
    return out;
}

// Whether observed is some interleaving of a and b, each kept in its own
// order: two threads that log side by side produce exactly that.
inline bool IsInterleaving(const std::vector<std::string>& observed,
                           const std::vector<std::string>& a, const std::vector<std::string>& b) {
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

// Builds the expectation of one thread's log lines.
class Lines {
  public:
    Lines& Add(const std::string& line, int times = 1) {
        for (int i = 0; i < times; ++i) {
            lines_.push_back(line);
        }
        return *this;
    }
    Lines& Add(const std::vector<std::string>& more) {
        lines_.insert(lines_.end(), more.begin(), more.end());
        return *this;
    }
    const std::vector<std::string>& get() const { return lines_; }

  private:
    std::vector<std::string> lines_;
};

// The log must be the collection thread's lines and the heartbeat
// thread's lines, interleaved in some order.
#define EXPECT_LOG_INTERLEAVES(task, heartbeat)                                              \
    EXPECT_TRUE(                                                                             \
        ::hic_test::IsInterleaving(::hic_test::LogLines(), (task).get(), (heartbeat).get())) \
        << "log:\n"                                                                          \
        << ::hic_test::Joined(::hic_test::LogLines()) << "\nfirst thread:\n"                 \
        << ::hic_test::Joined((task).get()) << "\nsecond thread:\n"                          \
        << ::hic_test::Joined((heartbeat).get())

// The whole test binary shares one virtual array and one snapshot of the
// LUN list the real discovery built from it; each test picks the arrays it
// works with.
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
    static const std::vector<HIC_LunInfo>& luns() { return luns_; }

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

    // The LUN list of the daemon: the discovered LUNs of these arrays, in
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
    static bool WaitReleased(double seconds = 60) {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
        for (;;) {
            bool released = true;
            for (HIC_ListHead* p = HIC_ArrayListHead.next; p != &HIC_ArrayListHead; p = p->next) {
                released = released && HIC_IsArrayReleased(reinterpret_cast<HIC_ArrayInfo*>(p));
            }
            if (released) {
                return true;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            RealSleep(std::chrono::milliseconds(20));
        }
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

}  // namespace hic_test

#endif  // HIC_TESTS_SUPPORT_COLLECT_RIG_H
