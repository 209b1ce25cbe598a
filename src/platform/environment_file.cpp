// SPDX-License-Identifier: Apache-2.0
#include "platform/environment_file.h"

#include <algorithm>
#include <utility>

#include "util/ascii.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

std::string unquoted(std::string_view text) {
    std::string value;
    char quote = '\0';
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == quote) {
            quote = '\0';
        } else if (quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == '\\' && quote != '\'' && i + 1 < text.size()) {
            value.push_back(text[++i]);
        } else {
            value.push_back(c);
        }
    }
    return value;
}

bool isName(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

}  // namespace

std::optional<std::string> readSmallFile(const std::filesystem::path& path, size_t limit) {
    auto content = readRegularFile(path, limit);
    return content ? std::optional(std::move(*content)) : std::nullopt;
}

std::map<std::string, std::string, std::less<>> readEnvironmentFile(const std::filesystem::path& path) {
    std::map<std::string, std::string, std::less<>> assignments;
    const std::string content = readSmallFile(path).value_or("");
    std::string_view rest = content;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = trimmed(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos || !isName(line.substr(0, equals))) continue;
        assignments.insert_or_assign(std::string(line.substr(0, equals)), unquoted(line.substr(equals + 1)));
    }
    return assignments;
}

}  // namespace telvora
