#include "model.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "model_internal.h"

namespace vnarray {
namespace internal {

std::uint64_t Be64(const Bytes& b, std::size_t at) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        v = (v << 8U) | b.at(at + i);
    }
    return v;
}

std::uint32_t Be32(const Bytes& b, std::size_t at) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        v = (v << 8U) | b.at(at + i);
    }
    return v;
}

std::string Hex8(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof(buf), "0x%02x", v & 0xFFU);
    return buf;
}

void CheckCondition(SgResponse& r, std::uint8_t asc) {
    r.status = kStatusCheckCondition;
    r.driver_status = kDriverSense;
    r.sense = FixedSense(kSenseIllegalRequest, asc, 0);
}

}  // namespace internal

using internal::Be32;
using internal::CheckCondition;
using internal::kAscInvalidFieldInCdb;
using internal::kAscInvalidOpcode;
using internal::kSenseIllegalRequest;

namespace {

double WallNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

double MonoNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool DirectionCarries(int direction, bool data_in) {
    if (direction == kDxferToFromDev) {
        return true;
    }
    return data_in ? direction == kDxferFromDev : direction == kDxferToDev;
}

}  // namespace

std::uint64_t Fnv1a64(const std::uint8_t* data, std::size_t len) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (std::size_t i = 0; i < len; ++i) {
        h ^= data[i];
        h *= 0x100000001b3ULL;
    }
    return h;
}

std::string ToHex(const Bytes& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4U]);
        out.push_back(kDigits[b & 0x0FU]);
    }
    return out;
}

std::optional<Bytes> FromHex(const std::string& text) {
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '\n' || c == '\t') {
            continue;
        }
        int v = 0;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else {
            return std::nullopt;
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<std::uint8_t>((high << 4) | v));
            high = -1;
        }
    }
    if (high >= 0) {
        return std::nullopt;
    }
    return out;
}

Model::Model(std::size_t max_records, std::size_t max_attempts)
    : max_records_(max_records), max_attempts_(max_attempts), mono_origin_(MonoNow()) {}

Model::~Model() = default;

Clock Model::Now() const {
    return Clock{WallNow(), MonoNow() - mono_origin_};
}

bool Model::AddArray(ArrayConf conf, std::string* error) {
    if (conf.id.empty()) {
        conf.id = conf.sn;
    }
    if (conf.id.empty()) {
        *error = "an array needs an sn or an id";
        return false;
    }
    if (conf.sn.size() > kSerialLen) {
        *error = "array sn '" + conf.sn + "' is longer than 20 bytes";
        return false;
    }
    if (conf.name.size() > kArrayNameMax) {
        *error = "array name of array '" + conf.id + "' is longer than 99 bytes";
        return false;
    }
    std::lock_guard lock(mutex_);
    if (arrays_.count(conf.id) != 0) {
        *error = "array '" + conf.id + "' exists already";
        return false;
    }
    auto array = std::make_unique<Array>();
    array->conf = std::move(conf);
    const std::string id = array->conf.id;
    arrays_.emplace(id, std::move(array));
    return true;
}

bool Model::AddLun(LunConf conf, std::string* error) {
    if (conf.dev.empty() || conf.dev.find('/') != std::string::npos || conf.dev == "." ||
        conf.dev == "..") {
        *error = "bad device name '" + conf.dev + "'";
        return false;
    }
    if (conf.name.size() > kShortNameLen || conf.long_name.size() > kLongNameLen) {
        *error = "LUN " + conf.dev + ": name longer than its field";
        return false;
    }
    if ((conf.serial && conf.serial->size() > kSerialLen) ||
        (conf.array_name && conf.array_name->size() > kArrayNameMax)) {
        *error = "LUN " + conf.dev + ": serial or array name longer than its field";
        return false;
    }
    std::lock_guard lock(mutex_);
    if (!conf.array.empty() && arrays_.count(conf.array) == 0) {
        *error = "LUN " + conf.dev + ": unknown array '" + conf.array + "'";
        return false;
    }
    if (FindLunLocked(conf.dev) != nullptr) {
        *error = "LUN " + conf.dev + " exists already";
        return false;
    }
    auto lun = std::make_unique<Lun>();
    lun->id = next_lun_id_++;
    lun->conf = std::move(conf);
    luns_.push_back(std::move(lun));
    return true;
}

bool Model::RemoveLun(const std::string& dev, std::string* error) {
    std::lock_guard lock(mutex_);
    auto it =
        std::find_if(luns_.begin(), luns_.end(), [&](const auto& l) { return l->conf.dev == dev; });
    if (it == luns_.end()) {
        *error = "unknown LUN '" + dev + "'";
        return false;
    }
    luns_.erase(it);
    return true;
}

bool Model::SetSwitch(const std::string& array, std::uint8_t state,
                      const std::optional<Version>& version, std::string* error) {
    std::lock_guard lock(mutex_);
    Array* a = FindArrayLocked(array);
    if (a == nullptr) {
        *error = "unknown array '" + array + "'";
        return false;
    }
    a->conf.switch_state = state;
    if (version) {
        a->conf.collect_version = *version;
    }
    return true;
}

bool Model::SetArrayVersion(const std::string& array, std::uint8_t major, std::uint8_t minor,
                            std::string* error) {
    std::lock_guard lock(mutex_);
    Array* a = FindArrayLocked(array);
    if (a == nullptr) {
        *error = "unknown array '" + array + "'";
        return false;
    }
    a->conf.major = major;
    a->conf.minor = minor;
    return true;
}

std::vector<LunInfo> Model::Luns() const {
    std::lock_guard lock(mutex_);
    std::vector<LunInfo> out;
    out.reserve(luns_.size());
    for (const auto& l : luns_) {
        out.push_back(LunInfo{l->id, l->conf});
    }
    return out;
}

std::optional<LunInfo> Model::FindLun(const std::string& dev) const {
    std::lock_guard lock(mutex_);
    const Lun* l = FindLunLocked(dev);
    if (l == nullptr) {
        return std::nullopt;
    }
    return LunInfo{l->id, l->conf};
}

std::optional<LunInfo> Model::FindLun(std::uint64_t id) const {
    std::lock_guard lock(mutex_);
    for (const auto& l : luns_) {
        if (l->id == id) {
            return LunInfo{l->id, l->conf};
        }
    }
    return std::nullopt;
}

std::vector<ArrayState> Model::Arrays() const {
    std::lock_guard lock(mutex_);
    std::vector<ArrayState> out;
    for (const auto& [id, a] : arrays_) {
        out.push_back(ArrayState{a->conf, a->dropped_attempts});
    }
    return out;
}

Model::Lun* Model::FindLunLocked(std::uint64_t id) {
    for (auto& l : luns_) {
        if (l->id == id) {
            return l.get();
        }
    }
    return nullptr;
}

const Model::Lun* Model::FindLunLocked(const std::string& dev) const {
    for (const auto& l : luns_) {
        if (l->conf.dev == dev) {
            return l.get();
        }
    }
    return nullptr;
}

Model::Array* Model::FindArrayLocked(const std::string& id) {
    auto it = arrays_.find(id);
    return it == arrays_.end() ? nullptr : it->second.get();
}

int Model::Open(std::uint64_t lun_id, int flags, int pid) {
    std::lock_guard lock(mutex_);
    OpenRecord rec;
    rec.seq = next_seq_++;
    rec.time = Now();
    rec.flags = flags & O_ACCMODE;
    rec.pid = pid;
    Lun* lun = FindLunLocked(lun_id);
    if (lun == nullptr) {
        rec.err = ENOENT;
    } else {
        rec.lun = lun->conf.dev;
        FaultKind open_kind;
        open_kind.type = FaultKind::Type::kOpen;
        if (Fault* f = MatchFaultLocked(lun->conf.dev, open_kind)) {
            rec.err = f->conf.err != 0 ? f->conf.err : EIO;
        }
    }
    const int err = rec.err;
    opens_.push_back(std::move(rec));
    if (opens_.size() > max_records_) {
        opens_.pop_front();
    }
    return err;
}

void Model::Release(std::uint64_t lun_id, int flags, int pid) {
    std::lock_guard lock(mutex_);
    OpenRecord rec;
    rec.seq = next_seq_++;
    rec.time = Now();
    rec.close = true;
    rec.flags = flags & O_ACCMODE;
    rec.pid = pid;
    if (const Lun* lun = FindLunLocked(lun_id)) {
        rec.lun = lun->conf.dev;
    }
    opens_.push_back(std::move(rec));
    if (opens_.size() > max_records_) {
        opens_.pop_front();
    }
}

void Model::Write(std::uint64_t lun_id, int pid, std::uint64_t offset, const std::uint8_t* data,
                  std::size_t len) {
    std::lock_guard lock(mutex_);
    WriteRecord rec;
    rec.seq = next_seq_++;
    rec.time = Now();
    rec.pid = pid;
    rec.offset = offset;
    rec.length = len;
    rec.head.assign(data, data + std::min(len, kWriteHeadLimit));
    if (const Lun* lun = FindLunLocked(lun_id)) {
        rec.lun = lun->conf.dev;
    }
    writes_.push_back(std::move(rec));
    if (writes_.size() > max_records_) {
        writes_.pop_front();
    }
}

SgResponse Model::Execute(const SgRequest& request) {
    SgResponse response;
    std::lock_guard lock(mutex_);
    CommandRecord rec;
    rec.seq = next_seq_++;
    rec.time = Now();
    rec.pid = request.pid;
    rec.open_flags = request.open_flags & O_ACCMODE;
    rec.interface_id = request.interface_id;
    rec.dxfer_direction = request.dxfer_direction;
    rec.cmd_len = request.cmd_len;
    rec.mx_sb_len = request.mx_sb_len;
    rec.iovec_count = request.iovec_count;
    rec.dxfer_len = request.dxfer_len;
    rec.timeout = request.timeout;
    rec.flags = request.flags;
    rec.pack_id = request.pack_id;
    rec.usr_ptr = request.usr_ptr;
    rec.cdb = request.cdb;
    rec.data_out_len = request.data_out.size();
    rec.data_out_digest = Fnv1a64(request.data_out.data(), request.data_out.size());
    if (request.data_out.size() <= kRecordDataLimit) {
        rec.data_out = request.data_out;
    }

    Lun* lun = FindLunLocked(request.lun_id);
    if (lun != nullptr) {
        rec.lun = lun->conf.dev;
        rec.array = lun->conf.array;
    }
    // Transport-level refusals, as the block layer gives them.
    if (lun == nullptr) {
        response.err = ENODEV;
    } else if (request.interface_id != 'S') {
        response.err = EINVAL;
    } else if (request.cmd_len < 6 || request.cmd_len > 16 ||
               request.cdb.size() != request.cmd_len) {
        response.err = EMSGSIZE;
    }

    std::uint32_t consumed = 0;
    if (response.err == 0) {
        std::uint32_t take = request.dxfer_len;
        bool processed = true;
        if (Fault* f = MatchFaultLocked(lun->conf.dev, KindOfCdb(request.cdb))) {
            const FaultConf& s = f->conf;
            response.fault_id = f->id;
            response.delay_ms = s.delay_ms;
            if (s.err != 0) {
                response.err = s.err;
                processed = false;
            } else if (s.status || s.host_status || s.driver_status) {
                response.status = s.status.value_or(0);
                response.host_status = s.host_status.value_or(0);
                if (s.sense) {
                    response.sense = *s.sense;
                } else if (response.status == kStatusCheckCondition) {
                    response.sense = FixedSense(kSenseIllegalRequest, kAscInvalidFieldInCdb, 0);
                }
                response.driver_status =
                    s.driver_status.value_or(response.sense.empty() ? 0 : kDriverSense);
                processed = false;
            }
        }
        if (processed) {
            consumed = Dispatch(*lun, request, rec.seq, take, response);
        }
        if (response.sense.size() > request.mx_sb_len) {
            response.sense.resize(request.mx_sb_len);
        }
    }

    std::uint32_t moved = 0;
    if (response.err == 0) {
        moved = response.data_in.empty() ? consumed
                                         : static_cast<std::uint32_t>(response.data_in.size());
        response.resid = request.dxfer_len - moved;
    }
    rec.err = response.err;
    rec.status = response.status;
    rec.host_status = response.host_status;
    rec.driver_status = response.driver_status;
    rec.resid = response.resid;
    rec.transferred = moved;
    rec.fault_id = response.fault_id;
    commands_.push_back(std::move(rec));
    while (commands_.size() > max_records_) {
        commands_.pop_front();
        ++dropped_commands_;
    }
    return response;
}

// Runs one command the array accepted; take bounds the bytes moved. Returns the
// data-out bytes the array consumed (data-in travels in response.data_in).
std::uint32_t Model::Dispatch(Lun& lun, const SgRequest& request, std::uint64_t seq,
                              std::uint32_t take, SgResponse& response) {
    const std::uint8_t op = request.cdb[0];
    const bool data_in = op == kOpInquiry || op == kOpQuerySwitch;
    const bool known = data_in || op == kOpHeartbeat || op == kOpWriteBuffer;
    if (!known || (op != kOpInquiry && (lun.conf.array.empty() || request.cdb.size() < 16))) {
        CheckCondition(response, kAscInvalidOpcode);
        return 0;
    }
    if (request.dxfer_len > 0 && !DirectionCarries(request.dxfer_direction, data_in)) {
        // The device wants a data phase the initiator did not set up.
        response.host_status = kDidError;
        return 0;
    }
    if (op == kOpInquiry) {
        AnswerInquiry(lun, request, response);
        if (response.data_in.size() > take) {
            response.data_in.resize(take);
        }
        return 0;
    }
    if (op == kOpQuerySwitch) {
        Array* a = FindArrayLocked(lun.conf.array);
        Bytes reply(kSwitchReplyLen, 0);
        reply[4] = a->conf.switch_state;
        std::copy(a->conf.collect_version.begin(), a->conf.collect_version.end(),
                  reply.begin() + 5);
        const std::size_t n =
            std::min<std::size_t>({Be32(request.cdb, 10), reply.size(), request.dxfer_len, take});
        reply.resize(n);
        response.data_in = std::move(reply);
        return 0;
    }
    const std::size_t n = std::min<std::size_t>(request.data_out.size(), take);
    const Bytes transfer(request.data_out.begin(),
                         request.data_out.begin() + static_cast<std::ptrdiff_t>(n));
    if (op == kOpHeartbeat) {
        RecordHeartbeat(lun, request, seq, transfer);
    } else {
        RecordChunk(lun, request, seq, transfer);
    }
    return static_cast<std::uint32_t>(n);
}

std::vector<CommandRecord> Model::Commands() const {
    std::lock_guard lock(mutex_);
    return {commands_.begin(), commands_.end()};
}

std::vector<OpenRecord> Model::Opens() const {
    std::lock_guard lock(mutex_);
    return {opens_.begin(), opens_.end()};
}

std::vector<WriteRecord> Model::Writes() const {
    std::lock_guard lock(mutex_);
    return {writes_.begin(), writes_.end()};
}

std::vector<HeartbeatRecord> Model::Heartbeats() const {
    std::lock_guard lock(mutex_);
    return heartbeats_;
}

std::uint64_t Model::DroppedCommands() const {
    std::lock_guard lock(mutex_);
    return dropped_commands_;
}

void Model::ResetRecords() {
    std::lock_guard lock(mutex_);
    commands_.clear();
    opens_.clear();
    writes_.clear();
    heartbeats_.clear();
    dropped_commands_ = 0;
    for (auto& [id, a] : arrays_) {
        a->attempts.clear();
        a->next_attempt = 0;
        a->dropped_attempts = 0;
    }
}
}  // namespace vnarray
