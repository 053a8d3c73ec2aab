// What the model's files share: the state behind Model's private types and
// the byte helpers of the pages, the faults and the upload checks.
#ifndef VNARRAY_MODEL_INTERNAL_H
#define VNARRAY_MODEL_INTERNAL_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "model.h"

namespace vnarray {

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

namespace internal {

// Sense keys and additional sense codes of the array's own refusals.
inline constexpr std::uint8_t kSenseIllegalRequest = 0x05;
inline constexpr std::uint8_t kAscInvalidOpcode = 0x20;
inline constexpr std::uint8_t kAscInvalidFieldInCdb = 0x24;

std::uint64_t Be64(const Bytes& b, std::size_t at);
std::uint32_t Be32(const Bytes& b, std::size_t at);
// "0x%02x".
std::string Hex8(unsigned v);
// A CHECK CONDITION with ILLEGAL REQUEST sense and the given code.
void CheckCondition(SgResponse& r, std::uint8_t asc);

}  // namespace internal
}  // namespace vnarray

#endif  // VNARRAY_MODEL_INTERNAL_H
