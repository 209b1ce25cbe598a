// SPDX-License-Identifier: Apache-2.0
//
// A fuzz target is one file that defines the two names below. In the preset "fuzz", libFuzzer makes the
// inputs; in all others replay.cpp does, from the corpus. A violated rule ends the process.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace telvora::fuzz {

// Gives the bytes to the code under test and checks the results. The first call gets an empty input.
void tryInput(std::string_view bytes);

// The processor time that any input may take, besides 50 microseconds per byte.
extern const double kMostSeconds;

// Ends the process with the rule's text unless the rule holds.
inline void require(bool holds, const char* rule) {
    if (holds) return;
    std::fprintf(stderr, "violated: %s\n", rule);
    std::abort();
}

// An input that is taken off piece by piece. At its end all pieces are empty.
class Input {
  public:
    explicit Input(std::string_view bytes) : rest_(bytes) {}

    bool empty() const { return rest_.empty(); }
    std::string_view rest() const { return rest_; }
    std::string_view take(size_t size) {
        const std::string_view piece = rest_.substr(0, size);
        rest_.remove_prefix(piece.size());
        return piece;
    }
    uint8_t byte() { return rest_.empty() ? uint8_t{0} : static_cast<uint8_t>(take(1).front()); }
    // Up to the next line feed, which is taken too.
    std::string_view line() {
        const std::string_view text = take(std::min(rest_.find('\n'), rest_.size()));
        take(1);
        return text;
    }

  private:
    std::string_view rest_;
};

}  // namespace telvora::fuzz
