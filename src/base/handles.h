// Small owning handles for the resources an operation opens: a descriptor,
// a stdio stream, a shell pipe, a directory stream and a heap buffer. Each
// closes or frees what it holds when it goes out of scope, so every return
// path of an operation leaves nothing open behind it.
#ifndef HIC_BASE_HANDLES_H
#define HIC_BASE_HANDLES_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace hic {

// A plain file descriptor; -1 means "holds nothing".
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        if (fd_ >= 0) {
            (void)::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// Common shape of the pointer-owning handles below: Closer is called once
// on a non-null pointer.
template <typename T, typename Closer>
class UniqueHandle {
  public:
    UniqueHandle() = default;
    explicit UniqueHandle(T* ptr) : ptr_(ptr) {}
    ~UniqueHandle() { Reset(); }
    UniqueHandle(UniqueHandle&& other) noexcept : ptr_(other.Release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;

    T* Get() const { return ptr_; }
    bool Valid() const { return ptr_ != nullptr; }
    T* Release() { return std::exchange(ptr_, nullptr); }
    void Reset(T* ptr = nullptr) {
        if (ptr_ != nullptr) {
            Closer{}(ptr_);
        }
        ptr_ = ptr;
    }

  private:
    T* ptr_ = nullptr;
};

struct FileCloser {
    void operator()(FILE* f) const { (void)std::fclose(f); }
};
struct PipeCloser {
    void operator()(FILE* f) const { (void)::pclose(f); }
};
struct DirCloser {
    void operator()(DIR* d) const { (void)::closedir(d); }
};

// A stream from fopen.
using UniqueFile = UniqueHandle<FILE, FileCloser>;
// A stream from popen; closing it waits for the command.
using UniquePipe = UniqueHandle<FILE, PipeCloser>;
// A directory stream from opendir.
using UniqueDir = UniqueHandle<DIR, DirCloser>;

// A regular file as a stream: close-on-exec, never through a symbolic link
// in its last component, and nothing else in its place (O_NONBLOCK keeps a
// FIFO there from blocking the open). flags give the access mode and
// O_CREAT/O_APPEND; streamMode is the matching fdopen mode. Created files
// get 0666 less the umask, as with fopen.
inline UniqueFile OpenRegularStream(const char* path, int flags, const char* streamMode) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
    UniqueFd fd(::open(path, flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0666));
    struct stat st {};
    if (!fd.Valid() || ::fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return UniqueFile();
    }
    UniqueFile file(::fdopen(fd.Get(), streamMode));
    if (file.Valid()) {
        (void)fd.Release();  // the stream owns it now
    }
    return file;
}

// A heap block from malloc. Allocation failure is an ordinary result the
// caller reports (Valid() is false), never an exception.
class HeapBuffer {
  public:
    HeapBuffer() = default;
    explicit HeapBuffer(std::size_t size)
        : ptr_(static_cast<char*>(std::malloc(size))), size_(ptr_ != nullptr ? size : 0) {}
    ~HeapBuffer() { std::free(ptr_); }
    HeapBuffer(HeapBuffer&& other) noexcept
        : ptr_(std::exchange(other.ptr_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    HeapBuffer& operator=(HeapBuffer&& other) noexcept {
        if (this != &other) {
            std::free(ptr_);
            ptr_ = std::exchange(other.ptr_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    HeapBuffer(const HeapBuffer&) = delete;
    HeapBuffer& operator=(const HeapBuffer&) = delete;

    char* Get() const { return ptr_; }
    std::size_t Size() const { return size_; }
    bool Valid() const { return ptr_ != nullptr; }

  private:
    char* ptr_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace hic

#endif  // HIC_BASE_HANDLES_H
