// The run-time side of vnarray: puts the LUN files where the host looks for
// disks, takes control requests over a Unix stream socket and shuts it all
// down again.
//
// Control protocol: one JSON object per line each way. A request names its
// command in "cmd"; every answer carries "ok" (and "error" when false).
//   ping                                  -> {}
//   state                                 -> {"arrays", "luns", "faults"}
//   raise-switch   array, version         -> switch byte 1 with that version
//   set-switch     array, switch, [version]
//   set-version    array, major, minor    -> page 0xC0 software version
//   add-lun        LUN fields (or {"lun": {...}}) -> file, /dev node, /sys/block dir
//   remove-lun     dev
//   inject         fault fields           -> {"id"}
//   clear          [id] [lun]             -> {"cleared"}; neither clears all
//   commands       [lun] [kind] [since] [data=false] -> {"commands", "dropped"}
//   opens          [lun]                  -> {"opens"}
//   writes         [lun]                  -> {"writes"}: plain write(2) calls on a LUN
//   heartbeats     [array] [lun]          -> {"heartbeats"}
//   uploads        [array]                -> {"uploads"} (without the bytes)
//   upload-data    array, [index]         -> {"data": hex} (default: the last attempt)
//   save-upload    array, [index], path   -> writes the received bytes to path
//   reset                                 -> forgets every record
//   quit                                  -> takes the LUNs away and stops
// "array" may be left out while there is exactly one array.
#ifndef VNARRAY_SERVER_H
#define VNARRAY_SERVER_H

#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "base/handles.h"
#include "codec.h"
#include "fuse_front.h"
#include "model.h"

namespace vnarray {

// Places LUN files as ROOT/dev/<dev> (a bind mount of the FUSE file over a
// placeholder) with an ROOT/sys/block/<dev> directory beside it.
class Installer {
  public:
    Installer(std::string root, std::string mount_dir);

    bool enabled() const { return !root_.empty(); }
    // Refuses the real root outside the host sandbox; makes ROOT/dev and
    // ROOT/sys/block under any other root.
    bool Prepare(std::string* error);
    bool Install(const std::string& dev, std::string* error);
    bool Uninstall(const std::string& dev, std::string* error);
    void UninstallAll();

  private:
    struct Entry {
        bool created_node = false;
        bool created_dir = false;
        bool mounted = false;
    };
    std::string NodePath(const std::string& dev) const;
    std::string SysPath(const std::string& dev) const;

    std::string root_;  // without a trailing slash; "" for the real root
    bool real_root_ = false;
    std::string mount_dir_;
    std::mutex mutex_;
    bool closed_ = false;  // after UninstallAll nothing is installed any more
    std::map<std::string, Entry> entries_;
};

// One control request against the model (requests.cc); *quit is set by "quit".
Json HandleRequest(Model& model, Installer& installer, const Json& request, bool* quit);

struct ServerOptions {
    std::string mount_dir;
    std::string socket_path;
    std::string install_root;  // empty: no installation
    int ready_fd = -1;
};

class Server {
  public:
    Server(Model& model, FuseFront& front, ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts the control thread: it installs the LUNs, opens the socket and
    // then reports readiness.
    void Start();
    // Takes the LUNs away and stops the front end; safe to call repeatedly and
    // from any thread but a FUSE handler.
    void Shutdown();
    // Waits for the control thread; false when start-up failed.
    bool Join();

    // One request; *quit is set by "quit". Public for tests.
    Json Handle(const Json& request, bool* quit);

  private:
    void ControlThread();
    bool Setup(std::string* error);
    void Serve();

    Model& model_;
    FuseFront& front_;
    ServerOptions options_;
    Installer installer_;
    std::thread thread_;
    std::mutex shutdown_mutex_;
    bool shut_down_ = false;
    bool failed_ = false;
    hic::UniqueFd listen_fd_;
    hic::UniqueFd wake_read_;
    hic::UniqueFd wake_write_;
};

}  // namespace vnarray

#endif  // VNARRAY_SERVER_H
