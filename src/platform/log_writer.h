// SPDX-License-Identifier: Apache-2.0
//
// LogWriter: writes log lines to a descriptor, and never waits for its reader. A line that can't be written
// at once is kept in a bounded buffer, and a thread writes it when the reader goes on. A line that finds the
// buffer full is dropped and counted; a line of its own has the number, where the dropped ones would stand.
//
// The thread is started at the first need, and only after allowThread(): a thread that exists before the
// process is confined would stay unconfined. Without it, the next line or stop() writes the buffer.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora {

// All operations are callable from any thread.
class LogWriter {
  public:
    struct Target {
        UniqueFd fd;
        bool isSocket = false;
        bool isDatagram = false;
        bool mayWait = false;  // a write could wait for the reader
    };
    // Makes a record of a line.
    using Format = std::function<std::string(int level, std::string_view line)>;
    // Opens the target again after its reader has left. Empty: the line is lost.
    using Reopen = std::function<Target()>;

    static constexpr size_t kMaxBytes = size_t{256} << 10;  // of records in the buffer
    static constexpr int kStopMilliseconds = 500;           // the longest wait of stop() for the reader

    LogWriter(Target target, Format format, Reopen reopen = nullptr);
    ~LogWriter() { stop(); }

    void write(int level, std::string_view line) TELVORA_EXCLUDES(lock_);
    void allowThread() TELVORA_EXCLUDES(lock_);
    // Ends the thread, and writes the buffer if the reader takes it in time. Later lines are dropped.
    void stop() TELVORA_EXCLUDES(lock_);

  private:
    enum class Outcome { written, wouldWait, failed };
    struct Record {
        std::string bytes;
        uint64_t lines = 1;  // that are missing if the record is
    };

    void enqueue(Record record) TELVORA_REQUIRES(lock_);
    void enqueueDropped() TELVORA_REQUIRES(lock_);
    void flush() TELVORA_REQUIRES(lock_);
    Outcome writeFirst() TELVORA_REQUIRES(lock_);
    ssize_t send(std::string_view bytes) const TELVORA_REQUIRES(lock_);
    void run();
    void waitUntilWritable(int milliseconds) const TELVORA_EXCLUDES(lock_);

    const Format format_;
    const Reopen reopen_;
    mutable Mutex lock_{LockRank::log};
    Target target_ TELVORA_GUARDED_BY(lock_);
    std::deque<Record> records_ TELVORA_GUARDED_BY(lock_);
    size_t bytes_ TELVORA_GUARDED_BY(lock_) = 0;    // of the records
    size_t written_ TELVORA_GUARDED_BY(lock_) = 0;  // bytes of the first record that the reader has
    uint64_t dropped_ TELVORA_GUARDED_BY(lock_) = 0;
    bool threadAllowed_ TELVORA_GUARDED_BY(lock_) = false;
    bool stopped_ TELVORA_GUARDED_BY(lock_) = false;
    std::thread thread_ TELVORA_GUARDED_BY(lock_);
    std::condition_variable_any changed_;
};

}  // namespace telvora
