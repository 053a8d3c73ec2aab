// Faults: which commands they cover, how they are matched and kept.
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
    // The byte written in two hex digits after prefix ("page80", "opc7").
    const auto suffix_byte = [&](const std::string& prefix) -> std::optional<std::uint8_t> {
        return t.rfind(prefix, 0) == 0 ? hex_byte(t.substr(prefix.size())) : std::nullopt;
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
    } else if (const auto page = suffix_byte("page")) {
        k.type = Type::kPage;
        k.page = *page;
    } else if (const auto op =
                   (t == "c7" || t == "c9" || t == "ca") ? hex_byte(t) : suffix_byte("op")) {
        k.type = Type::kOpcode;
        k.opcode = *op;
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

Fault* Model::MatchFaultLocked(const std::string& dev, const FaultKind& kind) {
    for (Fault& f : faults_) {
        const FaultConf& s = f.conf;
        if (s.lun != "*" && s.lun != dev) {
            continue;
        }
        if (kind.type == FaultKind::Type::kOpen) {
            if (s.kind.type != FaultKind::Type::kOpen) {
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

}  // namespace vnarray
