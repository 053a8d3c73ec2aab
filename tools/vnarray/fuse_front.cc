#define FUSE_USE_VERSION 312
#include "fuse_front.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <scsi/sg.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

namespace vnarray {

namespace {

constexpr fuse_ino_t kRootIno = FUSE_ROOT_ID;
// Largest transfer one command may carry, as a block queue limits it.
constexpr std::uint32_t kMaxTransfer = 4U << 20U;
constexpr std::size_t kMaxIovecs = 1024;  // IOV_MAX
constexpr int kSgVersionNum = 30536;

FuseFront* Front(fuse_req_t req) {
    return static_cast<FuseFront*>(fuse_req_userdata(req));
}

struct stat DirAttr() {
    struct stat st {};
    st.st_ino = kRootIno;
    st.st_mode = S_IFDIR | 0755;
    st.st_nlink = 2;
    return st;
}

struct stat LunAttr(std::uint64_t id) {
    struct stat st {};
    st.st_ino = id;
    st.st_mode = S_IFREG | 0660;
    st.st_nlink = 1;
    return st;
}

// The handle remembers the LUN and the access mode it was opened with.
std::uint64_t MakeFh(std::uint64_t id, int flags) {
    return (id << 2U) | static_cast<std::uint64_t>(flags & O_ACCMODE);
}
std::uint64_t FhLun(std::uint64_t fh) {
    return fh >> 2U;
}
int FhFlags(std::uint64_t fh) {
    return static_cast<int>(fh & 3U);
}

// Moves len bytes between local memory and the caller's iovecs. The kernel
// may stop short at a fault; anything short is an EFAULT for the caller.
bool RemoteIo(pid_t pid, bool write, void* local, std::size_t len,
              const std::vector<iovec>& remote) {
    if (len == 0) {
        return true;
    }
    iovec l{local, len};
    const ssize_t n = write ? ::process_vm_writev(pid, &l, 1, remote.data(), remote.size(), 0)
                            : ::process_vm_readv(pid, &l, 1, remote.data(), remote.size(), 0);
    return n == static_cast<ssize_t>(len);
}

bool RemoteIo(pid_t pid, bool write, void* local, std::size_t len, const void* remote_addr) {
    return RemoteIo(pid, write, local, len, {iovec{const_cast<void*>(remote_addr), len}});
}

// The caller's data buffer as remote iovecs, at most len bytes long.
bool DataIovecs(pid_t pid, const sg_io_hdr_t& hdr, std::size_t len, std::vector<iovec>* out) {
    out->clear();
    if (hdr.iovec_count == 0) {
        out->push_back(iovec{hdr.dxferp, len});
        return true;
    }
    if (hdr.iovec_count > kMaxIovecs) {
        return false;
    }
    std::vector<sg_iovec_t> list(hdr.iovec_count);
    if (!RemoteIo(pid, false, list.data(), list.size() * sizeof(sg_iovec_t), hdr.dxferp)) {
        return false;
    }
    std::size_t left = len;
    for (const sg_iovec_t& v : list) {
        if (left == 0) {
            break;
        }
        const std::size_t n = std::min(left, v.iov_len);
        out->push_back(iovec{v.iov_base, n});
        left -= n;
    }
    return left == 0;
}

void OnLookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    if (parent != kRootIno) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    auto lun = Front(req)->model().FindLun(std::string(name));
    if (!lun) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    // No caching: LUNs come and go at run time.
    fuse_entry_param e{};
    e.ino = lun->id;
    e.attr = LunAttr(lun->id);
    fuse_reply_entry(req, &e);
}

void OnGetattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* /*fi*/) {
    if (ino == kRootIno) {
        const struct stat st = DirAttr();
        fuse_reply_attr(req, &st, 0);
        return;
    }
    if (!Front(req)->model().FindLun(static_cast<std::uint64_t>(ino))) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    const struct stat st = LunAttr(ino);
    fuse_reply_attr(req, &st, 0);
}

// Truncation and the like change nothing: the file is only a handle.
void OnSetattr(fuse_req_t req, fuse_ino_t ino, struct stat* /*attr*/, int /*to_set*/,
               fuse_file_info* fi) {
    OnGetattr(req, ino, fi);
}

void OnReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* /*fi*/) {
    if (ino != kRootIno) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::string buf;
    auto add = [&](const char* name, const struct stat& st) {
        const size_t need = fuse_add_direntry(req, nullptr, 0, name, nullptr, 0);
        const size_t at = buf.size();
        buf.append(need, '\0');
        fuse_add_direntry(req, buf.data() + at, need, name, &st, static_cast<off_t>(at + need));
    };
    add(".", DirAttr());
    add("..", DirAttr());
    for (const LunInfo& l : Front(req)->model().Luns()) {
        add(l.conf.dev.c_str(), LunAttr(l.id));
    }
    if (off < 0 || static_cast<size_t>(off) >= buf.size()) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    fuse_reply_buf(req, buf.data() + off, std::min(size, buf.size() - static_cast<size_t>(off)));
}

void OnOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
    if (ino == kRootIno) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    const int err = Front(req)->model().Open(ino, fi->flags, fuse_req_ctx(req)->pid);
    if (err != 0) {
        fuse_reply_err(req, err);
        return;
    }
    fi->fh = MakeFh(ino, fi->flags);
    fi->direct_io = 1;
    fuse_reply_open(req, fi);
}

void OnRelease(fuse_req_t req, fuse_ino_t /*ino*/, fuse_file_info* fi) {
    Front(req)->model().Release(FhLun(fi->fh), FhFlags(fi->fh), fuse_req_ctx(req)->pid);
    fuse_reply_err(req, 0);
}

void OnRead(fuse_req_t req, fuse_ino_t /*ino*/, size_t /*size*/, off_t /*off*/,
            fuse_file_info* /*fi*/) {
    fuse_reply_buf(req, nullptr, 0);
}

// A disk takes a plain write; the model records it so that tests can tell
// that none ever reached one.
void OnWrite(fuse_req_t req, fuse_ino_t /*ino*/, const char* buf, size_t size, off_t off,
             fuse_file_info* fi) {
    Front(req)->model().Write(FhLun(fi->fh), fuse_req_ctx(req)->pid,
                              static_cast<std::uint64_t>(off),
                              reinterpret_cast<const std::uint8_t*>(buf), size);
    fuse_reply_write(req, size);
}

void ServeSgIo(fuse_req_t req, void* arg, fuse_file_info* fi) {
    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fuse_req_ctx(req)->pid;
    sg_io_hdr_t hdr{};
    if (!RemoteIo(pid, false, &hdr, sizeof(hdr), arg)) {
        fuse_reply_err(req, EFAULT);
        return;
    }
    SgRequest rq;
    rq.lun_id = FhLun(fi->fh);
    rq.open_flags = FhFlags(fi->fh);
    rq.pid = pid;
    rq.interface_id = hdr.interface_id;
    rq.dxfer_direction = hdr.dxfer_direction;
    rq.cmd_len = hdr.cmd_len;
    rq.mx_sb_len = hdr.mx_sb_len;
    rq.iovec_count = hdr.iovec_count;
    rq.dxfer_len = hdr.dxfer_len;
    rq.timeout = hdr.timeout;
    rq.flags = hdr.flags;
    rq.pack_id = hdr.pack_id;
    rq.usr_ptr = hdr.usr_ptr != nullptr;
    const bool valid = hdr.interface_id == 'S' && hdr.cmd_len >= 6 && hdr.cmd_len <= 16;
    if (valid) {
        if (hdr.dxfer_len > kMaxTransfer) {
            fuse_reply_err(req, EIO);
            return;
        }
        rq.cdb.resize(hdr.cmd_len);
        if (!RemoteIo(pid, false, rq.cdb.data(), rq.cdb.size(), hdr.cmdp)) {
            fuse_reply_err(req, EFAULT);
            return;
        }
    }
    std::vector<iovec> data;
    const bool out =
        hdr.dxfer_direction == SG_DXFER_TO_DEV || hdr.dxfer_direction == SG_DXFER_TO_FROM_DEV;
    if (valid && out && hdr.dxfer_len > 0) {
        rq.data_out.resize(hdr.dxfer_len);
        if (!DataIovecs(pid, hdr, hdr.dxfer_len, &data) ||
            !RemoteIo(pid, false, rq.data_out.data(), rq.data_out.size(), data)) {
            fuse_reply_err(req, EFAULT);
            return;
        }
    }

    SgResponse rs = Front(req)->model().Execute(rq);
    if (rs.delay_ms != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(rs.delay_ms));
    }
    if (rs.err != 0) {
        fuse_reply_err(req, rs.err);
        return;
    }
    if (!rs.data_in.empty() && (!DataIovecs(pid, hdr, rs.data_in.size(), &data) ||
                                !RemoteIo(pid, true, rs.data_in.data(), rs.data_in.size(), data))) {
        fuse_reply_err(req, EFAULT);
        return;
    }
    std::size_t sense_len = rs.sense.size();
    if (hdr.sbp == nullptr) {
        sense_len = 0;
    } else if (!RemoteIo(pid, true, rs.sense.data(), sense_len, hdr.sbp)) {
        fuse_reply_err(req, EFAULT);
        return;
    }
    hdr.status = rs.status;
    hdr.masked_status = static_cast<unsigned char>((rs.status >> 1U) & 0x7FU);
    hdr.msg_status = 0;
    hdr.sb_len_wr = static_cast<unsigned char>(sense_len);
    hdr.host_status = rs.host_status;
    hdr.driver_status = rs.driver_status;
    hdr.resid = static_cast<int>(rs.resid);
    hdr.duration = static_cast<unsigned>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::steady_clock::now() - started)
                                             .count());
    hdr.info = (rs.status | rs.host_status | rs.driver_status) != 0 ? SG_INFO_CHECK : SG_INFO_OK;
    // Only the output fields go back, as the kernel's own completion does.
    constexpr std::size_t kOutAt = offsetof(sg_io_hdr_t, status);
    auto* out_local = reinterpret_cast<unsigned char*>(&hdr) + kOutAt;
    if (!RemoteIo(pid, true, out_local, sizeof(hdr) - kOutAt,
                  static_cast<unsigned char*>(arg) + kOutAt)) {
        fuse_reply_err(req, EFAULT);
        return;
    }
    fuse_reply_ioctl(req, 0, nullptr, 0);
}

void OnIoctl(fuse_req_t req, fuse_ino_t /*ino*/, unsigned int cmd, void* arg, fuse_file_info* fi,
             unsigned flags, const void* /*in_buf*/, size_t /*in_bufsz*/, size_t /*out_bufsz*/) {
    // A 32-bit caller's sg_io_hdr has another layout; no caller of ours is one.
    if ((flags & FUSE_IOCTL_COMPAT) != 0) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    if (cmd == SG_IO) {
        ServeSgIo(req, arg, fi);
        return;
    }
    if (cmd == SG_GET_VERSION_NUM) {
        int version = kSgVersionNum;
        if (!RemoteIo(fuse_req_ctx(req)->pid, true, &version, sizeof(version), arg)) {
            fuse_reply_err(req, EFAULT);
            return;
        }
        fuse_reply_ioctl(req, 0, nullptr, 0);
        return;
    }
    fuse_reply_err(req, ENOTTY);
}

void OnWake(int /*sig*/) {}

}  // namespace

FuseFront::FuseFront(Model& model) : model_(model) {}

FuseFront::~FuseFront() {
    if (session_ != nullptr) {
        Unmount();
    }
}

int FuseFront::WakeSignal() {
    return SIGUSR2;
}

void FuseFront::InstallWakeHandler() {
    struct sigaction sa {};
    sa.sa_handler = OnWake;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the loop's wait must see EINTR
    sigaction(WakeSignal(), &sa, nullptr);
}

bool FuseFront::Mount(const std::string& dir, std::string* error) {
    static const fuse_lowlevel_ops ops = [] {
        fuse_lowlevel_ops o{};
        o.lookup = OnLookup;
        o.getattr = OnGetattr;
        o.setattr = OnSetattr;
        o.readdir = OnReaddir;
        o.open = OnOpen;
        o.release = OnRelease;
        o.read = OnRead;
        o.write = OnWrite;
        o.ioctl = OnIoctl;
        return o;
    }();
    char arg0[] = "vnarray";
    char arg1[] = "-o";
    char arg2[] = "fsname=vnarray,subtype=vnarray";
    char* argv[] = {arg0, arg1, arg2, nullptr};
    fuse_args args = FUSE_ARGS_INIT(3, argv);
    session_ = fuse_session_new(&args, &ops, sizeof(ops), this);
    fuse_opt_free_args(&args);
    if (session_ == nullptr) {
        *error = "cannot create the FUSE session";
        return false;
    }
    if (fuse_session_mount(session_, dir.c_str()) != 0) {
        *error = "cannot mount FUSE on " + dir;
        fuse_session_destroy(session_);
        session_ = nullptr;
        return false;
    }
    mounted_ = true;
    return true;
}

void FuseFront::Run() {
    {
        std::lock_guard lock(mutex_);
        if (stopped_ || session_ == nullptr) {
            return;
        }
        running_ = true;
        loop_thread_ = pthread_self();
    }
    fuse_loop_config* config = fuse_loop_cfg_create();
    fuse_loop_cfg_set_clone_fd(config, 1);
    fuse_loop_cfg_set_max_threads(config, 32);
    fuse_session_loop_mt(session_, config);
    fuse_loop_cfg_destroy(config);
    {
        std::lock_guard lock(mutex_);
        running_ = false;
    }
    cv_.notify_all();
}

void FuseFront::Stop() {
    std::unique_lock lock(mutex_);
    stopped_ = true;
    if (session_ != nullptr) {
        fuse_session_exit(session_);
    }
    // The loop sleeps on a semaphore between requests; a signal wakes it to see
    // the exit flag. Repeat it in case it landed just before the wait began.
    while (running_) {
        pthread_kill(loop_thread_, WakeSignal());
        cv_.wait_for(lock, std::chrono::milliseconds(20));
    }
}

void FuseFront::Unmount() {
    if (session_ == nullptr) {
        return;
    }
    if (mounted_) {
        fuse_session_unmount(session_);
        mounted_ = false;
    }
    fuse_session_destroy(session_);
    session_ = nullptr;
}

}  // namespace vnarray
