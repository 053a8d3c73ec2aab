#include "client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <utility>

#ifndef VNARRAY_BINARY
#define VNARRAY_BINARY "vnarray"
#endif

namespace vnarray {

namespace {

std::runtime_error SysError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

std::string TextOf(const Json& j, const char* key, const char* fallback) {
    const auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string(fallback);
}

Json Filtered(const char* cmd, const char* key, const std::string& value) {
    Json j = {{"cmd", cmd}};
    if (!value.empty()) {
        j[key] = value;
    }
    return j;
}

// The records an answer lists under key, each read by from.
template <typename Record>
std::vector<Record> RecordsOf(const Json& answer, const char* key, Record (*from)(const Json&)) {
    std::vector<Record> out;
    for (const Json& r : answer.at(key)) {
        out.push_back(from(r));
    }
    return out;
}

}  // namespace

Client::~Client() {
    Close();
}

bool Client::TryConnect(const std::string& socket_path, std::string* error) {
    std::lock_guard lock(mutex_);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(addr.sun_path)) {
        *error = "socket path too long";
        return false;
    }
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        *error = "connect " + socket_path + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
    in_.clear();
    return true;
}

void Client::Connect(const std::string& socket_path) {
    std::string error;
    if (!TryConnect(socket_path, &error)) {
        throw std::runtime_error(error);
    }
}

void Client::Close() {
    std::lock_guard lock(mutex_);
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

Json Client::TryCall(const Json& request) {
    std::lock_guard lock(mutex_);
    if (fd_ < 0) {
        throw std::runtime_error("vnarray client: not connected");
    }
    const std::string line = request.dump() + "\n";
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::send(fd_, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw SysError("vnarray client: send");
        }
        done += static_cast<std::size_t>(n);
    }
    std::size_t eol = 0;
    while ((eol = in_.find('\n')) == std::string::npos) {
        char buf[65536];
        const ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw std::runtime_error("vnarray client: connection closed");
        }
        in_.append(buf, static_cast<std::size_t>(n));
    }
    Json answer = Json::parse(in_.substr(0, eol));
    in_.erase(0, eol + 1);
    return answer;
}

Json Client::Call(const Json& request) {
    Json answer = TryCall(request);
    const auto ok = answer.find("ok");
    if (ok == answer.end() || !ok->is_boolean() || !ok->get<bool>()) {
        throw std::runtime_error("vnarray " + TextOf(request, "cmd", "?") + ": " +
                                 TextOf(answer, "error", "failed"));
    }
    return answer;
}

void Client::RaiseSwitch(const std::string& array, const std::string& version_hex) {
    Call({{"cmd", "raise-switch"}, {"array", array}, {"version", version_hex}});
}

void Client::SetSwitch(const std::string& array, int state,
                       const std::optional<std::string>& version_hex) {
    Json j = {{"cmd", "set-switch"}, {"array", array}, {"switch", state}};
    if (version_hex) {
        j["version"] = *version_hex;
    }
    Call(j);
}

void Client::SetVersion(const std::string& array, int major, int minor) {
    Call({{"cmd", "set-version"}, {"array", array}, {"major", major}, {"minor", minor}});
}

std::uint64_t Client::InjectFault(const Json& fault) {
    Json j = fault;
    j["cmd"] = "inject";
    return Call(j)["id"].get<std::uint64_t>();
}

void Client::ClearFaults(const std::string& lun) {
    Call(Filtered("clear", "lun", lun));
}

void Client::AddLun(const Json& lun) {
    Call({{"cmd", "add-lun"}, {"lun", lun}});
}

void Client::RemoveLun(const std::string& dev) {
    Call({{"cmd", "remove-lun"}, {"dev", dev}});
}

std::vector<CommandRecord> Client::Commands(const Json& filter) {
    Json j = filter.is_object() ? filter : Json::object();
    j["cmd"] = "commands";
    return RecordsOf(Call(j), "commands", CommandFromJson);
}

std::vector<OpenRecord> Client::Opens(const std::string& lun) {
    return RecordsOf(Call(Filtered("opens", "lun", lun)), "opens", OpenFromJson);
}

std::vector<WriteRecord> Client::Writes(const std::string& lun) {
    return RecordsOf(Call(Filtered("writes", "lun", lun)), "writes", WriteFromJson);
}

std::vector<HeartbeatRecord> Client::Heartbeats(const std::string& array) {
    return RecordsOf(Call(Filtered("heartbeats", "array", array)), "heartbeats", HeartbeatFromJson);
}

std::vector<UploadAttempt> Client::Uploads(const std::string& array) {
    return RecordsOf(Call(Filtered("uploads", "array", array)), "uploads", UploadFromJson);
}

Bytes Client::UploadData(const std::string& array, std::optional<std::uint64_t> index) {
    Json j = {{"cmd", "upload-data"}, {"array", array}};
    if (index) {
        j["index"] = *index;
    }
    return FromHex(Call(j)["data"].get<std::string>()).value_or(Bytes{});
}

void Client::Reset() {
    Call({{"cmd", "reset"}});
}

void Client::Quit() {
    Call({{"cmd", "quit"}});
}

Rig::Rig(Json config, RigOptions options)
    : config_(std::move(config)), options_(std::move(options)) {
    if (options_.binary.empty()) {
        const char* env = std::getenv("VNARRAY_BIN");
        options_.binary = env != nullptr ? env : VNARRAY_BINARY;
    }
}

Rig::Rig(const std::string& config_text, RigOptions options)
    : Rig(Json::parse(config_text), std::move(options)) {}

Rig::Rig(const char* config_text, RigOptions options)
    : Rig(std::string(config_text), std::move(options)) {}

Rig::~Rig() {
    try {
        Stop();
    } catch (...) {
        // A destructor has nobody left to tell.
    }
}

void Rig::Start() {
    if (pid_ > 0) {
        throw std::runtime_error("vnarray rig: started already");
    }
    char tmpl[] = "/tmp/vnarray.XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        throw SysError("vnarray rig: mkdtemp");
    }
    dir_ = tmpl;
    socket_path_ = dir_ + "/control.sock";
    mount_dir_ = dir_ + "/luns";
    config_path_ = dir_ + "/config.json";
    if (::mkdir(mount_dir_.c_str(), 0755) != 0) {
        throw SysError("vnarray rig: mkdir " + mount_dir_);
    }
    {
        std::ofstream out(config_path_);
        out << config_.dump(2) << "\n";
        if (!out) {
            throw std::runtime_error("vnarray rig: cannot write " + config_path_);
        }
    }

    constexpr int kReadyFd = 3;
    std::vector<std::string> args = {options_.binary, "--config",   config_path_,
                                     "--mount",       mount_dir_,   "--socket",
                                     socket_path_,    "--ready-fd", std::to_string(kReadyFd)};
    if (!options_.install_root.empty()) {
        args.push_back("--install-root");
        args.push_back(options_.install_root);
    }
    args.insert(args.end(), options_.extra_args.begin(), options_.extra_args.end());
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);

    int pipefd[2];
    if (::pipe2(pipefd, O_CLOEXEC) != 0) {
        throw SysError("vnarray rig: pipe");
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(pipefd[0]);
        ::close(pipefd[1]);
        throw SysError("vnarray rig: fork");
    }
    if (pid == 0) {
        // Only async-signal-safe calls until exec.
        if (pipefd[1] == kReadyFd) {
            ::fcntl(kReadyFd, F_SETFD, 0);
        } else {
            ::dup2(pipefd[1], kReadyFd);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    pid_ = pid;
    ::close(pipefd[1]);

    std::string got;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.start_timeout_ms);
    while (got.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            break;
        }
        pollfd p{pipefd[0], POLLIN, 0};
        const int r = ::poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            break;
        }
        char buf[64];
        const ssize_t n = ::read(pipefd[0], buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        got.append(buf, static_cast<std::size_t>(n));
    }
    ::close(pipefd[0]);
    if (got != "ready\n") {
        const int status = Stop();
        throw std::runtime_error("vnarray rig: " + options_.binary +
                                 " did not become ready (exit status " + std::to_string(status) +
                                 ")");
    }
    client_.Connect(socket_path_);
}

int Rig::Stop() {
    if (pid_ <= 0) {
        return 0;
    }
    bool asked = false;
    if (client_.connected()) {
        try {
            client_.Quit();
            asked = true;
        } catch (const std::exception&) {
            asked = false;
        }
        client_.Close();
    }
    if (!asked) {
        ::kill(pid_, SIGTERM);
    }
    int status = 0;
    pid_t done = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    int result = -1;
    if (done == 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    } else if (done == pid_ && WIFEXITED(status)) {
        result = WEXITSTATUS(status);
    }
    pid_ = -1;
    Cleanup();
    return result;
}

void Rig::Cleanup() {
    if (dir_.empty()) {
        return;
    }
    ::unlink(config_path_.c_str());
    ::unlink(socket_path_.c_str());
    ::rmdir(mount_dir_.c_str());
    ::rmdir(dir_.c_str());
    dir_.clear();
}

}  // namespace vnarray
