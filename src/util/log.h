// SPDX-License-Identifier: Apache-2.0
//
// The interface of the system log: a level check and printf formatting. platform/system_log.h sets where the
// lines go.
//
// The log is process-wide, as syslog(3) is: functions at the lowest level of the program log, and passing a
// log object through all of them would obscure their purpose. All operations are callable from any thread.
#pragma once

#include <atomic>
#include <string_view>

namespace telvora {

// The numeric levels of syslog(3) that the daemon uses.
enum LogLevel : int { kLogError = 3, kLogWarning = 4, kLogInfo = 6, kLogDebug = 7 };

// Receives one formatted line, which lives for the call only. May be called from several threads at once.
using LogSink = void (*)(int level, std::string_view line);

namespace detail {
extern std::atomic<int> logThreshold;
}

inline bool logEnabled(int level) {
    return level <= detail::logThreshold.load(std::memory_order_relaxed);
}

// Lines above this level are neither formatted nor sent. The initial threshold is kLogInfo.
void setLogThreshold(int level);

// Replaces the sink (null: lines are dropped, which is also the initial state).
void setLogSink(LogSink sink);

// Decides whether a line above the debug level is sent.
class LogAdmission {
  public:
    // Whether one more line of this level is sent. Lines that it logs itself are always sent. Called from any
    // thread.
    virtual bool admitsLine(int level) = 0;

  protected:
    ~LogAdmission() = default;
};

// For a scope, asks `admission` about each line that this thread logs above the debug level; null: all lines
// are sent. Scopes nest: the innermost applies.
class LogScope {
  public:
    explicit LogScope(LogAdmission* admission);  // must outlive the scope
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

  private:
    LogAdmission* const outer_;
};

// Formats and sends one line of any level, if it is admitted. Control characters and bytes that are no UTF-8
// are written as \xNN, so that text from outside can't forge a second line; one trailing line feed is kept.
void logLine(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace telvora

// The arguments are evaluated only when the level is on.
#define TELVORA_LOG(level, ...)                                                     \
    do {                                                                            \
        if (::telvora::logEnabled(level)) ::telvora::logLine((level), __VA_ARGS__); \
    } while (false)
