// SPDX-License-Identifier: Apache-2.0
//
// The front of the system log: a level check and printf formatting. Where the lines go is platform/log.h's
// business.
//
// The log is the one process-wide facility here, as syslog(3) itself is: its lines come from plain functions
// at the very bottom of the program, and handing a log object through every one of them would hide what they
// are about. Everything in this header may be called from any thread.
#pragma once

#include <atomic>
#include <string_view>

namespace telvora {

// The numeric levels of syslog(3) that the daemon uses.
enum LogLevel : int { kLogError = 3, kLogWarning = 4, kLogInfo = 6, kLogDebug = 7 };

// Takes one finished line; `line` lives for the call only. May be called from several threads at once.
using LogSink = void (*)(int level, std::string_view line);

namespace detail {
extern std::atomic<int> logThreshold;
}

// Whether lines of this level are sent at all.
inline bool logEnabled(int level) {
    return level <= detail::logThreshold.load(std::memory_order_relaxed);
}

// Lines above this level are neither formatted nor sent. The initial threshold is kLogInfo.
void setLogThreshold(int level);

// Replaces the sink (null: lines are dropped, which is also the initial state).
void setLogSink(LogSink sink);

// Says whether a line above the debug level is sent.
class LogAdmission {
  public:
    // Whether one more line of this level is sent. What it logs itself is nobody's. Called from any thread.
    virtual bool admitsLine(int level) = 0;

  protected:
    ~LogAdmission() = default;
};

// While it exists, what this thread logs above the debug level has to be admitted; null: all of it is. Scopes
// nest: the innermost counts.
class LogScope {
  public:
    explicit LogScope(LogAdmission* admission);  // outlives the scope
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

  private:
    LogAdmission* const outer_;
};

// Formats and sends one line, whatever its level, if it is admitted. Control characters and bytes that are no
// UTF-8 are written as \xNN, so that text from outside can't forge a second line; one trailing line feed is
// kept.
void logLine(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace telvora

// The arguments are evaluated only when the level is on.
#define TELVORA_LOG(level, ...)                                                     \
    do {                                                                            \
        if (::telvora::logEnabled(level)) ::telvora::logLine((level), __VA_ARGS__); \
    } while (false)
