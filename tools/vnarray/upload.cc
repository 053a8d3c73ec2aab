// What the array checks and keeps of the data-out commands: heartbeats,
// and write-buffer chunks reassembled into archives per upload attempt.
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

using internal::Be32;
using internal::Be64;
using internal::Hex8;
namespace {

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

}  // namespace vnarray
