// SPDX-License-Identifier: Apache-2.0
//
// LineCollector: reads a pipe on its own thread and keeps the lines, for those who wait for one.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora::lab {

// All operations are callable from any thread.
class LineCollector {
  public:
    // Reads from `pipe` until its end, which comes when every writer has closed it.
    explicit LineCollector(UniqueFd pipe);
    // Joins the reader: the writers must be gone.
    ~LineCollector();
    LineCollector(const LineCollector&) = delete;
    LineCollector& operator=(const LineCollector&) = delete;

    std::vector<std::string> lines() const;
    // All of them, once the pipe has ended; waits for that until `timeout` is over.
    std::vector<std::string> linesToTheEnd(std::chrono::milliseconds timeout) const;
    size_t lineCount() const;

    using Predicate = std::function<bool(std::string_view line)>;
    // The first line from position `from` on that fulfils `wanted`; waits for it until `timeout` is over or
    // the pipe ends, then nothing.
    std::optional<std::string> waitFor(const Predicate& wanted, std::chrono::milliseconds timeout,
                                       size_t from = 0) const;

  private:
    void read();

    UniqueFd pipe_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::vector<std::string> lines_ TELVORA_GUARDED_BY(mutex_);
    bool ended_ TELVORA_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace telvora::lab
