// SPDX-License-Identifier: Apache-2.0
#include "plist/json_number.h"

#include <algorithm>
#include <charconv>

#include "util/time_value.h"

namespace telvora {

JsonReal::JsonReal(double value) {
    char* end =
        std::to_chars(text_.data(), text_.data() + text_.size() - 2, TelvoradUtil::sanitizeNumber(value)).ptr;
    if (std::all_of(text_.data(), end, [](char c) { return (c >= '0' && c <= '9') || c == '-'; })) {
        *end++ = '.';
        *end++ = '0';
    }
    size_ = static_cast<size_t>(end - text_.data());
}

std::optional<std::string> jsonNumberText(const PropertyList& value) {
    const auto textOf = [](double number) {
        const JsonReal text(number);
        return std::string(text.data(), text.size());
    };
    if (const auto* boolean = value.getIf<bool>()) return *boolean ? "true" : "false";
    if (const auto* integer = value.getIf<int64_t>()) return std::to_string(*integer);
    if (const auto* integer = value.getIf<uint64_t>()) return std::to_string(*integer);
    if (const auto* real = value.getIf<double>()) return textOf(*real);
    if (const auto* date = value.getIf<Date>()) return textOf(date->seconds);
    return std::nullopt;
}

}  // namespace telvora
