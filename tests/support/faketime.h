// Runs a test binary with the wall clock sped up, so that the daemon's
// fixed periods (the 10-second heartbeat, the 300-second upload budget)
// pass in a fraction of the real time while the constants stay as they are.
//
// HIC_TEST_FAKETIME_MAIN("+0 x20", 20, Env) defines main(): unless the process
// already runs under libfaketime, it re-executes itself with
//   LD_PRELOAD  libfaketime ahead of what was there; in a build with the
//               dynamic ASan runtime (gcc), that runtime first of all: it
//               must come first, and LeakSanitizer aborts instead of
//               reporting when libfaketime is loaded ahead of it,
//   FAKETIME    the given setting: time() and the wall clock run
//               that many times faster, sleep() and nanosleep() are
//               shortened by the same factor,
//   FAKETIME_DONT_FAKE_MONOTONIC=1  the monotonic clock stays real, so test
//               deadlines (and the vnarray rig's) are in real seconds.
// The re-executed process then drops the ASan runtime from LD_PRELOAD again,
// so that child processes (the collection scripts, tar) get libfaketime
// only and run, uninstrumented, on the same accelerated clock. The vnarray
// process should not: start it inside WithoutFaketime(), so its records and
// delays are in real time. ThreadSanitizer needs nothing special.
#ifndef HIC_TESTS_SUPPORT_FAKETIME_H
#define HIC_TESTS_SUPPORT_FAKETIME_H

#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace hic_test {

inline constexpr const char* kFaketimeLib = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
// Set in the re-executed process; its value is the speed-up factor.
inline constexpr const char* kFaketimeMarker = "HIC_TEST_FAKETIME_RATE";

// The speed-up factor of this process's wall clock (1 when not faked).
inline double FaketimeRate() {
    const char* rate = std::getenv(kFaketimeMarker);
    return rate != nullptr ? std::atof(rate) : 1.0;
}

// Set in the re-executed process: what its children are to preload.
inline constexpr const char* kChildPreload = "HIC_TEST_FAKETIME_CHILD_PRELOAD";

// The path of the dynamic ASan runtime this process was linked with, or "".
inline std::string AsanRuntime() {
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            const std::string name = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (name.find("/libasan.so") != std::string::npos) {
                *static_cast<std::string*>(data) = name;
                return 1;
            }
            return 0;
        },
        &found);
    return found;
}

// Sleeps the given real time: sleeps are shortened by the speed-up.
inline void RealSleep(std::chrono::milliseconds real) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(real) * FaketimeRate());
}

// Re-executes the binary under libfaketime; returns only when that is
// done already (then it prepares the children's environment) or not
// possible (then the test runs in real time and says so).
inline void ReexecUnderFaketime(char** argv, const char* setting, double rate) {
    if (std::getenv(kFaketimeMarker) != nullptr) {
        if (const char* child = std::getenv(kChildPreload); child != nullptr) {
            ::setenv("LD_PRELOAD", child, 1);
            ::unsetenv(kChildPreload);
        }
        return;
    }
    if (::access(kFaketimeLib, R_OK) != 0) {
        std::fprintf(stderr, "%s missing: running in real time\n", kFaketimeLib);
        return;
    }
    std::string child = kFaketimeLib;
    if (const char* old = std::getenv("LD_PRELOAD"); old != nullptr && *old != '\0') {
        child += std::string(" ") + old;
    }
    const std::string asan = AsanRuntime();
    const std::string preload = asan.empty() ? child : asan + " " + child;
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(kChildPreload, child.c_str(), 1);
    ::setenv("FAKETIME", setting, 1);
    ::setenv("FAKETIME_DONT_FAKE_MONOTONIC", "1", 1);
    ::setenv(kFaketimeMarker, std::to_string(rate).c_str(), 1);
    ::execv("/proc/self/exe", argv);
    std::perror("re-exec under libfaketime");
    std::exit(125);
}

// Runs fn with the preload variables removed from the environment, so that
// processes it starts run on the real clock. Call it only while this
// process has no other threads (environment changes are not thread-safe).
inline void WithoutFaketime(const std::function<void()>& fn) {
    struct Saved {
        const char* name;
        std::optional<std::string> value;
    };
    // Restores the variables also when fn throws.
    struct Restore {
        Saved saved[2] = {{"LD_PRELOAD", {}}, {"FAKETIME", {}}};
        Restore() {
            for (Saved& s : saved) {
                if (const char* v = std::getenv(s.name); v != nullptr) {
                    s.value = v;
                    ::unsetenv(s.name);
                }
            }
        }
        ~Restore() {
            for (const Saved& s : saved) {
                if (s.value) {
                    ::setenv(s.name, s.value->c_str(), 1);
                }
            }
        }
        Restore(const Restore&) = delete;
        Restore& operator=(const Restore&) = delete;
    } restore;
    fn();
}

}  // namespace hic_test

// setting is a FAKETIME value of the form "+0 xN", rate is N; Environment is
// the binary's global test environment (a ::testing::Environment).
#define HIC_TEST_FAKETIME_MAIN(setting, rate, Environment)      \
    int main(int argc, char** argv) {                           \
        hic_test::ReexecUnderFaketime(argv, (setting), (rate)); \
        ::testing::InitGoogleTest(&argc, argv);                 \
        ::testing::AddGlobalTestEnvironment(new Environment);   \
        return RUN_ALL_TESTS();                                 \
    }

#endif  // HIC_TESTS_SUPPORT_FAKETIME_H
