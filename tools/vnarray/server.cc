#include "server.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace vnarray {

namespace {

std::string Errno(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool MakeDirs(const std::string& path, std::string* error) {
    for (std::size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/') {
            continue;
        }
        const std::string part = path.substr(0, at);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = Errno("mkdir " + part);
            return false;
        }
    }
    return true;
}

bool SendAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

Installer::Installer(std::string root, std::string mount_dir) : mount_dir_(std::move(mount_dir)) {
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    real_root_ = root == "/";
    root_ = real_root_ ? "/" : root;
}

std::string Installer::NodePath(const std::string& dev) const {
    return (real_root_ ? std::string() : root_) + "/dev/" + dev;
}

std::string Installer::SysPath(const std::string& dev) const {
    return (real_root_ ? std::string() : root_) + "/sys/block/" + dev;
}

bool Installer::Prepare(std::string* error) {
    if (!enabled()) {
        return true;
    }
    if (real_root_) {
        // The host's own /sys/block is sysfs; the sandbox gives a tmpfs there.
        struct statfs fs {};
        if (::statfs("/sys/block", &fs) != 0 || fs.f_type != TMPFS_MAGIC) {
            *error =
                "refusing to install into / outside the host sandbox (/sys/block is not a tmpfs)";
            return false;
        }
        return true;
    }
    return MakeDirs(root_ + "/dev", error) && MakeDirs(root_ + "/sys/block", error);
}

bool Installer::Install(const std::string& dev, std::string* error) {
    if (!enabled()) {
        return true;
    }
    std::lock_guard lock(mutex_);
    if (closed_) {
        *error = "shutting down";
        return false;
    }
    if (entries_.count(dev) != 0) {
        *error = dev + " is installed already";
        return false;
    }
    Entry e;
    const std::string node = NodePath(dev);
    const std::string sys = SysPath(dev);
    const std::string source = mount_dir_ + "/" + dev;
    struct stat st {};
    if (::lstat(node.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode)) {
            *error = node + " exists and is not a regular file";
            return false;
        }
    } else {
        hic::UniqueFd fd(::open(node.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0660));
        if (!fd.Valid()) {
            *error = Errno("create " + node);
            return false;
        }
        e.created_node = true;
    }
    if (::mount(source.c_str(), node.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        *error = Errno("bind " + source + " on " + node);
        if (e.created_node) {
            ::unlink(node.c_str());
        }
        return false;
    }
    e.mounted = true;
    if (::mkdir(sys.c_str(), 0755) == 0) {
        e.created_dir = true;
    } else if (errno != EEXIST) {
        *error = Errno("mkdir " + sys);
        ::umount2(node.c_str(), MNT_DETACH);
        if (e.created_node) {
            ::unlink(node.c_str());
        }
        return false;
    }
    entries_[dev] = e;
    return true;
}

bool Installer::Uninstall(const std::string& dev, std::string* error) {
    if (!enabled()) {
        return true;
    }
    std::lock_guard lock(mutex_);
    auto it = entries_.find(dev);
    if (it == entries_.end()) {
        *error = dev + " is not installed";
        return false;
    }
    const Entry e = it->second;
    entries_.erase(it);
    const std::string node = NodePath(dev);
    bool ok = true;
    // Detached: a caller that still holds the node open keeps its handle.
    if (e.mounted && ::umount2(node.c_str(), MNT_DETACH) != 0) {
        *error = Errno("umount " + node);
        ok = false;
    }
    if (e.created_node && ::unlink(node.c_str()) != 0 && ok) {
        *error = Errno("unlink " + node);
        ok = false;
    }
    if (e.created_dir && ::rmdir(SysPath(dev).c_str()) != 0 && ok) {
        *error = Errno("rmdir " + SysPath(dev));
        ok = false;
    }
    return ok;
}

void Installer::UninstallAll() {
    std::vector<std::string> devs;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        for (const auto& [dev, e] : entries_) {
            devs.push_back(dev);
        }
    }
    for (const std::string& dev : devs) {
        std::string error;
        if (!Uninstall(dev, &error)) {
            std::fprintf(stderr, "vnarray: %s\n", error.c_str());
        }
    }
}

Server::Server(Model& model, FuseFront& front, ServerOptions options)
    : model_(model),
      front_(front),
      options_(std::move(options)),
      installer_(options_.install_root, options_.mount_dir) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        wake_read_.Reset(fds[0]);
        wake_write_.Reset(fds[1]);
    }
}

Server::~Server() {
    if (thread_.joinable()) {
        Shutdown();
        thread_.join();
    }
}

void Server::Start() {
    thread_ = std::thread([this] { ControlThread(); });
}

bool Server::Join() {
    if (thread_.joinable()) {
        thread_.join();
    }
    return !failed_;
}

void Server::Shutdown() {
    {
        std::lock_guard lock(shutdown_mutex_);
        if (shut_down_) {
            return;
        }
        shut_down_ = true;
    }
    installer_.UninstallAll();
    front_.Stop();
    const char byte = 'q';
    (void)!::write(wake_write_.Get(), &byte, 1);
}

void Server::ControlThread() {
    std::string error;
    if (!Setup(&error)) {
        std::fprintf(stderr, "vnarray: %s\n", error.c_str());
        failed_ = true;
        Shutdown();
        return;
    }
    if (options_.ready_fd >= 0) {
        (void)!::write(options_.ready_fd, "ready\n", 6);
        ::close(options_.ready_fd);
    } else {
        std::printf("vnarray: ready\n");
        std::fflush(stdout);
    }
    Serve();
    ::unlink(options_.socket_path.c_str());
}

bool Server::Setup(std::string* error) {
    if (!installer_.Prepare(error)) {
        return false;
    }
    for (const LunInfo& l : model_.Luns()) {
        if (!installer_.Install(l.conf.dev, error)) {
            return false;
        }
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (options_.socket_path.size() >= sizeof(addr.sun_path)) {
        *error = "socket path too long: " + options_.socket_path;
        return false;
    }
    std::memcpy(addr.sun_path, options_.socket_path.c_str(), options_.socket_path.size() + 1);
    listen_fd_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ::unlink(options_.socket_path.c_str());
    if (!listen_fd_.Valid() ||
        ::bind(listen_fd_.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listen_fd_.Get(), 16) != 0) {
        *error = Errno("listen on " + options_.socket_path);
        return false;
    }
    return true;
}

void Server::Serve() {
    struct Peer {
        hic::UniqueFd fd;
        std::string in;
    };
    std::vector<std::unique_ptr<Peer>> peers;
    for (;;) {
        std::vector<pollfd> fds = {{wake_read_.Get(), POLLIN, 0}, {listen_fd_.Get(), POLLIN, 0}};
        for (const auto& p : peers) {
            fds.push_back({p->fd.Get(), POLLIN, 0});
        }
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            hic::UniqueFd fd(::accept4(listen_fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (fd.Valid()) {
                peers.push_back(std::make_unique<Peer>(Peer{std::move(fd), {}}));
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            Peer& peer = *peers[i - 2];
            char buf[65536];
            const ssize_t n = ::recv(peer.fd.Get(), buf, sizeof(buf), 0);
            if (n <= 0) {
                peer.fd.Reset();
                continue;
            }
            peer.in.append(buf, static_cast<std::size_t>(n));
            std::size_t eol = 0;
            while ((eol = peer.in.find('\n')) != std::string::npos) {
                const std::string line = peer.in.substr(0, eol);
                peer.in.erase(0, eol + 1);
                bool quit = false;
                Json answer;
                try {
                    answer = Handle(Json::parse(line), &quit);
                } catch (const std::exception& e) {
                    answer = {{"ok", false}, {"error", std::string("bad request: ") + e.what()}};
                }
                if (quit) {
                    Shutdown();
                }
                if (!SendAll(peer.fd.Get(), answer.dump() + "\n")) {
                    peer.fd.Reset();
                    break;
                }
                if (quit) {
                    return;
                }
            }
        }
        peers.erase(std::remove_if(peers.begin(), peers.end(),
                                   [](const auto& p) { return !p->fd.Valid(); }),
                    peers.end());
    }
}

Json Server::Handle(const Json& request, bool* quit) {
    return HandleRequest(model_, installer_, request, quit);
}

}  // namespace vnarray
