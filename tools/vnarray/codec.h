// JSON forms of the model's configuration, faults and records: the start-up
// configuration file, the control socket and the client library share them.
//
// Configuration file (vnarray --config FILE):
// {
//   "arrays": [
//     { "sn": "ARRAY0001",           // page 0x80 serial number, at most 20 bytes
//       "id": "a1",                  // optional handle for LUNs and commands; default: sn
//       "name": "array-one",         // page 0xC8 array name, at most 99 bytes
//       "major": 3, "minor": 0,      // page 0xC0 software version (default 3.0)
//       "switch": 0,                 // collect switch byte answered to 0xC7
//       "collect_version": "00000000" }  // 4 bytes in hex
//   ],
//   "luns": [
//     { "dev": "sdb",                // device name: /dev/sdb and /sys/block/sdb
//       "array": "ARRAY0001",        // array id; omit for a LUN of no served array
//       "vendor": "TRELOX", "product": "VDISK", "revision": "0001",
//       "name": "lun-b",             // short name (40 bytes)
//       "long_name": "",             // long name (256 bytes)
//       "name_selector": 0,          // page 0xC8 bytes 206-207; default 1 when long_name is set
//       "wwn": "6000...",            // 16 bytes in hex; default derived from dev and array
//       "serial": "...",             // text, or {"hex": "..."}: overrides the array's sn
//       "array_name": "...",         // text, or {"hex": "..."}: overrides the array's name
//       "pages": { "80": "hex", "c0": null },  // whole pages ("std" = standard data);
//                                               // null = the page is not supported
//       "patches": [ { "page": "c8", "offset": 106, "hex": "05414200434400" } ] }
//   ]
// }
//
// Fault (control command "inject", every field optional):
// { "lun": "sdb" | "*", "kind": "any|open|inquiry|std|pageNN|c7|c9|ca|opNN",
//   "errno": 5 | "EIO", "status": 2, "host_status": 7, "driver_status": 8,
//   "sense": "hex", "delay_ms": 50, "after": 0, "count": 0 }
// Numbers may also be given as strings ("0x02", "7"), as the command-line
// client sends them.
#ifndef VNARRAY_CODEC_H
#define VNARRAY_CODEC_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include "model.h"

namespace vnarray {

using Json = nlohmann::json;

bool ParseArrayConf(const Json& j, ArrayConf* out, std::string* error);
bool ParseLunConf(const Json& j, LunConf* out, std::string* error);
bool ParseFaultConf(const Json& j, FaultConf* out, std::string* error);
// Adds every array and LUN of a configuration document to the model.
bool LoadConfig(const Json& j, Model* model, std::string* error);

// Lenient field readers: a number, or a string strtoll understands (base 0).
std::optional<std::int64_t> ReadInt(const Json& j, const char* key, std::int64_t lo,
                                    std::int64_t hi, std::string* error);
std::optional<Version> ReadVersion(const Json& j, const char* key, std::string* error);
// errno as a number or a name ("EIO", "ENODEV", ...).
std::optional<int> ParseErrno(const Json& v);
std::string ErrnoName(int err);

Json ToJson(const ArrayState& a);
Json ToJson(const LunInfo& l);
Json ToJson(const Fault& f);
Json ToJson(const CommandRecord& r, bool with_data = true);
Json ToJson(const OpenRecord& r);
Json ToJson(const WriteRecord& r);
Json ToJson(const HeartbeatRecord& r);
Json ToJson(const UploadAttempt& u);  // without the archive bytes

CommandRecord CommandFromJson(const Json& j);
OpenRecord OpenFromJson(const Json& j);
WriteRecord WriteFromJson(const Json& j);
HeartbeatRecord HeartbeatFromJson(const Json& j);
UploadAttempt UploadFromJson(const Json& j);

}  // namespace vnarray

#endif  // VNARRAY_CODEC_H
