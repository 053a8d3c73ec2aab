// vnarrayctl: sends one control request to a running vnarray and prints the
// answer as JSON.
//
//   vnarrayctl --socket PATH COMMAND [key=value | key:=json]...
//   vnarrayctl --socket PATH --json '{"cmd": "...", ...}'
//   vnarrayctl --socket PATH wait-ready [timeout=SECONDS]
//
// key=value sends the value as a string (the server reads numbers from strings
// too); key:=json sends it as JSON (objects, lists, numbers). Commands are
// listed in server.h. Exit status: 0 when the answer is ok, 1 when it is not,
// 2 for usage errors and when vnarray cannot be reached.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "client.h"

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: vnarrayctl --socket PATH COMMAND [key=value | key:=json]...\n"
                 "       vnarrayctl --socket PATH --json REQUEST\n"
                 "       vnarrayctl --socket PATH wait-ready [timeout=SECONDS]\n");
    return 2;
}

// Waits until vnarray answers a ping: it opens its socket only when every LUN
// is in place.
int WaitReady(const std::string& socket, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::string error;
    do {
        vnarray::Client client;
        if (client.TryConnect(socket, &error)) {
            try {
                if (client.TryCall({{"cmd", "ping"}}).value("ok", false)) {
                    return 0;
                }
            } catch (const std::exception& e) {
                error = e.what();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    std::fprintf(stderr, "vnarrayctl: not ready: %s\n", error.c_str());
    return 2;
}

int Run(int argc, char** argv) {
    std::string socket;
    vnarray::Json request = vnarray::Json::object();
    bool have_json = false;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            socket = argv[++i];
        } else if (arg == "--json" && i + 1 < argc) {
            try {
                request = vnarray::Json::parse(argv[++i]);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "vnarrayctl: bad --json: %s\n", e.what());
                return 2;
            }
            have_json = true;
        } else {
            break;
        }
    }
    if (socket.empty() || (!have_json && i >= argc)) {
        return Usage();
    }
    if (!have_json) {
        request["cmd"] = argv[i++];
        for (; i < argc; ++i) {
            const std::string arg = argv[i];
            const auto eq = arg.find('=');
            if (eq == std::string::npos || eq == 0) {
                return Usage();
            }
            if (arg[eq - 1] == ':') {
                try {
                    request[arg.substr(0, eq - 1)] = vnarray::Json::parse(arg.substr(eq + 1));
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "vnarrayctl: bad JSON in %s: %s\n", arg.c_str(), e.what());
                    return 2;
                }
            } else {
                request[arg.substr(0, eq)] = arg.substr(eq + 1);
            }
        }
    }
    if (request.value("cmd", "") == "wait-ready") {
        double seconds = 10;
        if (request.contains("timeout")) {
            const vnarray::Json& t = request["timeout"];
            seconds = t.is_number()   ? t.get<double>()
                      : t.is_string() ? std::strtod(t.get<std::string>().c_str(), nullptr)
                                      : 0;
        }
        return WaitReady(socket, seconds > 0 ? seconds : 10);
    }

    vnarray::Client client;
    std::string error;
    if (!client.TryConnect(socket, &error)) {
        std::fprintf(stderr, "vnarrayctl: %s\n", error.c_str());
        return 2;
    }
    vnarray::Json answer;
    try {
        answer = client.TryCall(request);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vnarrayctl: %s\n", e.what());
        return 2;
    }
    std::cout << answer.dump(2) << "\n";
    if (!answer.value("ok", false)) {
        std::fprintf(stderr, "vnarrayctl: %s\n",
                     answer.value("error", std::string("failed")).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vnarrayctl: %s\n", e.what());
        return 2;
    }
}
