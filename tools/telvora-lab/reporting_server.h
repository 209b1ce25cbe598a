// SPDX-License-Identifier: Apache-2.0
//
// ReportingServer: takes the events that the daemon posts to /events and /realtime, checks each message, and
// keeps or counts the events.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/http_client.h"
#include "plist/property_list.h"
#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "util/mutex.h"

namespace telvora::lab {

enum class ReportingFault {
    none,
    notFound,            // 404
    serviceUnavailable,  // 503
    noAnswer,            // the connection ends before the answer
    halfAnswer,          // the connection ends in the middle of the answer
    hold                 // the answer waits for releaseHeld()
};

// The fault of that name as it is written above, or nothing.
std::optional<ReportingFault> reportingFaultNamed(std::string_view name);

struct ReceivedMessage {
    std::string path;  // "/events" or "/realtime"
    HttpHeaders headers;
    double postTime = 0;  // seconds since 1970, as the client tells
    std::string clientId;
    std::vector<Dictionary> events;

    // The value of the first header of that name, compared without regard to case, or nothing.
    std::optional<std::string> header(std::string_view name) const;
};

struct ReportingServerOptions {
    // Not empty: events are not kept; each is known by the unsigned number under this key, and only which
    // numbers came, and how often, is kept. For measurements.
    std::string countByKey;
    size_t connections = 16;
};

class ReportingServer {
  public:
    // `pki` must outlive the server.
    explicit ReportingServer(const LabPki& pki, ReportingServerOptions options = {});
    ~ReportingServer();

    std::string eventsURL() const { return server_.origin() + "/events"; }
    std::string realtimeURL() const { return server_.origin() + "/realtime"; }
    bool listening() const { return server_.port() != 0; }

    // How messages are answered from now on; they are received all the same.
    void setFault(ReportingFault fault);
    // Lets the answers go that ReportingFault::hold holds.
    void releaseHeld();
    // Refuses connections until accept(); returns when the port is closed.
    void refuse() { server_.stop(); }
    bool accept() { return server_.restart(); }

    // Events that arrived so far, each as often as it came; with countByKey, those that have a number.
    size_t eventCount() const;
    size_t messageCount() const;
    // With countByKey: how many different numbers came, and how many events had a number that had come
    // before.
    size_t distinctCount() const;
    size_t duplicateCount() const;
    // Without countByKey: everything that arrived, in order.
    std::vector<ReceivedMessage> messages() const;
    std::vector<Dictionary> events() const;
    // What was wrong with the messages, one line each; empty when all is well.
    std::vector<std::string> problems() const;

    // Whether so many events (messages) have arrived within `timeout`.
    bool waitForEvents(size_t count, std::chrono::milliseconds timeout) const;
    bool waitForMessages(size_t count, std::chrono::milliseconds timeout) const;

  private:
    ServerResponse handle(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);
    void keep(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);
    void count(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);

    const ReportingServerOptions options_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    ReportingFault fault_ TELVORA_GUARDED_BY(mutex_) = ReportingFault::none;
    std::vector<ReceivedMessage> messages_ TELVORA_GUARDED_BY(mutex_);
    std::vector<std::string> problems_ TELVORA_GUARDED_BY(mutex_);
    std::vector<bool> seen_ TELVORA_GUARDED_BY(mutex_);
    size_t messageCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    size_t eventCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    size_t distinctCount_ TELVORA_GUARDED_BY(mutex_) = 0;
    uint64_t releases_ TELVORA_GUARDED_BY(mutex_) = 0;
    HttpsServer server_;  // last: it stops before what its handlers use goes
};

}  // namespace telvora::lab
