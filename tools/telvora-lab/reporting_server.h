// SPDX-License-Identifier: Apache-2.0
//
// ReportingServer: receives the events that the daemon posts to /events and /realtime, checks each message,
// and stores or counts the events.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/http_client.h"
#include "plist/property_list.h"
#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/named_values.h"
#include "telvora-lab/session_tree.h"
#include "util/mutex.h"

namespace telvora::lab {

enum class ReportingFault {
    none,
    notFound,            // 404
    serviceUnavailable,  // 503
    noAnswer,            // the connection ends before the answer
    reset,               // the connection is reset before the answer
    halfAnswer,          // the connection ends in the middle of the answer
    slow,                // the answer takes 5 s
    hold                 // the answer waits for releaseHeld()
};

// Named as they are written above.
template <>
NamedValues<ReportingFault> namedValues<ReportingFault>();

struct ReceivedMessage {
    std::string path;  // "/events" or "/realtime"
    HttpHeaders headers;
    double postTime = 0;  // seconds since 1970, according to the client
    std::string clientId;
    std::vector<Dictionary> events;

    // The value of the first header of that name, compared without regard to case, or `std::nullopt`.
    std::optional<std::string> header(std::string_view name) const;
};

struct ReportingServerOptions {
    // If not empty, events are not stored. The server only counts the unsigned numbers under this key. For
    // measurements.
    std::string countByKey;
    size_t connections = 16;
    size_t requestsPerConnection = 1000000;  // then the server closes it
    // How many events messages() and events() keep; the oldest messages leave first.
    size_t keptEvents = SIZE_MAX;
};

class ReportingServer {
  public:
    // `pki` must outlive the server.
    explicit ReportingServer(const LabPki& pki, ReportingServerOptions options = {},
                             const Hosting& hosting = {});
    ~ReportingServer();

    std::string eventsURL() const { return server_.origin() + "/events"; }
    std::string realtimeURL() const { return server_.origin() + "/realtime"; }
    int port() const { return server_.port(); }
    bool listening() const { return server_.port() != 0; }

    // Sets the fault of all further answers. Messages are still received.
    void setFault(ReportingFault fault);
    ReportingFault fault() const;
    // Releases the answers that ReportingFault::hold holds.
    void releaseHeld();
    // Refuses connections until accept(); returns when the port is closed.
    void refuse() { server_.stop(); }
    bool accept() { return server_.restart(); }

    // Events that arrived so far, with repetitions. With countByKey, only those that have a number.
    size_t eventCount() const;
    size_t messageCount() const;
    // With countByKey: the count of different numbers, and the count of events with a repeated number.
    size_t distinctCount() const;
    size_t duplicateCount() const;
    // Without countByKey: the kept events, in the order of arrival, and the sessions that they belong to.
    std::vector<ReceivedMessage> messages() const;
    std::vector<Dictionary> events() const;
    std::vector<SessionNode> sessions() const;
    // The errors of malformed messages, one line each, 1000 at most. Empty if there are none.
    std::vector<std::string> problems() const;

    // Waits until so many events (messages) have arrived. False if `timeout` passes first.
    bool waitForEvents(size_t count, std::chrono::milliseconds timeout) const;
    bool waitForMessages(size_t count, std::chrono::milliseconds timeout) const;

  private:
    ServerResponse handle(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);
    void keep(const ServerRequest& request, ReportingFault fault) TELVORA_EXCLUDES(mutex_);
    void store(ReceivedMessage message) TELVORA_REQUIRES(mutex_);
    void complain(std::string problem) TELVORA_REQUIRES(mutex_);
    void count(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);

    const ReportingServerOptions options_;
    Feed* const feed_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    ReportingFault fault_ TELVORA_GUARDED_BY(mutex_) = ReportingFault::none;
    std::deque<ReceivedMessage> messages_ TELVORA_GUARDED_BY(mutex_);
    size_t keptEvents_ TELVORA_GUARDED_BY(mutex_) = 0;
    SessionTree sessions_ TELVORA_GUARDED_BY(mutex_);
    std::vector<std::string> problems_ TELVORA_GUARDED_BY(mutex_);
    std::vector<bool> seen_ TELVORA_GUARDED_BY(mutex_);
    size_t messageCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    size_t eventCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    size_t distinctCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    uint64_t releases_ TELVORA_GUARDED_BY(mutex_) = 0;
    HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::lab
