// The virtual array's model: arrays, their LUNs, the pages and vendor
// commands they answer, the faults injected into them and the record of
// everything they were sent. It knows nothing of FUSE or of the transport:
// the front end hands it a decoded SG_IO request and applies the response it
// gets back, so every behaviour here is unit-testable without a mount.
#ifndef VNARRAY_MODEL_H
#define VNARRAY_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vnarray {

using Bytes = std::vector<std::uint8_t>;
using Version = std::array<std::uint8_t, 4>;
using Wwn = std::array<std::uint8_t, 16>;

// Operation codes the array understands.
inline constexpr std::uint8_t kOpInquiry = 0x12;
inline constexpr std::uint8_t kOpQuerySwitch = 0xC7;
inline constexpr std::uint8_t kOpHeartbeat = 0xC9;
inline constexpr std::uint8_t kOpWriteBuffer = 0xCA;

// sg_io_hdr data directions.
inline constexpr int kDxferNone = -1;
inline constexpr int kDxferToDev = -2;
inline constexpr int kDxferFromDev = -3;
inline constexpr int kDxferToFromDev = -4;

// SCSI and transport status values the model produces by itself.
inline constexpr std::uint8_t kStatusCheckCondition = 0x02;
inline constexpr std::uint16_t kDidError = 0x07;     // host adapter: internal error
inline constexpr std::uint16_t kDriverSense = 0x08;  // driver: sense data available

// Page key of the standard INQUIRY data in page maps; VPD pages use their code.
inline constexpr int kStandardPage = -1;

// Sizes of the pages as the array lays them out.
inline constexpr std::size_t kStandardInquiryLen = 96;
inline constexpr std::size_t kPage80Len = 24;
inline constexpr std::size_t kPage83Len = 24;
inline constexpr std::size_t kPageC0Len = 716;
inline constexpr std::size_t kPageC8Len = 512;
inline constexpr std::size_t kSwitchReplyLen = 4096;

// Write-buffer upload layout.
inline constexpr std::size_t kChunkHeaderLen = 32;
inline constexpr std::size_t kChunkDataMax = 4064;
inline constexpr std::size_t kChunkTransferMax = kChunkHeaderLen + kChunkDataMax;
inline constexpr std::size_t kHeartbeatPayloadLen = 28;

// Field widths of the identity pages.
inline constexpr std::size_t kSerialLen = 20;
inline constexpr std::size_t kShortNameLen = 40;
inline constexpr std::size_t kLongNameLen = 256;
inline constexpr std::size_t kArrayNameMax = 99;  // 107 + 99 ends where the selector starts

// One array: LUNs that name it share its switch, version and records.
struct ArrayConf {
    std::string id;  // how LUNs and commands refer to it; defaults to sn
    std::string sn;  // page 0x80 serial number, at most 20 bytes
    std::string name;
    std::uint8_t major = 3;
    std::uint8_t minor = 0;
    std::uint8_t switch_state = 0;
    Version collect_version{};
};

// Bytes laid over a built page (the page grows when the patch ends beyond it).
struct PagePatch {
    int page = kStandardPage;
    std::size_t offset = 0;
    Bytes bytes;
};

struct LunConf {
    std::string dev;    // device name, e.g. "sdb"
    std::string array;  // array id; empty for a LUN of no served array
    std::string vendor = "TRELOX";
    std::string product = "VDISK";
    std::string revision = "0001";
    std::string name;                            // short name, page 0xC8 bytes 29-68
    std::string long_name;                       // page 0xC8 bytes 208-463
    std::optional<std::uint16_t> name_selector;  // default: 1 when long_name is set
    std::optional<Wwn> wwn;                      // default: derived from dev and array
    std::optional<Bytes> serial;                 // overrides the array's sn in page 0x80
    std::optional<Bytes> array_name;             // overrides the array's name in page 0xC8
    // Whole-page replacements; an empty optional makes the page unsupported.
    std::map<int, std::optional<Bytes>> pages;
    std::vector<PagePatch> patches;
};

// What the front end read from the caller's sg_io_hdr.
struct SgRequest {
    std::uint64_t lun_id = 0;
    int open_flags = 0;  // O_ACCMODE bits of the handle the command came through
    int pid = 0;
    int interface_id = 'S';
    int dxfer_direction = kDxferNone;
    std::uint8_t cmd_len = 0;
    std::uint8_t mx_sb_len = 0;
    std::uint16_t iovec_count = 0;
    std::uint32_t dxfer_len = 0;
    std::uint32_t timeout = 0;
    std::uint32_t flags = 0;
    int pack_id = 0;
    bool usr_ptr = false;
    Bytes cdb;
    Bytes data_out;  // the caller's dxfer_len bytes for data-out directions
};

// What the front end writes back. A non-zero err fails the ioctl itself.
struct SgResponse {
    int err = 0;
    std::uint8_t status = 0;
    std::uint16_t host_status = 0;
    std::uint16_t driver_status = 0;
    Bytes sense;
    Bytes data_in;            // written to the caller's buffer from its start
    std::uint32_t resid = 0;  // dxfer_len minus the bytes moved
    std::uint32_t delay_ms = 0;
    std::optional<std::uint64_t> fault_id;
};

// Which commands a fault applies to.
struct FaultKind {
    enum class Type { kAny, kOpen, kInquiry, kPage, kOpcode };
    Type type = Type::kAny;
    int page = kStandardPage;  // kPage: kStandardPage or a VPD page code
    std::uint8_t opcode = 0;   // kOpcode

    // "any", "open", "inquiry", "std", "pageNN", "c7", "c9", "ca", "opNN" (NN hex).
    static std::optional<FaultKind> Parse(const std::string& text);
    std::string Name() const;
    // Whether a command of the given kind (KindOfCdb) falls under this one.
    bool Covers(const FaultKind& command) const;
    bool operator==(const FaultKind&) const = default;
};

struct FaultConf {
    std::string lun = "*";  // device name or "*"
    FaultKind kind;
    int err = 0;  // the ioctl (or the open) fails with this errno
    std::optional<std::uint8_t> status;
    std::optional<std::uint16_t> host_status;
    std::optional<std::uint16_t> driver_status;
    std::optional<Bytes> sense;
    std::uint32_t delay_ms = 0;
    std::uint64_t after = 0;  // let this many matching commands pass first
    std::uint64_t count = 0;  // then hit this many; 0 = every one
};

struct Fault {
    std::uint64_t id = 0;
    FaultConf conf;
    std::uint64_t seen = 0;  // matching commands so far
    std::uint64_t hits = 0;  // of them, the ones the fault was applied to
};

struct Clock {
    double wall = 0;  // seconds since the epoch
    double mono = 0;  // seconds since the model was made
};

struct CommandRecord {
    std::uint64_t seq = 0;
    Clock time;
    std::string lun;
    std::string array;
    int pid = 0;
    int open_flags = 0;
    int interface_id = 0;
    int dxfer_direction = 0;
    std::uint8_t cmd_len = 0;
    std::uint8_t mx_sb_len = 0;
    std::uint16_t iovec_count = 0;
    std::uint32_t dxfer_len = 0;
    std::uint32_t timeout = 0;
    std::uint32_t flags = 0;
    int pack_id = 0;
    bool usr_ptr = false;
    Bytes cdb;
    Bytes data_out;  // kept whole up to kRecordDataLimit bytes, else empty
    std::size_t data_out_len = 0;
    std::uint64_t data_out_digest = 0;  // FNV-1a 64 of all data-out bytes
    // Outcome.
    int err = 0;
    std::uint8_t status = 0;
    std::uint16_t host_status = 0;
    std::uint16_t driver_status = 0;
    std::uint32_t resid = 0;
    std::uint32_t transferred = 0;
    std::optional<std::uint64_t> fault_id;
};
inline constexpr std::size_t kRecordDataLimit = 4096;

struct OpenRecord {
    std::uint64_t seq = 0;
    Clock time;
    std::string lun;
    bool close = false;  // false: an open, true: the last close of that handle
    int flags = 0;       // O_ACCMODE bits
    int pid = 0;
    int err = 0;  // the open failed with this errno
};

// A plain write(2) on a LUN file: on a real disk it would have overwritten
// these bytes. No caller of ours ever should.
struct WriteRecord {
    std::uint64_t seq = 0;
    Clock time;
    std::string lun;
    int pid = 0;
    std::uint64_t offset = 0;
    std::size_t length = 0;
    Bytes head;  // the first kWriteHeadLimit bytes
};
inline constexpr std::size_t kWriteHeadLimit = 64;

struct HeartbeatRecord {
    std::uint64_t seq = 0;
    Clock time;
    std::string lun;
    std::string array;
    Bytes cdb;
    Bytes payload;
    std::vector<std::string> issues;  // departures from the payload layout
};

struct ChunkRecord {
    std::uint64_t seq = 0;
    std::string lun;
    std::uint64_t offset = 0;
    std::size_t length = 0;  // data bytes behind the header
};

// One pass of an upload: it begins with the first chunk after the previous
// attempt saw offset 0 again, so every LUN retry of the sender is one attempt.
struct UploadAttempt {
    std::uint64_t index = 0;  // per array, counting from 0, stable when old ones are dropped
    std::string array;
    Clock started;
    std::uint32_t size = 0;  // archive size from the first chunk's header
    Version versions{};
    std::array<std::uint8_t, 16> host_ip{};
    std::uint8_t ip_type = 0;
    Bytes data;  // the archive as far as received; size bytes once the header is known
    std::vector<ChunkRecord> chunks;
    std::vector<std::string> luns;  // in order of first use
    std::vector<std::string> issues;
    bool has_offset0 = false;
    std::uint64_t received = 0;  // distinct archive bytes covered by the chunks
    bool complete = false;       // every byte of [0, size) arrived
    // Kept by the model so that each chunk costs the same however many came
    // before it (not part of the JSON form): the offsets seen, and the
    // covered ranges [first, second) of the archive, disjoint and merged.
    std::set<std::uint64_t> offsets_seen;
    std::map<std::uint64_t, std::uint64_t> coverage;
};

struct ArrayState {
    ArrayConf conf;
    std::uint64_t dropped_attempts = 0;
};

struct LunInfo {
    std::uint64_t id = 0;
    LunConf conf;
};

class Model {
  public:
    explicit Model(std::size_t max_records = 10000, std::size_t max_attempts = 1000);
    ~Model();
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    // Configuration. Errors come back as text; the model is left unchanged.
    bool AddArray(ArrayConf conf, std::string* error);
    bool AddLun(LunConf conf, std::string* error);
    bool RemoveLun(const std::string& dev, std::string* error);
    bool SetSwitch(const std::string& array, std::uint8_t state,
                   const std::optional<Version>& version, std::string* error);
    bool SetArrayVersion(const std::string& array, std::uint8_t major, std::uint8_t minor,
                         std::string* error);

    std::vector<LunInfo> Luns() const;
    std::optional<LunInfo> FindLun(const std::string& dev) const;
    std::optional<LunInfo> FindLun(std::uint64_t id) const;
    std::vector<ArrayState> Arrays() const;

    // The page as the LUN answers it, after overrides and patches; empty when
    // the LUN does not support it.
    std::optional<Bytes> Page(const std::string& dev, int page) const;

    // The handle side. Open returns 0 or the errno the open fails with.
    int Open(std::uint64_t lun_id, int flags, int pid);
    void Release(std::uint64_t lun_id, int flags, int pid);
    void Write(std::uint64_t lun_id, int pid, std::uint64_t offset, const std::uint8_t* data,
               std::size_t len);
    SgResponse Execute(const SgRequest& request);

    // Faults.
    std::uint64_t AddFault(const FaultConf& conf);
    bool ClearFault(std::uint64_t id);
    std::size_t ClearFaults(const std::string& lun);  // "" clears all of them
    std::vector<Fault> Faults() const;

    // Records.
    std::vector<CommandRecord> Commands() const;
    std::vector<OpenRecord> Opens() const;
    std::vector<WriteRecord> Writes() const;
    std::vector<HeartbeatRecord> Heartbeats() const;
    std::vector<UploadAttempt> Uploads() const;  // every array, array by array
    std::optional<UploadAttempt> Upload(const std::string& array, std::uint64_t index) const;
    std::uint64_t DroppedCommands() const;
    void ResetRecords();

  private:
    struct Array;
    struct Lun;

    Clock Now() const;
    Lun* FindLunLocked(std::uint64_t id);
    const Lun* FindLunLocked(const std::string& dev) const;
    Array* FindArrayLocked(const std::string& id);
    std::optional<Bytes> PageLocked(const Lun& lun, int page) const;
    Fault* MatchFaultLocked(const std::string& dev, const FaultKind& kind);
    std::uint32_t Dispatch(Lun& lun, const SgRequest& request, std::uint64_t seq,
                           std::uint32_t take, SgResponse& response);
    void AnswerInquiry(const Lun& lun, const SgRequest& request, SgResponse& response) const;
    void RecordHeartbeat(const Lun& lun, const SgRequest& request, std::uint64_t seq,
                         const Bytes& payload);
    void RecordChunk(Lun& lun, const SgRequest& request, std::uint64_t seq, const Bytes& transfer);

    mutable std::mutex mutex_;
    const std::size_t max_records_;
    const std::size_t max_attempts_;
    double mono_origin_ = 0;
    std::uint64_t next_seq_ = 1;
    std::uint64_t next_lun_id_ = 2;  // 1 is the FUSE root
    std::uint64_t next_fault_id_ = 1;
    std::uint64_t dropped_commands_ = 0;
    std::map<std::string, std::unique_ptr<Array>> arrays_;
    std::vector<std::unique_ptr<Lun>> luns_;  // in order of addition
    std::vector<Fault> faults_;
    std::deque<CommandRecord> commands_;
    std::deque<OpenRecord> opens_;
    std::deque<WriteRecord> writes_;
    std::vector<HeartbeatRecord> heartbeats_;
};

// Helpers shared with the codec and the tests.
std::uint64_t Fnv1a64(const std::uint8_t* data, std::size_t len);
std::string ToHex(const Bytes& bytes);
std::optional<Bytes> FromHex(const std::string& text);  // spaces and colons allowed
Bytes FixedSense(std::uint8_t key, std::uint8_t asc, std::uint8_t ascq);
// The kind of a command as faults see it: INQUIRY by page, else by opcode.
FaultKind KindOfCdb(const Bytes& cdb);

}  // namespace vnarray

#endif  // VNARRAY_MODEL_H
