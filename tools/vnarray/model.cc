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

namespace vnarray {

namespace {

// Sense keys and additional sense codes of the array's own refusals.
constexpr std::uint8_t kSenseIllegalRequest = 0x05;
constexpr std::uint8_t kAscInvalidOpcode = 0x20;
constexpr std::uint8_t kAscInvalidFieldInCdb = 0x24;

// Archives larger than this are checked but not kept.
constexpr std::uint32_t kMaxKeptArchive = 256U << 20U;

// Adds [lo, hi) to disjoint, merged ranges; returns the bytes not covered before.
std::uint64_t AddCoverage(std::map<std::uint64_t, std::uint64_t>& ranges, std::uint64_t lo,
                          std::uint64_t hi) {
    if (hi <= lo) {
        return 0;
    }
    std::uint64_t added = hi - lo;
    std::uint64_t merged_lo = lo;
    std::uint64_t merged_hi = hi;
    auto it = ranges.upper_bound(lo);
    if (it != ranges.begin() && std::prev(it)->second >= lo) {
        --it;
    }
    while (it != ranges.end() && it->first <= hi) {
        const std::uint64_t overlap_lo = std::max(it->first, lo);
        const std::uint64_t overlap_hi = std::min(it->second, hi);
        if (overlap_hi > overlap_lo) {
            added -= overlap_hi - overlap_lo;
        }
        merged_lo = std::min(merged_lo, it->first);
        merged_hi = std::max(merged_hi, it->second);
        it = ranges.erase(it);
    }
    ranges.emplace(merged_lo, merged_hi);
    return added;
}

double WallNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

double MonoNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

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

void PutBe16(Bytes& b, std::size_t at, std::uint16_t v) {
    b.at(at) = static_cast<std::uint8_t>(v >> 8U);
    b.at(at + 1) = static_cast<std::uint8_t>(v & 0xFFU);
}

// Copies text into a fixed field, padding with pad; longer text is cut.
void PutField(Bytes& b, std::size_t at, std::size_t width, const std::string& text,
              std::uint8_t pad) {
    for (std::size_t i = 0; i < width; ++i) {
        b.at(at + i) = i < text.size() ? static_cast<std::uint8_t>(text[i]) : pad;
    }
}

void PutBytes(Bytes& b, std::size_t at, std::size_t width, const Bytes& src) {
    for (std::size_t i = 0; i < width && i < src.size(); ++i) {
        b.at(at + i) = src[i];
    }
}

std::string Hex8(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof(buf), "0x%02x", v & 0xFFU);
    return buf;
}

Wwn DefaultWwn(const LunConf& lun) {
    // NAA 6 with a stable body, so a LUN keeps its WWN across runs.
    std::string seed = lun.array + "/" + lun.dev;
    std::uint64_t a = Fnv1a64(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    seed += "#";
    std::uint64_t b = Fnv1a64(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    Wwn w{};
    for (std::size_t i = 0; i < 8; ++i) {
        w.at(i) = static_cast<std::uint8_t>(a >> (56U - 8U * i));
        w.at(8 + i) = static_cast<std::uint8_t>(b >> (56U - 8U * i));
    }
    w[0] = static_cast<std::uint8_t>(0x60U | (w[0] & 0x0FU));
    return w;
}

bool DirectionCarries(int direction, bool data_in) {
    if (direction == kDxferToFromDev) {
        return true;
    }
    return data_in ? direction == kDxferFromDev : direction == kDxferToDev;
}

}  // namespace

bool FaultKind::Covers(const FaultKind& command) const {
    const FaultKind& fault = *this;
    switch (fault.type) {
        case FaultKind::Type::kAny:
            return true;
        case FaultKind::Type::kOpen:
            return false;
        case FaultKind::Type::kInquiry:
            return command.type == FaultKind::Type::kPage;
        case FaultKind::Type::kPage:
            return command.type == FaultKind::Type::kPage && command.page == fault.page;
        case FaultKind::Type::kOpcode:
            if (command.type == FaultKind::Type::kPage) {
                return fault.opcode == kOpInquiry;
            }
            return command.type == FaultKind::Type::kOpcode && command.opcode == fault.opcode;
    }
    return false;
}

namespace {

void CheckCondition(SgResponse& r, std::uint8_t asc) {
    r.status = kStatusCheckCondition;
    r.driver_status = kDriverSense;
    r.sense = FixedSense(kSenseIllegalRequest, asc, 0);
}

// The fixed bytes every vendor CDB carries.
void CheckVendorCdb(const Bytes& cdb, std::vector<std::string>& issues, const std::string& prefix) {
    if (cdb.size() != 16) {
        issues.push_back(prefix + "cdb is " + std::to_string(cdb.size()) + " bytes, expected 16");
        return;
    }
    const std::pair<std::size_t, std::uint8_t> fixed[] = {{1, 0x00}, {14, 0x81}, {15, 0x00}};
    for (const auto& [at, want] : fixed) {
        if (cdb[at] != want) {
            issues.push_back(prefix + "cdb byte " + std::to_string(at) + " is " + Hex8(cdb[at]) +
                             ", expected " + Hex8(want));
        }
    }
}

}  // namespace

struct Model::Array {
    ArrayConf conf;
    std::deque<UploadAttempt> attempts;
    std::uint64_t next_attempt = 0;
    std::uint64_t dropped_attempts = 0;
};

struct Model::Lun {
    std::uint64_t id = 0;
    LunConf conf;
};

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

Bytes FixedSense(std::uint8_t key, std::uint8_t asc, std::uint8_t ascq) {
    Bytes s(18, 0);
    s[0] = 0x70;  // current error, fixed format
    s[2] = key;
    s[7] = 10;  // additional sense length
    s[12] = asc;
    s[13] = ascq;
    return s;
}

FaultKind KindOfCdb(const Bytes& cdb) {
    FaultKind k;
    if (cdb.empty()) {
        k.type = FaultKind::Type::kOpcode;
        return k;
    }
    if (cdb[0] == kOpInquiry && cdb.size() >= 3) {
        k.type = FaultKind::Type::kPage;
        k.page = (cdb[1] & 0x01U) != 0 ? cdb[2] : kStandardPage;
        return k;
    }
    k.type = FaultKind::Type::kOpcode;
    k.opcode = cdb[0];
    return k;
}

std::optional<FaultKind> FaultKind::Parse(const std::string& text) {
    std::string t;
    for (char c : text) {
        t.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    FaultKind k;
    auto hex_byte = [](const std::string& digits) -> std::optional<std::uint8_t> {
        auto b = FromHex(digits);
        if (digits.size() != 2 || !b || b->size() != 1) {
            return std::nullopt;
        }
        return (*b)[0];
    };
    if (t == "any") {
        k.type = Type::kAny;
    } else if (t == "open") {
        k.type = Type::kOpen;
    } else if (t == "inquiry") {
        k.type = Type::kInquiry;
    } else if (t == "std") {
        k.type = Type::kPage;
        k.page = kStandardPage;
    } else if (t.rfind("page", 0) == 0) {
        auto b = hex_byte(t.substr(4));
        if (!b) {
            return std::nullopt;
        }
        k.type = Type::kPage;
        k.page = *b;
    } else if (t == "c7" || t == "c9" || t == "ca") {
        k.type = Type::kOpcode;
        k.opcode = *hex_byte(t);
    } else if (t.rfind("op", 0) == 0) {
        auto b = hex_byte(t.substr(2));
        if (!b) {
            return std::nullopt;
        }
        k.type = Type::kOpcode;
        k.opcode = *b;
    } else {
        return std::nullopt;
    }
    return k;
}

std::string FaultKind::Name() const {
    switch (type) {
        case Type::kAny:
            return "any";
        case Type::kOpen:
            return "open";
        case Type::kInquiry:
            return "inquiry";
        case Type::kPage:
            return page == kStandardPage ? "std"
                                         : "page" + ToHex({static_cast<std::uint8_t>(page)});
        case Type::kOpcode:
            if (opcode == kOpQuerySwitch || opcode == kOpHeartbeat || opcode == kOpWriteBuffer) {
                return ToHex({opcode});
            }
            return "op" + ToHex({opcode});
    }
    return "any";
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

std::optional<Bytes> Model::Page(const std::string& dev, int page) const {
    std::lock_guard lock(mutex_);
    const Lun* l = FindLunLocked(dev);
    if (l == nullptr) {
        return std::nullopt;
    }
    return PageLocked(*l, page);
}

std::optional<Bytes> Model::PageLocked(const Lun& lun, int page) const {
    const LunConf& s = lun.conf;
    const Array* array = nullptr;
    if (!s.array.empty()) {
        auto it = arrays_.find(s.array);
        array = it == arrays_.end() ? nullptr : it->second.get();
    }
    Bytes p;
    auto over = s.pages.find(page);
    if (over != s.pages.end()) {
        if (!over->second) {
            return std::nullopt;
        }
        p = *over->second;
    } else {
        switch (page) {
            case kStandardPage:
                p.assign(kStandardInquiryLen, 0);
                p[2] = 0x06;  // SPC-4
                p[3] = 0x02;  // response data format
                p[4] = static_cast<std::uint8_t>(kStandardInquiryLen - 5);
                p[7] = 0x02;  // command queueing
                PutField(p, 8, 8, s.vendor, ' ');
                PutField(p, 16, 16, s.product, ' ');
                PutField(p, 32, 4, s.revision, ' ');
                break;
            case 0x00: {
                const std::uint8_t supported[] = {0x00, 0x80, 0x83, 0xC0, 0xC8};
                p.assign(4, 0);
                for (std::uint8_t code : supported) {
                    auto o = s.pages.find(code);
                    if (o == s.pages.end() || o->second) {
                        p.push_back(code);
                    }
                }
                p[3] = static_cast<std::uint8_t>(p.size() - 4);
                break;
            }
            case 0x80: {
                p.assign(kPage80Len, 0);
                p[1] = 0x80;
                p[3] = static_cast<std::uint8_t>(kPage80Len - 4);
                // NUL padding keeps a short serial a valid letters-and-digits text.
                if (s.serial) {
                    PutBytes(p, 4, kSerialLen, *s.serial);
                } else if (array != nullptr) {
                    PutField(p, 4, kSerialLen, array->conf.sn, 0);
                }
                break;
            }
            case 0x83: {
                p.assign(kPage83Len, 0);
                p[1] = 0x83;
                p[3] = static_cast<std::uint8_t>(kPage83Len - 4);
                p[4] = 0x01;  // binary code set
                p[5] = 0x03;  // NAA designator, associated with the LUN
                p[7] = 16;
                const Wwn w = s.wwn ? *s.wwn : DefaultWwn(s);
                std::copy(w.begin(), w.end(), p.begin() + 8);
                break;
            }
            case 0xC0:
                p.assign(kPageC0Len, 0);
                p[1] = 0xC0;
                PutBe16(p, 2, static_cast<std::uint16_t>(kPageC0Len - 4));
                if (array != nullptr) {
                    p[184] = array->conf.major;
                    p[186] = array->conf.minor;
                }
                break;
            case 0xC8: {
                p.assign(kPageC8Len, 0);
                p[1] = 0xC8;
                PutBe16(p, 2, static_cast<std::uint16_t>(kPageC8Len - 4));
                PutField(p, 29, kShortNameLen, s.name, 0);
                Bytes name;
                if (s.array_name) {
                    name = *s.array_name;
                } else if (array != nullptr) {
                    name.assign(array->conf.name.begin(), array->conf.name.end());
                }
                p[106] = static_cast<std::uint8_t>(name.size());
                PutBytes(p, 107, kArrayNameMax, name);
                PutBe16(p, 206, s.name_selector ? *s.name_selector : (s.long_name.empty() ? 0 : 1));
                PutField(p, 208, kLongNameLen, s.long_name, 0);
                break;
            }
            default:
                return std::nullopt;
        }
    }
    for (const PagePatch& patch : s.patches) {
        if (patch.page != page) {
            continue;
        }
        if (p.size() < patch.offset + patch.bytes.size()) {
            p.resize(patch.offset + patch.bytes.size(), 0);
        }
        std::copy(patch.bytes.begin(), patch.bytes.end(),
                  p.begin() + static_cast<std::ptrdiff_t>(patch.offset));
    }
    return p;
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
        if (Fault* f = MatchFaultLocked(lun->conf.dev, open_kind, rec.flags)) {
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

Fault* Model::MatchFaultLocked(const std::string& dev, const FaultKind& kind, int open_flags) {
    for (Fault& f : faults_) {
        const FaultConf& s = f.conf;
        if (s.lun != "*" && s.lun != dev) {
            continue;
        }
        if (kind.type == FaultKind::Type::kOpen) {
            if (s.kind.type != FaultKind::Type::kOpen ||
                (s.open_mode >= 0 && s.open_mode != open_flags)) {
                continue;
            }
        } else if (!s.kind.Covers(kind)) {
            continue;
        }
        ++f.seen;
        if (f.seen <= s.after) {
            continue;
        }
        if (s.count != 0 && f.hits >= s.count) {
            continue;
        }
        ++f.hits;
        return &f;
    }
    return nullptr;
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
        if (Fault* f = MatchFaultLocked(lun->conf.dev, KindOfCdb(request.cdb), rec.open_flags)) {
            const FaultConf& s = f->conf;
            response.fault_id = f->id;
            response.delay_ms = s.delay_ms;
            if (s.honour_timeout && request.timeout != 0 && s.delay_ms > request.timeout) {
                response.delay_ms = request.timeout;
                response.host_status = kDidTimeOut;
                processed = false;
            } else if (s.err != 0) {
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
            if (s.short_len) {
                take = std::min(take, *s.short_len);
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

void Model::AnswerInquiry(const Lun& lun, const SgRequest& request, SgResponse& response) const {
    const Bytes& cdb = request.cdb;
    const bool evpd = (cdb[1] & 0x01U) != 0;
    if (!evpd && cdb[2] != 0) {
        CheckCondition(response, kAscInvalidFieldInCdb);
        return;
    }
    const std::uint32_t alloc = (static_cast<std::uint32_t>(cdb[3]) << 8U) | cdb[4];
    auto page = PageLocked(lun, evpd ? cdb[2] : kStandardPage);
    if (!page) {
        CheckCondition(response, kAscInvalidFieldInCdb);
        return;
    }
    const std::size_t n = std::min<std::size_t>({alloc, page->size(), request.dxfer_len});
    page->resize(n);
    response.data_in = std::move(*page);
}

void Model::RecordHeartbeat(const Lun& lun, const SgRequest& request, std::uint64_t seq,
                            const Bytes& payload) {
    HeartbeatRecord hb;
    hb.seq = seq;
    hb.time = Now();
    hb.lun = lun.conf.dev;
    hb.array = lun.conf.array;
    hb.cdb = request.cdb;
    hb.payload = payload;
    CheckVendorCdb(request.cdb, hb.issues, "");
    const std::uint64_t address = Be64(request.cdb, 2);
    if (address != 0) {
        hb.issues.push_back("address field is " + std::to_string(address) + ", expected 0");
    }
    const std::uint32_t length = Be32(request.cdb, 10);
    if (length != payload.size()) {
        hb.issues.push_back("length field " + std::to_string(length) +
                            " differs from transfer length " + std::to_string(payload.size()));
    }
    if (payload.size() != kHeartbeatPayloadLen) {
        hb.issues.push_back("payload is " + std::to_string(payload.size()) + " bytes, expected 28");
    }
    const std::pair<std::size_t, std::uint8_t> fixed[] = {
        {0, 0x00}, {1, 0x81}, {2, 0x00}, {3, 0x1C}, {24, 0x00}, {26, 0x00}, {27, 0x00}};
    for (const auto& [at, want] : fixed) {
        if (at < payload.size() && payload[at] != want) {
            hb.issues.push_back("payload byte " + std::to_string(at) + " is " + Hex8(payload[at]) +
                                ", expected " + Hex8(want));
        }
    }
    heartbeats_.push_back(std::move(hb));
}

void Model::RecordChunk(Lun& lun, const SgRequest& request, std::uint64_t seq,
                        const Bytes& transfer) {
    Array* a = FindArrayLocked(lun.conf.array);
    const std::uint64_t offset = Be64(request.cdb, 2);
    UploadAttempt* cur = a->attempts.empty() ? nullptr : &a->attempts.back();
    if (cur == nullptr || (offset == 0 && cur->has_offset0)) {
        UploadAttempt fresh;
        fresh.index = a->next_attempt++;
        fresh.array = a->conf.id;
        fresh.started = Now();
        a->attempts.push_back(std::move(fresh));
        while (a->attempts.size() > max_attempts_) {
            a->attempts.pop_front();
            ++a->dropped_attempts;
        }
        cur = &a->attempts.back();
    }
    UploadAttempt& at = *cur;
    const std::string prefix = "chunk at offset " + std::to_string(offset) + ": ";
    CheckVendorCdb(request.cdb, at.issues, prefix);
    const std::uint32_t length = Be32(request.cdb, 10);
    if (length != transfer.size()) {
        at.issues.push_back(prefix + "length field " + std::to_string(length) +
                            " differs from transfer length " + std::to_string(transfer.size()));
    }
    if (std::find(at.luns.begin(), at.luns.end(), lun.conf.dev) == at.luns.end()) {
        at.luns.push_back(lun.conf.dev);
    }
    if (offset == 0) {
        at.has_offset0 = true;
    }
    ChunkRecord chunk{seq, lun.conf.dev, offset, 0};
    const bool duplicate = !at.offsets_seen.insert(offset).second;
    if (duplicate) {
        at.issues.push_back(prefix + "received again");
    }
    if (transfer.size() < kChunkHeaderLen) {
        at.issues.push_back(prefix + "transfer of " + std::to_string(transfer.size()) +
                            " bytes is shorter than the 32-byte header");
        at.chunks.push_back(chunk);
        return;
    }
    if (transfer.size() > kChunkTransferMax) {
        at.issues.push_back(prefix + "transfer of " + std::to_string(transfer.size()) +
                            " bytes exceeds 4096");
    }
    const std::pair<std::size_t, std::uint8_t> fixed[] = {
        {0, 0x00}, {1, 0x81}, {6, 0x10}, {7, 0x00}, {29, 0x00}, {30, 0x00}, {31, 0x00}};
    for (const auto& [pos, want] : fixed) {
        if (transfer[pos] != want) {
            at.issues.push_back(prefix + "header byte " + std::to_string(pos) + " is " +
                                Hex8(transfer[pos]) + ", expected " + Hex8(want));
        }
    }
    const std::uint32_t size = Be32(transfer, 2);
    Version versions{};
    std::copy(transfer.begin() + 8, transfer.begin() + 12, versions.begin());
    std::array<std::uint8_t, 16> ip{};
    std::copy(transfer.begin() + 12, transfer.begin() + 28, ip.begin());
    const std::uint8_t ip_type = transfer[28];
    const bool first_header = std::none_of(at.chunks.begin(), at.chunks.end(),
                                           [](const ChunkRecord& c) { return c.length > 0; }) &&
                              at.size == 0 && at.data.empty();
    if (first_header) {
        at.size = size;
        at.versions = versions;
        at.host_ip = ip;
        at.ip_type = ip_type;
        if (size == 0) {
            at.issues.push_back(prefix + "archive size is 0");
        } else if (size > kMaxKeptArchive) {
            at.issues.push_back(prefix + "archive size " + std::to_string(size) +
                                " is too large to keep");
        } else {
            at.data.assign(size, 0);
        }
    } else {
        if (size != at.size) {
            at.issues.push_back(prefix + "size " + std::to_string(size) + " differs from size " +
                                std::to_string(at.size) + " of the first chunk");
        }
        if (versions != at.versions) {
            at.issues.push_back(prefix + "versions " +
                                ToHex(Bytes(versions.begin(), versions.end())) +
                                " differ from the first chunk's " +
                                ToHex(Bytes(at.versions.begin(), at.versions.end())));
        }
        if (ip != at.host_ip) {
            at.issues.push_back(prefix + "host address differs from the first chunk's");
        }
        if (ip_type != at.ip_type) {
            at.issues.push_back(prefix + "address type " + std::to_string(ip_type) +
                                " differs from the first chunk's " + std::to_string(at.ip_type));
        }
    }
    const std::size_t n = transfer.size() - kChunkHeaderLen;
    chunk.length = n;
    at.chunks.push_back(chunk);
    if (offset % kChunkDataMax != 0) {
        at.issues.push_back(prefix + "offset is not a multiple of 4064");
    }
    const std::uint64_t total = at.size;
    if (offset + n > total) {
        at.issues.push_back(prefix + "ends at " + std::to_string(offset + n) +
                            " beyond the archive size " + std::to_string(total));
    } else {
        const std::uint64_t expected = std::min<std::uint64_t>(kChunkDataMax, total - offset);
        if (n != expected) {
            at.issues.push_back(prefix + "carries " + std::to_string(n) + " data bytes, expected " +
                                std::to_string(expected));
        }
    }
    if (at.data.empty() || offset >= at.data.size()) {
        return;
    }
    const std::uint64_t end = std::min<std::uint64_t>(offset + n, at.data.size());
    std::copy(transfer.begin() + kChunkHeaderLen,
              transfer.begin() + static_cast<std::ptrdiff_t>(kChunkHeaderLen + (end - offset)),
              at.data.begin() + static_cast<std::ptrdiff_t>(offset));
    // Coverage: the union of the chunk ranges inside the archive.
    at.received += AddCoverage(at.coverage, offset, end);
    at.complete = at.received == total;
}

std::uint64_t Model::AddFault(const FaultConf& conf) {
    std::lock_guard lock(mutex_);
    Fault f;
    f.id = next_fault_id_++;
    f.conf = conf;
    faults_.push_back(f);
    return f.id;
}

bool Model::ClearFault(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    auto it =
        std::find_if(faults_.begin(), faults_.end(), [&](const Fault& f) { return f.id == id; });
    if (it == faults_.end()) {
        return false;
    }
    faults_.erase(it);
    return true;
}

std::size_t Model::ClearFaults(const std::string& lun) {
    std::lock_guard lock(mutex_);
    const std::size_t before = faults_.size();
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [&](const Fault& f) { return lun.empty() || f.conf.lun == lun; }),
                  faults_.end());
    return before - faults_.size();
}

std::vector<Fault> Model::Faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
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

std::vector<UploadAttempt> Model::Uploads() const {
    std::lock_guard lock(mutex_);
    std::vector<UploadAttempt> out;
    for (const auto& [id, a] : arrays_) {
        out.insert(out.end(), a->attempts.begin(), a->attempts.end());
    }
    return out;
}

std::optional<UploadAttempt> Model::Upload(const std::string& array, std::uint64_t index) const {
    std::lock_guard lock(mutex_);
    auto it = arrays_.find(array);
    if (it == arrays_.end()) {
        return std::nullopt;
    }
    for (const UploadAttempt& at : it->second->attempts) {
        if (at.index == index) {
            return at;
        }
    }
    return std::nullopt;
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
