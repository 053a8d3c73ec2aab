// The control requests, one small handler each, found by name in a table.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "server.h"

namespace vnarray {
namespace {

struct Request {
    Model& model;
    Installer& installer;
    const Json& json;
    bool* quit;
};

Json Error(const std::string& text) {
    return {{"ok", false}, {"error", text}};
}

Json Ok(Json j = Json::object()) {
    j["ok"] = true;
    return j;
}

std::string StringField(const Json& j, const char* key) {
    auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The "array" field, or the only array there is.
std::string ResolveArray(const Request& r, std::string* error) {
    std::string id = StringField(r.json, "array");
    if (!id.empty()) {
        return id;
    }
    const auto arrays = r.model.Arrays();
    if (arrays.size() == 1) {
        return arrays.front().conf.id;
    }
    *error = "name the array";
    return {};
}

// The records whose field (by the getter) matches the request's filter field.
template <typename Record, typename Field>
Json Filtered(const std::vector<Record>& records, const Json& request, const char* key,
              Field field) {
    const std::string want = StringField(request, key);
    Json list = Json::array();
    for (const Record& r : records) {
        if (want.empty() || field(r) == want) {
            list.push_back(ToJson(r));
        }
    }
    return list;
}

Json Ping(Request&) {
    return Ok();
}

Json Quit(Request& r) {
    *r.quit = true;
    return Ok();
}

Json State(Request& r) {
    Json arrays = Json::array();
    for (const ArrayState& a : r.model.Arrays()) {
        arrays.push_back(ToJson(a));
    }
    Json luns = Json::array();
    for (const LunInfo& l : r.model.Luns()) {
        luns.push_back(ToJson(l));
    }
    Json faults = Json::array();
    for (const Fault& f : r.model.Faults()) {
        faults.push_back(ToJson(f));
    }
    return Ok({{"arrays", arrays}, {"luns", luns}, {"faults", faults}});
}

// raise-switch (switch 1 and a version) and set-switch (any switch value).
Json SetSwitch(Request& r, bool raise) {
    std::string error;
    const std::string array = ResolveArray(r, &error);
    if (array.empty()) {
        return Error(error);
    }
    auto version = ReadVersion(r.json, "version", &error);
    std::optional<std::int64_t> state = 1;
    if (!raise) {
        state = ReadInt(r.json, "switch", 0, 255, &error);
    }
    if (!error.empty()) {
        return Error(error);
    }
    if (!state || (raise && !version)) {
        return Error(raise ? "raise-switch needs version" : "set-switch needs switch");
    }
    if (!r.model.SetSwitch(array, static_cast<std::uint8_t>(*state), version, &error)) {
        return Error(error);
    }
    return Ok();
}

Json RaiseSwitch(Request& r) {
    return SetSwitch(r, true);
}

Json SetSwitchValue(Request& r) {
    return SetSwitch(r, false);
}

Json SetVersion(Request& r) {
    std::string error;
    const std::string array = ResolveArray(r, &error);
    auto major = ReadInt(r.json, "major", 0, 255, &error);
    auto minor = ReadInt(r.json, "minor", 0, 255, &error);
    if (array.empty() || !major || !minor) {
        return Error(error.empty() ? "set-version needs major and minor" : error);
    }
    if (!r.model.SetArrayVersion(array, static_cast<std::uint8_t>(*major),
                                 static_cast<std::uint8_t>(*minor), &error)) {
        return Error(error);
    }
    return Ok();
}

Json AddLun(Request& r) {
    std::string error;
    LunConf conf;
    auto it = r.json.find("lun");
    if (!ParseLunConf(it != r.json.end() && it->is_object() ? *it : r.json, &conf, &error)) {
        return Error(error);
    }
    const std::string dev = conf.dev;
    if (!r.model.AddLun(std::move(conf), &error)) {
        return Error(error);
    }
    if (!r.installer.Install(dev, &error)) {
        std::string ignored;
        r.model.RemoveLun(dev, &ignored);
        return Error(error);
    }
    return Ok();
}

Json RemoveLun(Request& r) {
    std::string error;
    const std::string dev = StringField(r.json, "dev");
    if (!r.model.FindLun(dev)) {
        return Error("unknown LUN '" + dev + "'");
    }
    const bool uninstalled = r.installer.Uninstall(dev, &error);
    r.model.RemoveLun(dev, &error);
    return uninstalled ? Ok() : Error(error);
}

Json Inject(Request& r) {
    std::string error;
    FaultConf conf;
    if (!ParseFaultConf(r.json, &conf, &error)) {
        return Error(error);
    }
    if (conf.lun != "*" && !r.model.FindLun(conf.lun)) {
        return Error("unknown LUN '" + conf.lun + "'");
    }
    return Ok({{"id", r.model.AddFault(conf)}});
}

Json Clear(Request& r) {
    std::string error;
    auto id = ReadInt(r.json, "id", 1, INT64_MAX, &error);
    if (!error.empty()) {
        return Error(error);
    }
    if (id) {
        return r.model.ClearFault(static_cast<std::uint64_t>(*id))
                   ? Ok({{"cleared", 1}})
                   : Error("no fault " + std::to_string(*id));
    }
    return Ok({{"cleared", r.model.ClearFaults(StringField(r.json, "lun"))}});
}

Json Commands(Request& r) {
    std::string error;
    const std::string lun = StringField(r.json, "lun");
    std::optional<FaultKind> kind;
    if (r.json.contains("kind")) {
        kind = FaultKind::Parse(StringField(r.json, "kind"));
        if (!kind) {
            return Error("unknown kind");
        }
    }
    const auto since = ReadInt(r.json, "since", 0, INT64_MAX, &error).value_or(0);
    const bool data = ReadInt(r.json, "data", 0, 1, &error).value_or(1) != 0;
    if (!error.empty()) {
        return Error(error);
    }
    Json list = Json::array();
    for (const CommandRecord& c : r.model.Commands()) {
        if (c.seq <= static_cast<std::uint64_t>(since) || (!lun.empty() && c.lun != lun) ||
            (kind && !kind->Covers(KindOfCdb(c.cdb)))) {
            continue;
        }
        list.push_back(ToJson(c, data));
    }
    return Ok({{"commands", list}, {"dropped", r.model.DroppedCommands()}});
}

Json Opens(Request& r) {
    return Ok({{"opens", Filtered(r.model.Opens(), r.json, "lun",
                                  [](const OpenRecord& o) { return o.lun; })}});
}

Json Writes(Request& r) {
    return Ok({{"writes", Filtered(r.model.Writes(), r.json, "lun",
                                   [](const WriteRecord& w) { return w.lun; })}});
}

Json Heartbeats(Request& r) {
    const std::string lun = StringField(r.json, "lun");
    Json list = Json::array();
    for (const Json& hb : Filtered(r.model.Heartbeats(), r.json, "array",
                                   [](const HeartbeatRecord& h) { return h.array; })) {
        if (lun.empty() || hb["lun"] == lun) {
            list.push_back(hb);
        }
    }
    return Ok({{"heartbeats", list}});
}

Json Uploads(Request& r) {
    return Ok({{"uploads", Filtered(r.model.Uploads(), r.json, "array",
                                    [](const UploadAttempt& u) { return u.array; })}});
}

// upload-data answers the bytes in hex, save-upload writes them to a file.
Json UploadBytes(Request& r, bool save) {
    std::string error;
    const std::string array = ResolveArray(r, &error);
    if (array.empty()) {
        return Error(error);
    }
    auto index = ReadInt(r.json, "index", 0, INT64_MAX, &error);
    if (!error.empty()) {
        return Error(error);
    }
    std::optional<UploadAttempt> attempt;
    if (index) {
        attempt = r.model.Upload(array, static_cast<std::uint64_t>(*index));
    } else {
        for (UploadAttempt& u : r.model.Uploads()) {
            if (u.array == array) {
                attempt = std::move(u);
            }
        }
    }
    if (!attempt) {
        return Error("no such upload of array '" + array + "'");
    }
    Json answer = {
        {"index", attempt->index}, {"size", attempt->data.size()}, {"complete", attempt->complete}};
    if (!save) {
        answer["data"] = ToHex(attempt->data);
        return Ok(answer);
    }
    const std::string path = StringField(r.json, "path");
    hic::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (path.empty() || !fd.Valid()) {
        return Error("open " + path + ": " + std::strerror(errno));
    }
    for (std::size_t done = 0; done < attempt->data.size();) {
        const ssize_t n =
            ::write(fd.Get(), attempt->data.data() + done, attempt->data.size() - done);
        if (n <= 0) {
            return Error("write " + path + ": " + std::strerror(errno));
        }
        done += static_cast<std::size_t>(n);
    }
    answer["path"] = path;
    return Ok(answer);
}

Json UploadData(Request& r) {
    return UploadBytes(r, false);
}

Json SaveUpload(Request& r) {
    return UploadBytes(r, true);
}

Json Reset(Request& r) {
    r.model.ResetRecords();
    return Ok();
}

}  // namespace

Json HandleRequest(Model& model, Installer& installer, const Json& request, bool* quit) {
    static const std::map<std::string, Json (*)(Request&)> kHandlers = {
        {"ping", Ping},
        {"quit", Quit},
        {"state", State},
        {"raise-switch", RaiseSwitch},
        {"set-switch", SetSwitchValue},
        {"set-version", SetVersion},
        {"add-lun", AddLun},
        {"remove-lun", RemoveLun},
        {"inject", Inject},
        {"clear", Clear},
        {"commands", Commands},
        {"opens", Opens},
        {"writes", Writes},
        {"heartbeats", Heartbeats},
        {"uploads", Uploads},
        {"upload-data", UploadData},
        {"save-upload", SaveUpload},
        {"reset", Reset},
    };
    if (!request.is_object() || !request.contains("cmd") || !request["cmd"].is_string()) {
        return Error("a request is an object with a \"cmd\"");
    }
    const std::string cmd = request["cmd"].get<std::string>();
    const auto it = kHandlers.find(cmd);
    if (it == kHandlers.end()) {
        return Error("unknown command '" + cmd + "'");
    }
    Request r{model, installer, request, quit};
    return it->second(r);
}

}  // namespace vnarray
