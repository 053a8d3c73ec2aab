// Test-side access to a running vnarray: Client speaks the control protocol
// (see server.h), Rig starts a vnarray process in the current namespaces with
// a configuration (see codec.h), waits until its LUNs are in place and stops
// it again. Inside the host sandbox a test needs no more than
//
//   vnarray::Rig rig(R"({"arrays": [{"sn": "ARRAY01", "name": "a"}],
//                        "luns": [{"dev": "sdb", "array": "ARRAY01"}]})");
//   rig.Start();                       // /dev/sdb and /sys/block/sdb exist now
//   rig.client().RaiseSwitch("ARRAY01", "00000001");
//   ... run the code under test ...
//   auto heartbeats = rig.client().Heartbeats();
//
// Failures throw std::runtime_error (gtest reports them as test failures).
#ifndef VNARRAY_CLIENT_H
#define VNARRAY_CLIENT_H

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "codec.h"
#include "model.h"

namespace vnarray {

class Client {
  public:
    Client() = default;
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Connect(const std::string& socket_path);
    bool TryConnect(const std::string& socket_path, std::string* error);
    void Close();
    bool connected() const { return fd_ >= 0; }

    // The answer as it came; throws only when the connection fails.
    Json TryCall(const Json& request);
    // Throws also when the answer is not ok.
    Json Call(const Json& request);

    void RaiseSwitch(const std::string& array, const std::string& version_hex);
    void SetSwitch(const std::string& array, int state,
                   const std::optional<std::string>& version_hex = {});
    void SetVersion(const std::string& array, int major, int minor);
    // Fault fields as in codec.h, e.g. {{"lun", "sdb"}, {"kind", "c7"}, {"status", 2}}.
    std::uint64_t InjectFault(const Json& fault);
    void ClearFaults(const std::string& lun = "");
    void AddLun(const Json& lun);
    void RemoveLun(const std::string& dev);

    // Filters as in server.h, e.g. {{"lun", "sdb"}, {"kind", "c9"}}.
    std::vector<CommandRecord> Commands(const Json& filter = Json::object());
    std::vector<OpenRecord> Opens(const std::string& lun = "");
    std::vector<WriteRecord> Writes(const std::string& lun = "");
    std::vector<HeartbeatRecord> Heartbeats(const std::string& array = "");
    std::vector<UploadAttempt> Uploads(const std::string& array = "");
    // The bytes of an upload attempt (default: the array's last).
    Bytes UploadData(const std::string& array, std::optional<std::uint64_t> index = {});
    void Reset();
    void Quit();

  private:
    std::mutex mutex_;
    int fd_ = -1;
    std::string in_;
};

struct RigOptions {
    std::string binary;              // default: the vnarray built beside this library
    std::string install_root = "/";  // "" leaves /dev and /sys/block alone
    int start_timeout_ms = 10000;
    std::vector<std::string> extra_args;
};

class Rig {
  public:
    explicit Rig(Json config, RigOptions options = {});
    explicit Rig(const std::string& config_text, RigOptions options = {});
    explicit Rig(const char* config_text, RigOptions options = {});
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    void Start();
    // Asks vnarray to quit (it unmounts everything) and waits for it; kills it
    // when it does not end in time. Returns its exit status (-1 if killed).
    int Stop();

    Client& client() { return client_; }
    const std::string& socket_path() const { return socket_path_; }
    const std::string& mount_dir() const { return mount_dir_; }
    pid_t pid() const { return pid_; }

  private:
    void Cleanup();

    Json config_;
    RigOptions options_;
    std::string dir_;
    std::string socket_path_;
    std::string mount_dir_;
    std::string config_path_;
    pid_t pid_ = -1;
    Client client_;
};

}  // namespace vnarray

#endif  // VNARRAY_CLIENT_H
