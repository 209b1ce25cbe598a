// SPDX-License-Identifier: Apache-2.0
//
// LineCollector: reads a pipe on its own thread and stores the lines.
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

namespace telvora::test {

// All operations are callable from any thread.
class LineCollector {
  public:
    // Reads `pipe` until every writer has closed it.
    explicit LineCollector(UniqueFd pipe);
    // Joins the reader: the writers must have closed the pipe.
    ~LineCollector();
    LineCollector(const LineCollector&) = delete;
    LineCollector& operator=(const LineCollector&) = delete;

    std::vector<std::string> lines() const;
    // All lines, once the pipe has ended. Waits for that until `timeout` passes.
    std::vector<std::string> linesToTheEnd(std::chrono::milliseconds timeout) const;
    size_t lineCount() const;

    using Predicate = std::function<bool(std::string_view line)>;
    // The first line from position `from` on that satisfies `wanted`. Waits for it until `timeout` passes or
    // the pipe ends; then `std::nullopt`.
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

}  // namespace telvora::test
