// The FUSE front end: one regular file per LUN, named after its device name,
// whose SG_IO ioctl reaches the model. The kernel forwards SG_IO on a FUSE file
// in restricted mode with only the caller's pointer, so the request, the CDB
// and the data are read from (and the answer written into) the calling thread
// with process_vm_readv/process_vm_writev. That needs CAP_SYS_PTRACE and the pid
// namespace of the mount, so the server runs beside its callers.
#ifndef VNARRAY_FUSE_FRONT_H
#define VNARRAY_FUSE_FRONT_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "model.h"

struct fuse_session;

namespace vnarray {

class FuseFront {
  public:
    explicit FuseFront(Model& model);
    ~FuseFront();
    FuseFront(const FuseFront&) = delete;
    FuseFront& operator=(const FuseFront&) = delete;

    // Creates the session and mounts it on dir (an existing directory).
    bool Mount(const std::string& dir, std::string* error);
    // Serves requests on the calling thread with the multithreaded loop until
    // Stop. The thread must leave kWakeSignal unblocked.
    void Run();
    // Ends Run from any other thread (never from a request handler) and waits
    // until it has returned.
    void Stop();
    // After Run: detaches the mount and ends the session.
    void Unmount();

    // Sent to the thread in Run to wake the loop; its handler does nothing.
    static int WakeSignal();
    static void InstallWakeHandler();

    Model& model() { return model_; }

  private:
    Model& model_;
    fuse_session* session_ = nullptr;
    bool mounted_ = false;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool running_ = false;
    bool stopped_ = false;
    pthread_t loop_thread_{};
};

}  // namespace vnarray

#endif  // VNARRAY_FUSE_FRONT_H
