// SPDX-License-Identifier: Apache-2.0
#include "util/log.h"

#include <cstdarg>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "util/utf8.h"

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

std::string escaped(std::string_view line) {
    const bool ended = line.ends_with('\n');
    if (ended) line.remove_suffix(1);
    std::string text = escapeControlCharacters(line);
    if (ended) text.push_back('\n');
    return text;
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

    // Without memory, the line is lost: the caller's work does not depend on it.
    try {
        std::string line;
        if (length >= 0 && static_cast<size_t>(length) < sizeof shortLine) {
            line = escaped({shortLine, static_cast<size_t>(length)});
        } else if (length > 0) {
            std::string whole(static_cast<size_t>(length) + 1, '\0');
            std::vsnprintf(whole.data(), whole.size(), format, again);
            whole.pop_back();
            line = escaped(whole);
        }
        sink(level, line);
    } catch (const std::bad_alloc&) {
    }
    va_end(again);
}

}  // namespace telvora
