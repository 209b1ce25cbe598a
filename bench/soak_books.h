// SPDX-License-Identifier: Apache-2.0
//
// Books: a reporting server that records the numbers of the reports that it received, and how many events it
// answered in which manner. Every third message gets the current fault.
//
// All operations are callable from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "util/mutex.h"

namespace telvora::bench {

// Reports are numbered from 2^24 times the number of their client.
constexpr int kClientShift = 24;
// The reports of this category are not on the lists of some bags.
constexpr uint16_t kListedCategory = 4;
inline uint16_t categoryOf(uint64_t number) {
    return static_cast<uint16_t>(1 + number % kListedCategory);
}

enum class ServerFault { none, notFound, serverError, noAnswer, reset, halfAnswer, drip };
inline constexpr ServerFault kServerFaults[] = {ServerFault::notFound,   ServerFault::serverError,
                                                ServerFault::noAnswer,   ServerFault::reset,
                                                ServerFault::halfAnswer, ServerFault::drip};

// The events that arrived since the page began, the daemon's own included, by the outcome that the daemon has
// to record.
struct Page {
    uint64_t delivered = 0, rejected = 0, serverError = 0, noAnswer = 0;
    uint64_t numbered = 0;  // reports of clients, except those of kListedCategory
};

class Books {
  public:
    // `pki` outlives the server. Throws std::runtime_error if the server can't listen.
    explicit Books(const lab::LabPki& pki);

    std::string url() const { return server_.origin() + "/events"; }
    void setFault(ServerFault fault) TELVORA_EXCLUDES(lock_);
    // Refuses connections until accept(). Both wait for the answers that are under way.
    void refuse();
    void accept();
    // Waits for the answers that are under way, and begins a page.
    void beginPage() TELVORA_EXCLUDES(lock_);

    Page page() const TELVORA_EXCLUDES(lock_);
    bool received(uint64_t number) const TELVORA_EXCLUDES(lock_);
    // Different reports of clients since the beginning, and those that came again.
    uint64_t receivedCount() const TELVORA_EXCLUDES(lock_);
    uint64_t repeatedCount() const TELVORA_EXCLUDES(lock_);
    // One line for each message that could not be read.
    std::vector<std::string> problems() const TELVORA_EXCLUDES(lock_);

  private:
    lab::ServerResponse handle(const lab::ServerRequest& request) TELVORA_EXCLUDES(lock_);
    void record(uint64_t number) TELVORA_REQUIRES(lock_);

    mutable Mutex lock_;
    ServerFault fault_ TELVORA_GUARDED_BY(lock_) = ServerFault::none;
    uint64_t messages_ TELVORA_GUARDED_BY(lock_) = 0;
    Page page_ TELVORA_GUARDED_BY(lock_);
    std::unordered_map<uint64_t, std::vector<bool>> numbers_ TELVORA_GUARDED_BY(lock_);  // by client
    uint64_t received_ TELVORA_GUARDED_BY(lock_) = 0;
    uint64_t repeated_ TELVORA_GUARDED_BY(lock_) = 0;
    std::vector<std::string> problems_ TELVORA_GUARDED_BY(lock_);
    const std::shared_ptr<const void> dripping_ = std::make_shared<int>();  // held by each answer that drips
    lab::HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::bench
