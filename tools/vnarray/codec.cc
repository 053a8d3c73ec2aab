#include "codec.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace vnarray {

namespace {

constexpr std::pair<const char*, int> kErrnoNames[] = {
    {"EPERM", EPERM},           {"ENOENT", ENOENT},
    {"EINTR", EINTR},           {"EIO", EIO},
    {"ENXIO", ENXIO},           {"EBADF", EBADF},
    {"EAGAIN", EAGAIN},         {"ENOMEM", ENOMEM},
    {"EACCES", EACCES},         {"EFAULT", EFAULT},
    {"EBUSY", EBUSY},           {"ENODEV", ENODEV},
    {"EINVAL", EINVAL},         {"ENOTTY", ENOTTY},
    {"EROFS", EROFS},           {"EMSGSIZE", EMSGSIZE},
    {"ENOSYS", ENOSYS},         {"ETIMEDOUT", ETIMEDOUT},
    {"ECONNRESET", ECONNRESET}, {"ENOMEDIUM", ENOMEDIUM},
};

bool Fail(std::string* error, std::string text) {
    *error = std::move(text);
    return false;
}

bool ReadString(const Json& j, const char* key, std::string* out, std::string* error) {
    auto it = j.find(key);
    if (it == j.end()) {
        return true;
    }
    if (!it->is_string()) {
        return Fail(error, std::string("'") + key + "' must be a string");
    }
    *out = it->get<std::string>();
    return true;
}

// A text field that tests may also give as raw bytes: "text" or {"hex": "..."}.
bool ReadTextOrHex(const Json& j, const char* key, std::optional<Bytes>* out, std::string* error) {
    auto it = j.find(key);
    if (it == j.end()) {
        return true;
    }
    if (it->is_string()) {
        const std::string s = it->get<std::string>();
        *out = Bytes(s.begin(), s.end());
        return true;
    }
    if (it->is_object() && it->contains("hex") && (*it)["hex"].is_string()) {
        auto b = FromHex((*it)["hex"].get<std::string>());
        if (!b) {
            return Fail(error, std::string("'") + key + "': bad hex");
        }
        *out = std::move(*b);
        return true;
    }
    return Fail(error, std::string("'") + key + "' must be a string or {\"hex\": ...}");
}

std::optional<int> ParsePageKey(const std::string& key) {
    if (key == "std") {
        return kStandardPage;
    }
    std::string digits = key;
    if (digits.rfind("0x", 0) == 0 || digits.rfind("0X", 0) == 0) {
        digits = digits.substr(2);
    }
    if (digits.size() == 1) {
        digits = "0" + digits;
    }
    auto b = FromHex(digits);
    if (digits.size() != 2 || !b || b->size() != 1) {
        return std::nullopt;
    }
    return (*b)[0];
}

std::string ModeName(int flags) {
    switch (flags & O_ACCMODE) {
        case O_RDONLY:
            return "ro";
        case O_WRONLY:
            return "wo";
        default:
            return "rw";
    }
}

int ModeFromName(const std::string& name) {
    if (name == "ro") {
        return O_RDONLY;
    }
    if (name == "wo") {
        return O_WRONLY;
    }
    return O_RDWR;
}

std::string Digest(std::uint64_t v) {
    char buf[20];
    std::snprintf(buf, sizeof(buf), "%016llx", static_cast<unsigned long long>(v));
    return buf;
}

Bytes HexField(const Json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_string()) {
        return {};
    }
    return FromHex(it->get<std::string>()).value_or(Bytes{});
}

template <std::size_t N>
std::array<std::uint8_t, N> HexArray(const Json& j, const char* key) {
    std::array<std::uint8_t, N> out{};
    const Bytes b = HexField(j, key);
    for (std::size_t i = 0; i < N && i < b.size(); ++i) {
        out.at(i) = b[i];
    }
    return out;
}

Json ClockJson(const Clock& c) {
    return {{"t", c.wall}, {"mono", c.mono}};
}

Clock ClockFrom(const Json& j) {
    return Clock{j.value("t", 0.0), j.value("mono", 0.0)};
}

}  // namespace

std::optional<std::int64_t> ReadInt(const Json& j, const char* key, std::int64_t lo,
                                    std::int64_t hi, std::string* error) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return std::nullopt;
    }
    std::int64_t v = 0;
    if (it->is_number_integer()) {
        v = it->get<std::int64_t>();
    } else if (it->is_boolean()) {
        v = it->get<bool>() ? 1 : 0;
    } else if (it->is_string()) {
        const std::string s = it->get<std::string>();
        char* end = nullptr;
        errno = 0;
        v = s == "true" ? 1 : s == "false" ? 0 : std::strtoll(s.c_str(), &end, 0);
        if (s.empty() || (end != nullptr && (*end != '\0' || errno != 0))) {
            *error = std::string("'") + key + "' is not a number: " + s;
            return std::nullopt;
        }
    } else {
        *error = std::string("'") + key + "' must be a number";
        return std::nullopt;
    }
    if (v < lo || v > hi) {
        *error = std::string("'") + key + "' out of range: " + std::to_string(v);
        return std::nullopt;
    }
    return v;
}

std::optional<Version> ReadVersion(const Json& j, const char* key, std::string* error) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        return std::nullopt;
    }
    std::string text;
    if (it->is_string()) {
        text = it->get<std::string>();
    } else if (it->is_number_unsigned()) {
        // A command-line client sends "00000012" as a string but "12345678" as a number.
        text = std::to_string(it->get<std::uint64_t>());
    }
    auto b = FromHex(text);
    if (!b || b->size() != 4) {
        *error = std::string("'") + key + "' must be 4 bytes in hex, e.g. \"00000001\"";
        return std::nullopt;
    }
    Version v{};
    std::copy(b->begin(), b->end(), v.begin());
    return v;
}

std::optional<int> ParseErrno(const Json& v) {
    if (v.is_number_integer()) {
        const auto n = v.get<std::int64_t>();
        return n > 0 && n < 4096 ? std::optional<int>(static_cast<int>(n)) : std::nullopt;
    }
    if (!v.is_string()) {
        return std::nullopt;
    }
    const std::string s = v.get<std::string>();
    for (const auto& [name, value] : kErrnoNames) {
        if (s == name) {
            return value;
        }
    }
    char* end = nullptr;
    const long n = std::strtol(s.c_str(), &end, 0);
    if (!s.empty() && *end == '\0' && n > 0 && n < 4096) {
        return static_cast<int>(n);
    }
    return std::nullopt;
}

std::string ErrnoName(int err) {
    for (const auto& [name, value] : kErrnoNames) {
        if (value == err) {
            return name;
        }
    }
    return std::to_string(err);
}

bool ParseArrayConf(const Json& j, ArrayConf* out, std::string* error) {
    if (!j.is_object()) {
        return Fail(error, "an array must be an object");
    }
    ArrayConf a;
    if (!ReadString(j, "sn", &a.sn, error) || !ReadString(j, "id", &a.id, error) ||
        !ReadString(j, "name", &a.name, error)) {
        return false;
    }
    error->clear();
    auto major = ReadInt(j, "major", 0, 255, error);
    auto minor = ReadInt(j, "minor", 0, 255, error);
    auto sw = ReadInt(j, "switch", 0, 255, error);
    auto version = ReadVersion(j, "collect_version", error);
    if (!error->empty()) {
        return false;
    }
    a.major = static_cast<std::uint8_t>(major.value_or(a.major));
    a.minor = static_cast<std::uint8_t>(minor.value_or(a.minor));
    a.switch_state = static_cast<std::uint8_t>(sw.value_or(0));
    a.collect_version = version.value_or(Version{});
    *out = std::move(a);
    return true;
}

bool ParseLunConf(const Json& j, LunConf* out, std::string* error) {
    if (!j.is_object()) {
        return Fail(error, "a LUN must be an object");
    }
    LunConf l;
    if (!ReadString(j, "dev", &l.dev, error) || !ReadString(j, "array", &l.array, error) ||
        !ReadString(j, "vendor", &l.vendor, error) ||
        !ReadString(j, "product", &l.product, error) ||
        !ReadString(j, "revision", &l.revision, error) || !ReadString(j, "name", &l.name, error) ||
        !ReadString(j, "long_name", &l.long_name, error) ||
        !ReadTextOrHex(j, "serial", &l.serial, error) ||
        !ReadTextOrHex(j, "array_name", &l.array_name, error)) {
        return false;
    }
    if (l.dev.empty()) {
        return Fail(error, "a LUN needs a 'dev'");
    }
    error->clear();
    auto selector = ReadInt(j, "name_selector", 0, 0xFFFF, error);
    if (!error->empty()) {
        return false;
    }
    if (selector) {
        l.name_selector = static_cast<std::uint16_t>(*selector);
    }
    if (j.contains("wwn")) {
        auto b = j["wwn"].is_string() ? FromHex(j["wwn"].get<std::string>()) : std::nullopt;
        if (!b || b->size() != 16) {
            return Fail(error, "LUN " + l.dev + ": 'wwn' must be 16 bytes in hex");
        }
        Wwn w{};
        std::copy(b->begin(), b->end(), w.begin());
        l.wwn = w;
    }
    if (j.contains("pages")) {
        if (!j["pages"].is_object()) {
            return Fail(error, "LUN " + l.dev + ": 'pages' must be an object");
        }
        for (const auto& [key, value] : j["pages"].items()) {
            auto page = ParsePageKey(key);
            if (!page) {
                return Fail(error, "LUN " + l.dev + ": bad page '" + key + "'");
            }
            if (value.is_null()) {
                l.pages[*page] = std::nullopt;
                continue;
            }
            auto b = value.is_string() ? FromHex(value.get<std::string>()) : std::nullopt;
            if (!b) {
                return Fail(error, "LUN " + l.dev + ": page '" + key + "' must be hex or null");
            }
            l.pages[*page] = std::move(*b);
        }
    }
    if (j.contains("patches")) {
        if (!j["patches"].is_array()) {
            return Fail(error, "LUN " + l.dev + ": 'patches' must be a list");
        }
        for (const Json& p : j["patches"]) {
            PagePatch patch;
            std::string page_key = "std";
            std::string hex;
            if (!p.is_object() || !ReadString(p, "page", &page_key, error) ||
                !ReadString(p, "hex", &hex, error)) {
                return Fail(error, "LUN " + l.dev + ": bad patch");
            }
            auto page = ParsePageKey(page_key);
            auto bytes = FromHex(hex);
            auto offset = ReadInt(p, "offset", 0, 65535, error);
            if (!page || !bytes || !offset) {
                return Fail(error, "LUN " + l.dev + ": a patch needs page, offset and hex");
            }
            patch.page = *page;
            patch.offset = static_cast<std::size_t>(*offset);
            patch.bytes = std::move(*bytes);
            l.patches.push_back(std::move(patch));
        }
    }
    *out = std::move(l);
    return true;
}

bool ParseFaultConf(const Json& j, FaultConf* out, std::string* error) {
    if (!j.is_object()) {
        return Fail(error, "a fault must be an object");
    }
    FaultConf f;
    if (!ReadString(j, "lun", &f.lun, error)) {
        return false;
    }
    std::string kind = "any";
    if (!ReadString(j, "kind", &kind, error)) {
        return false;
    }
    auto parsed = FaultKind::Parse(kind);
    if (!parsed) {
        return Fail(error, "unknown fault kind '" + kind + "'");
    }
    f.kind = *parsed;
    if (j.contains("errno")) {
        auto e = ParseErrno(j["errno"]);
        if (!e) {
            return Fail(error, "bad errno");
        }
        f.err = *e;
    }
    error->clear();
    auto status = ReadInt(j, "status", 0, 255, error);
    auto host = ReadInt(j, "host_status", 0, 0xFFFF, error);
    auto driver = ReadInt(j, "driver_status", 0, 0xFFFF, error);
    auto delay = ReadInt(j, "delay_ms", 0, 3600000, error);
    auto after = ReadInt(j, "after", 0, INT64_MAX, error);
    auto count = ReadInt(j, "count", 0, INT64_MAX, error);
    if (!error->empty()) {
        return false;
    }
    if (status) {
        f.status = static_cast<std::uint8_t>(*status);
    }
    if (host) {
        f.host_status = static_cast<std::uint16_t>(*host);
    }
    if (driver) {
        f.driver_status = static_cast<std::uint16_t>(*driver);
    }
    f.delay_ms = static_cast<std::uint32_t>(delay.value_or(0));
    f.after = static_cast<std::uint64_t>(after.value_or(0));
    f.count = static_cast<std::uint64_t>(count.value_or(0));
    if (j.contains("sense")) {
        auto b = j["sense"].is_string() ? FromHex(j["sense"].get<std::string>()) : std::nullopt;
        if (!b) {
            return Fail(error, "'sense' must be hex");
        }
        f.sense = std::move(*b);
    }
    const bool acts = f.err != 0 || f.status || f.host_status || f.driver_status || f.delay_ms != 0;
    if (f.kind.type == FaultKind::Type::kOpen && f.err == 0) {
        f.err = EIO;
    } else if (!acts) {
        return Fail(error,
                    "a fault needs errno, status, host_status, driver_status, short or delay_ms");
    }
    *out = std::move(f);
    return true;
}

bool LoadConfig(const Json& j, Model* model, std::string* error) {
    if (!j.is_object()) {
        return Fail(error, "the configuration must be an object");
    }
    for (const char* key : {"arrays", "luns"}) {
        if (j.contains(key) && !j[key].is_array()) {
            return Fail(error, std::string("'") + key + "' must be a list");
        }
    }
    for (const Json& a : j.value("arrays", Json::array())) {
        ArrayConf conf;
        if (!ParseArrayConf(a, &conf, error) || !model->AddArray(std::move(conf), error)) {
            return false;
        }
    }
    for (const Json& l : j.value("luns", Json::array())) {
        LunConf conf;
        if (!ParseLunConf(l, &conf, error) || !model->AddLun(std::move(conf), error)) {
            return false;
        }
    }
    return true;
}

Json ToJson(const ArrayState& a) {
    return {{"id", a.conf.id},
            {"sn", a.conf.sn},
            {"name", a.conf.name},
            {"major", a.conf.major},
            {"minor", a.conf.minor},
            {"switch", a.conf.switch_state},
            {"collect_version",
             ToHex(Bytes(a.conf.collect_version.begin(), a.conf.collect_version.end()))},
            {"dropped_uploads", a.dropped_attempts}};
}

Json ToJson(const LunInfo& l) {
    return {{"dev", l.conf.dev},
            {"array", l.conf.array},
            {"vendor", l.conf.vendor},
            {"name", l.conf.name}};
}

Json ToJson(const Fault& f) {
    const FaultConf& s = f.conf;
    Json j = {{"id", f.id},       {"lun", s.lun},   {"kind", s.kind.Name()}, {"after", s.after},
              {"count", s.count}, {"seen", f.seen}, {"hits", f.hits}};
    if (s.err != 0) {
        j["errno"] = s.err;
        j["errno_name"] = ErrnoName(s.err);
    }
    if (s.status) {
        j["status"] = *s.status;
    }
    if (s.host_status) {
        j["host_status"] = *s.host_status;
    }
    if (s.driver_status) {
        j["driver_status"] = *s.driver_status;
    }
    if (s.sense) {
        j["sense"] = ToHex(*s.sense);
    }
    if (s.delay_ms != 0) {
        j["delay_ms"] = s.delay_ms;
    }
    return j;
}

Json ToJson(const CommandRecord& r, bool with_data) {
    Json j = ClockJson(r.time);
    j["seq"] = r.seq;
    j["lun"] = r.lun;
    j["array"] = r.array;
    j["pid"] = r.pid;
    j["mode"] = ModeName(r.open_flags);
    j["interface_id"] = r.interface_id;
    j["dxfer_direction"] = r.dxfer_direction;
    j["cmd_len"] = r.cmd_len;
    j["mx_sb_len"] = r.mx_sb_len;
    j["iovec_count"] = r.iovec_count;
    j["dxfer_len"] = r.dxfer_len;
    j["timeout"] = r.timeout;
    j["flags"] = r.flags;
    j["pack_id"] = r.pack_id;
    j["usr_ptr"] = r.usr_ptr;
    j["cdb"] = ToHex(r.cdb);
    j["kind"] = KindOfCdb(r.cdb).Name();
    if (with_data) {
        j["data_out"] = ToHex(r.data_out);
    }
    j["data_out_len"] = r.data_out_len;
    j["data_out_digest"] = Digest(r.data_out_digest);
    j["errno"] = r.err;
    j["status"] = r.status;
    j["host_status"] = r.host_status;
    j["driver_status"] = r.driver_status;
    j["resid"] = r.resid;
    j["transferred"] = r.transferred;
    j["fault"] = r.fault_id ? Json(*r.fault_id) : Json(nullptr);
    return j;
}

Json ToJson(const OpenRecord& r) {
    Json j = ClockJson(r.time);
    j["seq"] = r.seq;
    j["lun"] = r.lun;
    j["event"] = r.close ? "close" : "open";
    j["mode"] = ModeName(r.flags);
    j["pid"] = r.pid;
    j["errno"] = r.err;
    return j;
}

Json ToJson(const WriteRecord& r) {
    Json j = ClockJson(r.time);
    j["seq"] = r.seq;
    j["lun"] = r.lun;
    j["pid"] = r.pid;
    j["offset"] = r.offset;
    j["length"] = r.length;
    j["head"] = ToHex(r.head);
    return j;
}

Json ToJson(const HeartbeatRecord& r) {
    Json j = ClockJson(r.time);
    j["seq"] = r.seq;
    j["lun"] = r.lun;
    j["array"] = r.array;
    j["cdb"] = ToHex(r.cdb);
    j["payload"] = ToHex(r.payload);
    j["issues"] = r.issues;
    return j;
}

Json ToJson(const UploadAttempt& u) {
    Json chunks = Json::array();
    for (const ChunkRecord& c : u.chunks) {
        chunks.push_back(
            {{"seq", c.seq}, {"lun", c.lun}, {"offset", c.offset}, {"length", c.length}});
    }
    Json j = ClockJson(u.started);
    j["array"] = u.array;
    j["index"] = u.index;
    j["size"] = u.size;
    j["versions"] = ToHex(Bytes(u.versions.begin(), u.versions.end()));
    j["host_ip"] = ToHex(Bytes(u.host_ip.begin(), u.host_ip.end()));
    j["ip_type"] = u.ip_type;
    j["chunks"] = std::move(chunks);
    j["luns"] = u.luns;
    j["issues"] = u.issues;
    j["received"] = u.received;
    j["complete"] = u.complete;
    j["digest"] = Digest(Fnv1a64(u.data.data(), u.data.size()));
    return j;
}

CommandRecord CommandFromJson(const Json& j) {
    CommandRecord r;
    r.time = ClockFrom(j);
    r.seq = j.value("seq", std::uint64_t{0});
    r.lun = j.value("lun", "");
    r.array = j.value("array", "");
    r.pid = j.value("pid", 0);
    r.open_flags = ModeFromName(j.value("mode", "rw"));
    r.interface_id = j.value("interface_id", 0);
    r.dxfer_direction = j.value("dxfer_direction", 0);
    r.cmd_len = j.value("cmd_len", std::uint8_t{0});
    r.mx_sb_len = j.value("mx_sb_len", std::uint8_t{0});
    r.iovec_count = j.value("iovec_count", std::uint16_t{0});
    r.dxfer_len = j.value("dxfer_len", 0U);
    r.timeout = j.value("timeout", 0U);
    r.flags = j.value("flags", 0U);
    r.pack_id = j.value("pack_id", 0);
    r.usr_ptr = j.value("usr_ptr", false);
    r.cdb = HexField(j, "cdb");
    r.data_out = HexField(j, "data_out");
    r.data_out_len = j.value("data_out_len", std::size_t{0});
    r.data_out_digest = std::strtoull(j.value("data_out_digest", "0").c_str(), nullptr, 16);
    r.err = j.value("errno", 0);
    r.status = j.value("status", std::uint8_t{0});
    r.host_status = j.value("host_status", std::uint16_t{0});
    r.driver_status = j.value("driver_status", std::uint16_t{0});
    r.resid = j.value("resid", 0U);
    r.transferred = j.value("transferred", 0U);
    if (j.contains("fault") && j["fault"].is_number()) {
        r.fault_id = j["fault"].get<std::uint64_t>();
    }
    return r;
}

OpenRecord OpenFromJson(const Json& j) {
    OpenRecord r;
    r.time = ClockFrom(j);
    r.seq = j.value("seq", std::uint64_t{0});
    r.lun = j.value("lun", "");
    r.close = j.value("event", "open") == "close";
    r.flags = ModeFromName(j.value("mode", "rw"));
    r.pid = j.value("pid", 0);
    r.err = j.value("errno", 0);
    return r;
}

WriteRecord WriteFromJson(const Json& j) {
    WriteRecord r;
    r.time = ClockFrom(j);
    r.seq = j.value("seq", std::uint64_t{0});
    r.lun = j.value("lun", "");
    r.pid = j.value("pid", 0);
    r.offset = j.value("offset", std::uint64_t{0});
    r.length = j.value("length", std::size_t{0});
    r.head = HexField(j, "head");
    return r;
}

HeartbeatRecord HeartbeatFromJson(const Json& j) {
    HeartbeatRecord r;
    r.time = ClockFrom(j);
    r.seq = j.value("seq", std::uint64_t{0});
    r.lun = j.value("lun", "");
    r.array = j.value("array", "");
    r.cdb = HexField(j, "cdb");
    r.payload = HexField(j, "payload");
    r.issues = j.value("issues", std::vector<std::string>{});
    return r;
}

UploadAttempt UploadFromJson(const Json& j) {
    UploadAttempt u;
    u.started = ClockFrom(j);
    u.array = j.value("array", "");
    u.index = j.value("index", std::uint64_t{0});
    u.size = j.value("size", 0U);
    u.versions = HexArray<4>(j, "versions");
    u.host_ip = HexArray<16>(j, "host_ip");
    u.ip_type = j.value("ip_type", std::uint8_t{0});
    for (const Json& c : j.value("chunks", Json::array())) {
        u.chunks.push_back(ChunkRecord{c.value("seq", std::uint64_t{0}), c.value("lun", ""),
                                       c.value("offset", std::uint64_t{0}),
                                       c.value("length", std::size_t{0})});
    }
    u.luns = j.value("luns", std::vector<std::string>{});
    u.issues = j.value("issues", std::vector<std::string>{});
    u.received = j.value("received", std::uint64_t{0});
    u.complete = j.value("complete", false);
    u.has_offset0 = std::any_of(u.chunks.begin(), u.chunks.end(),
                                [](const ChunkRecord& c) { return c.offset == 0; });
    return u;
}

}  // namespace vnarray
