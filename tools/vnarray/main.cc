// vnarray: a virtual storage array for the host sandbox.
//
//   vnarray --config FILE.json --mount DIR --socket PATH
//           [--install-root ROOT] [--ready-fd N] [--max-records N]
//
// Serves one FUSE file per configured LUN in DIR and answers SG_IO on it as
// the array would. With --install-root it also bind-mounts each file onto
// ROOT/dev/<dev> and makes ROOT/sys/block/<dev> (ROOT "/" only inside the host
// sandbox). Once everything is in place it listens on PATH (protocol in
// server.h) and writes "ready\n" to fd N (or prints "vnarray: ready"). It runs
// as root in the pid namespace of its callers. SIGTERM, SIGINT or "quit" take
// the LUNs away, unmount and end it with status 0.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "codec.h"
#include "fuse_front.h"
#include "model.h"
#include "server.h"

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: vnarray --config FILE.json --mount DIR --socket PATH "
                 "[--install-root ROOT] [--ready-fd N] [--max-records N]\n");
    return 2;
}

// A whole non-negative decimal number, or -1.
long Number(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    return text.empty() || *end != '\0' || errno != 0 || v < 0 ? -1 : v;
}

int Run(int argc, char** argv) {
    std::string config_path;
    vnarray::ServerOptions options;
    long max_records = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            return Usage();
        }
        const std::string value = argv[++i];
        if (arg == "--config") {
            config_path = value;
        } else if (arg == "--mount") {
            options.mount_dir = value;
        } else if (arg == "--socket") {
            options.socket_path = value;
        } else if (arg == "--install-root") {
            options.install_root = value;
        } else if (arg == "--ready-fd") {
            const long fd = Number(value);
            if (fd < 0 || fd > 65535) {
                return Usage();
            }
            options.ready_fd = static_cast<int>(fd);
        } else if (arg == "--max-records") {
            max_records = Number(value);
        } else {
            return Usage();
        }
    }
    if (config_path.empty() || options.mount_dir.empty() || options.socket_path.empty() ||
        max_records <= 0) {
        return Usage();
    }
    if (options.ready_fd >= 0) {
        ::fcntl(options.ready_fd, F_SETFD, FD_CLOEXEC);
    }

    vnarray::Model model(static_cast<std::size_t>(max_records));
    {
        std::ifstream in(config_path);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) {
            std::fprintf(stderr, "vnarray: cannot read %s\n", config_path.c_str());
            return 1;
        }
        std::string error;
        vnarray::Json config;
        try {
            config = vnarray::Json::parse(text.str());
        } catch (const std::exception& e) {
            std::fprintf(stderr, "vnarray: %s: %s\n", config_path.c_str(), e.what());
            return 1;
        }
        if (!vnarray::LoadConfig(config, &model, &error)) {
            std::fprintf(stderr, "vnarray: %s: %s\n", config_path.c_str(), error.c_str());
            return 1;
        }
    }

    // Every thread started from here on inherits this mask: the stop signals
    // go to the waiter thread only, the wake signal to the loop thread only.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGHUP);
    // The waiter also wakes on SIGUSR1, which main sends when it is done.
    sigset_t waiter_signals = stop_signals;
    sigaddset(&waiter_signals, SIGUSR1);
    sigset_t blocked = waiter_signals;
    sigaddset(&blocked, vnarray::FuseFront::WakeSignal());
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    vnarray::FuseFront::InstallWakeHandler();

    bool made_mount_dir = ::mkdir(options.mount_dir.c_str(), 0755) == 0;
    vnarray::FuseFront front(model);
    std::string error;
    if (!front.Mount(options.mount_dir, &error)) {
        std::fprintf(stderr, "vnarray: %s\n", error.c_str());
        if (made_mount_dir) {
            ::rmdir(options.mount_dir.c_str());
        }
        return 1;
    }

    vnarray::Server server(model, front, options);
    std::thread waiter([&] {
        int sig = 0;
        sigwait(&waiter_signals, &sig);
        if (sig != SIGUSR1) {
            server.Shutdown();
        }
    });
    server.Start();

    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, vnarray::FuseFront::WakeSignal());
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    front.Run();
    pthread_sigmask(SIG_BLOCK, &wake, nullptr);

    front.Unmount();
    const bool ok = server.Join();
    pthread_kill(waiter.native_handle(), SIGUSR1);
    waiter.join();
    if (made_mount_dir) {
        ::rmdir(options.mount_dir.c_str());
    }
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vnarray: %s\n", e.what());
        return 1;
    }
}
