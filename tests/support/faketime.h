// Runs a test binary with the wall clock sped up, so that the daemon's fixed
// periods (the 10-second heartbeat, the 300-second upload budget) pass in a
// fraction of the real time while the constants stay as they are.
//
// HIC_TEST_FAKETIME_MAIN("+0 x20", 20, Env) defines main(): unless already
// under libfaketime, the binary re-executes itself with libfaketime preloaded
// (behind the dynamic ASan runtime of a gcc ASan build: LeakSanitizer aborts
// when libfaketime comes first), FAKETIME set (time, sleep and nanosleep run
// that many times faster) and the monotonic clock left real, so deadlines are
// real seconds. The re-executed process then drops the ASan runtime from
// LD_PRELOAD, so its children (scripts, tar) run uninstrumented on the same
// clock. Start vnarray inside WithoutFaketime() so it keeps real time.
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
// Set in the re-executed process: the speed-up factor, and what its
// children are to preload.
inline constexpr const char* kFaketimeMarker = "HIC_TEST_FAKETIME_RATE";
inline constexpr const char* kChildPreload = "HIC_TEST_FAKETIME_CHILD_PRELOAD";

// The speed-up factor of this process's wall clock (1 when not faked).
inline double FaketimeRate() {
    const char* rate = std::getenv(kFaketimeMarker);
    return rate != nullptr ? std::atof(rate) : 1.0;
}

// The path of the dynamic ASan runtime this process was linked with, or "".
inline std::string AsanRuntime() {
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            const std::string name = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (name.find("/libasan.so") == std::string::npos) {
                return 0;
            }
            *static_cast<std::string*>(data) = name;
            return 1;
        },
        &found);
    return found;
}

// Sleeps the given real time: sleeps are shortened by the speed-up.
inline void RealSleep(std::chrono::milliseconds real) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(real) * FaketimeRate());
}

// Returns only when already under libfaketime (then the children's
// environment is prepared) or when that is impossible (real time, said so).
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
    ::setenv("LD_PRELOAD", (asan.empty() ? child : asan + " " + child).c_str(), 1);
    ::setenv(kChildPreload, child.c_str(), 1);
    ::setenv("FAKETIME", setting, 1);
    ::setenv("FAKETIME_DONT_FAKE_MONOTONIC", "1", 1);
    ::setenv(kFaketimeMarker, std::to_string(rate).c_str(), 1);
    ::execv("/proc/self/exe", argv);
    std::perror("re-exec under libfaketime");
    std::exit(125);
}

// Runs fn without the preload variables, so processes it starts keep the
// real clock. Only while this process has no other threads.
inline void WithoutFaketime(const std::function<void()>& fn) {
    struct Unset {  // restores the variable also when fn throws
        const char* name;
        std::optional<std::string> value;
        explicit Unset(const char* n) : name(n) {
            if (const char* v = std::getenv(n); v != nullptr) {
                value = v;
                ::unsetenv(n);
            }
        }
        ~Unset() {
            if (value) {
                ::setenv(name, value->c_str(), 1);
            }
        }
        Unset(const Unset&) = delete;
        Unset& operator=(const Unset&) = delete;
    } preload("LD_PRELOAD"), faketime("FAKETIME");
    fn();
}

}  // namespace hic_test

// setting is a FAKETIME value "+0 xN", rate is N; Environment constructs the
// binary's global test environment.
#define HIC_TEST_FAKETIME_MAIN(setting, rate, Environment)      \
    int main(int argc, char** argv) {                           \
        hic_test::ReexecUnderFaketime(argv, (setting), (rate)); \
        ::testing::InitGoogleTest(&argc, argv);                 \
        ::testing::AddGlobalTestEnvironment(new Environment);   \
        return RUN_ALL_TESTS();                                 \
    }

#endif  // HIC_TESTS_SUPPORT_FAKETIME_H
