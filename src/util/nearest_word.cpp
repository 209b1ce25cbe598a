// SPDX-License-Identifier: Apache-2.0
#include "util/nearest_word.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "util/ascii.h"

namespace telvora {

namespace {

constexpr size_t kMostBytes = 64;

// The distance of Damerau and Levenshtein in which no letter is changed twice.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> beforeLast(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
    std::iota(last.begin(), last.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const char x = asciiLowerCase(a[i - 1]);
            const char y = asciiLowerCase(b[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (x == y ? 0U : 1U)});
            if (i > 1 && j > 1 && x == asciiLowerCase(b[j - 2]) && y == asciiLowerCase(a[i - 2])) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
        beforeLast.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

}  // namespace

std::optional<std::string_view> nearestWord(std::string_view word,
                                            std::span<const std::string_view> candidates) {
    if (word.size() > kMostBytes) return std::nullopt;
    std::optional<std::string_view> nearest;
    size_t least = kMostBytes;
    for (const std::string_view candidate : candidates) {
        const size_t differences = distance(word, candidate);
        if (differences >= least || differences > candidate.size() / 3) continue;
        least = differences;
        nearest = candidate;
    }
    return nearest;
}

std::string suggestion(std::string_view word, std::span<const std::string_view> candidates) {
    const auto nearest = nearestWord(word, candidates);
    return nearest ? "; did you mean " + std::string(*nearest) + "?" : std::string();
}

}  // namespace telvora
