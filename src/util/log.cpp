// SPDX-License-Identifier: Apache-2.0
#include "util/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

namespace telvora {

namespace detail {
std::atomic<int> logThreshold{kLogInfo};
}

namespace {

std::atomic<LogSink> currentSink{nullptr};
thread_local LogAdmission* currentAdmission = nullptr;

bool isAdmitted(int level) {
    LogAdmission* const admission = currentAdmission;
    if (admission == nullptr || level >= kLogDebug) return true;
    const LogScope nobody(nullptr);
    return admission->admitsLine(level);
}

std::string escapeControlCharacters(std::string_view line) {
    std::string escaped;
    escaped.reserve(line.size());
    for (size_t i = 0; i < line.size(); ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        const bool trailingLineFeed = c == '\n' && i + 1 == line.size();
        if ((c >= 0x20 && c != 0x7f) || trailingLineFeed) {
            escaped.push_back(static_cast<char>(c));
            continue;
        }
        char code[5];
        std::snprintf(code, sizeof code, "\\x%02x", c);
        escaped += code;
    }
    return escaped;
}

}  // namespace

void setLogThreshold(int level) {
    detail::logThreshold.store(level, std::memory_order_relaxed);
}

void setLogSink(LogSink sink) {
    currentSink.store(sink, std::memory_order_release);
}

LogScope::LogScope(LogAdmission* admission) : outer_(std::exchange(currentAdmission, admission)) {}

LogScope::~LogScope() {
    currentAdmission = outer_;
}

void logLine(int level, const char* format, ...) {
    const LogSink sink = currentSink.load(std::memory_order_acquire);
    if (sink == nullptr || !isAdmitted(level)) return;

    char shortLine[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortLine, sizeof shortLine, format, arguments);
    va_end(arguments);

    std::string line;
    if (length >= 0 && static_cast<size_t>(length) < sizeof shortLine) {
        line = escapeControlCharacters({shortLine, static_cast<size_t>(length)});
    } else if (length > 0) {
        std::string whole(static_cast<size_t>(length) + 1, '\0');
        std::vsnprintf(whole.data(), whole.size(), format, again);
        whole.pop_back();
        line = escapeControlCharacters(whole);
    }
    va_end(again);
    sink(level, line);
}

}  // namespace telvora
