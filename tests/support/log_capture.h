// SPDX-License-Identifier: Apache-2.0
//
// Collects the log lines of a scope, each as "<level>text", the daemon's format for the journal.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "util/log.h"

namespace telvora::test {

// One at a time. All levels are on while it exists.
class LogCapture {
  public:
    LogCapture() {
        clear();
        setLogThreshold(kLogDebug);
        setLogSink([](int level, std::string_view line) {
            const std::lock_guard lock(mutex);
            collected.push_back("<" + std::to_string(level) + ">" + std::string(line));
        });
    }
    ~LogCapture() {
        setLogSink(nullptr);
        setLogThreshold(kLogInfo);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        const std::lock_guard lock(mutex);
        return collected;
    }
    // The number of lines that equal `line`.
    size_t count(std::string_view line) const {
        const std::vector<std::string> all = lines();
        return static_cast<size_t>(std::count(all.begin(), all.end(), line));
    }
    bool contains(std::string_view line) const { return count(line) > 0; }
    void clear() {
        const std::lock_guard lock(mutex);
        collected.clear();
    }

  private:
    static inline std::mutex mutex;
    static inline std::vector<std::string> collected;
};

}  // namespace telvora::test
