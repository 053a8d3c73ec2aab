// A byte arena with a recognisable pattern. Tests place the destination
// (and, for overlap cases, the source) inside it, state which bytes the call
// may change, and compare the whole arena afterwards: any write outside the
// destination's allowed bytes shows up as a mismatch.
#ifndef HIC_TESTS_BOUNDED_ARENA_H
#define HIC_TESTS_BOUNDED_ARENA_H

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace hic::test {

class Arena {
  public:
    static constexpr std::ptrdiff_t kSize = 256;
    static constexpr std::ptrdiff_t kDest = 96;  // offset of the destination

    Arena() {
        for (std::ptrdiff_t i = 0; i < kSize; ++i) {
            bytes_[i] = Pattern(i);
        }
        expected_ = bytes_;
    }

    // Pattern bytes are printable and never NUL.
    static char Pattern(std::ptrdiff_t i) { return static_cast<char>('A' + i % 23); }

    char* Dest() { return At(0); }
    // A position relative to the destination.
    char* At(std::ptrdiff_t offset) { return bytes_.data() + kDest + offset; }

    // Puts bytes at a position before the call, in the arena and in the
    // expected image alike.
    void Set(std::ptrdiff_t offset, std::string_view data) {
        std::memcpy(At(offset), data.data(), data.size());
        std::memcpy(expected_.data() + kDest + offset, data.data(), data.size());
    }

    // The bytes the call is expected to leave at a position.
    void Expect(std::ptrdiff_t offset, std::string_view data) {
        std::memcpy(expected_.data() + kDest + offset, data.data(), data.size());
    }

    ::testing::AssertionResult Matches() const { return MatchesOutside(0); }

    // Like Matches, but the first n bytes of the destination may hold
    // anything (scratch left by a failed call).
    ::testing::AssertionResult MatchesOutside(std::ptrdiff_t n) const {
        for (std::ptrdiff_t i = 0; i < kSize; ++i) {
            if (i >= kDest && i < kDest + n) {
                continue;
            }
            if (bytes_[i] != expected_[i]) {
                return ::testing::AssertionFailure()
                       << "byte at dest" << (i - kDest >= 0 ? "+" : "") << (i - kDest) << " is 0x"
                       << std::hex << (bytes_[i] & 0xFF) << ", expected 0x"
                       << (expected_[i] & 0xFF);
            }
        }
        return ::testing::AssertionSuccess();
    }

  private:
    std::array<char, kSize> bytes_{};
    std::array<char, kSize> expected_{};
};

}  // namespace hic::test

#endif  // HIC_TESTS_BOUNDED_ARENA_H
