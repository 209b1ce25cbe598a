// SPDX-License-Identifier: Apache-2.0
//
// Suggestions for misspelt words. Thread-safe: no state.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace telvora {

// The candidate that differs least from `word`, in letters that are inserted, removed, replaced or exchanged
// with their neighbour; the case of ASCII letters does not count. std::nullopt if every candidate differs in
// more than a third of its letters, and for a word of more than 64 bytes.
std::optional<std::string_view> nearestWord(std::string_view word,
                                            std::span<const std::string_view> candidates);

// "; did you mean X?", or an empty text without such a candidate.
std::string suggestion(std::string_view word, std::span<const std::string_view> candidates);

}  // namespace telvora
