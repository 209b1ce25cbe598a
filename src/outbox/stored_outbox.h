// SPDX-License-Identifier: Apache-2.0
//
// StoredOutbox: posts the messages of an OutboxStore again, oldest first, until a server takes them or
// refuses them, or until they expire.
//
// One message is under way at a time, and after each the outbox rests as long as it took: a share of the link
// stays free. A server that can't be reached, or that asks for patience, gets no message for a while: up to
// 15 s after the first failure, twice as long after each further one, up to an hour; a random part of it, so
// that devices do not come back together (full jitter); at least what its Retry-After says (RFC 9110), up to
// a day. A server that has answered another post gets its messages at once.
//
// While the link is to be spared, backends hand over messages that were not posted yet, and the outbox sends
// none. From when it is half full until it is less than half full, both go on as if the link were not spared:
// the rest is room for messages that find no server.
//
// Before each message, those are removed that may no longer leave: kept under a consent that was withdrawn,
// of identifiers that were reset, or too old.
//
// The ledger's account "outbox" accepts the reports of each message when it is stored or, at the start,
// found: held until their outcome.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "async/network_queue.h"
#include "backends/report_account.h"
#include "outbox/outbox_store.h"
#include "util/mutex.h"

namespace telvora {

// The references outlive the outbox. The functions are called on the queue.
struct OutboxServices {
    HttpClient& http;
    ReportLedger& ledger;
    std::unique_ptr<NetworkQueue> queue;
    std::function<OutboxMoment()> moment;     // also called on other threads
    std::function<double()> random;           // uniform in [0, 1)
    std::function<bool()> consent;            // whether the user shares diagnostics
    std::function<std::string()> identifier;  // the device's, as in OutboxMessage
    std::function<void()> stored = {};        // after stopSending(): messages have been stored
    bool sparesLink = false;                  // until setSparesLink()
};

// All members without a lock belong to the queue. Destroyed after all exchanges of `http` have ended, and
// before the pool of the queue.
class StoredOutbox final : public MessageOutbox {
  public:
    // The name of the account in the ledger.
    static constexpr char kAccount[] = "outbox";

    // Opens the file and begins to send. Fails with a reason. Blocks on file I/O.
    static SqliteResult<std::unique_ptr<StoredOutbox>> open(const std::filesystem::path& path,
                                                            const OutboxLimits& limits,
                                                            OutboxServices services,
                                                            const char* vfs = nullptr);

    void keep(OutboxMessage message, const HttpResult* result, std::function<void(bool)> done) override
        TELVORA_EXCLUDES(incomingLock_);
    bool sparesLink() const override { return sparesLink_ && !halfFull_; }
    // Callable from any thread.
    void setSparesLink(bool spares);
    void reached(const std::string& url) override;
    // Whether messages wait for their server, or to be stored. Callable from any thread.
    bool isWaiting() const { return waiting_.load() > 0; }
    // Whether messages wait to be stored. Callable from any thread.
    bool isStoring() const { return storing_.load() > 0; }
    // Lets the exchange under way be the last one. Callable from any thread.
    void stopSending() { maySend_ = false; }
    // Stores the messages that have been handed over, and takes and sends no further ones. Called when the
    // queue runs no item any more. Blocks on file I/O.
    void close();

  private:
    struct Incoming {
        OutboxMessage message;
        std::function<void(bool)> done;
        std::optional<std::chrono::seconds> patience;  // that the server asked for; absent: not posted yet
    };
    // A server that gets no message until `due`, or that has failed before.
    struct Server {
        unsigned failures = 0;
        SteadyTime due;
    };

    // A message that has an outcome, but could not be removed because the disk is full.
    struct Settled {
        std::string server;
        uint64_t reports;
        ReportOutcome outcome;
    };
    // Consent and identifiers at the last check of all messages. While they stay the same, none has to be
    // removed.
    struct Checked {
        bool consent;
        std::string identifier;
        SteadyTime time;
    };

    StoredOutbox(OutboxStore store, std::filesystem::path path, const OutboxLimits& limits,
                 OutboxServices services, const char* vfs);

    void wake();
    void storeIncoming() TELVORA_EXCLUDES(incomingLock_);
    bool storeAll(const std::vector<const OutboxMessage*>& messages);
    void sendNext();
    bool removeUnwanted();
    void removeSettled();
    void send(const OutboxStore::Head& head);
    void finished(const OutboxStore::Head& head, uint64_t reports, const HttpRequest& request,
                  const HttpResult& result);
    void postpone(const std::string& server, std::chrono::seconds patience);
    void settle(const OutboxStore::Head& head, uint64_t reports, ReportOutcome outcome);
    void replaceDamaged();
    void removeFile();
    void reopen();
    void countSettled();
    bool lose(const SqliteResult<uint64_t>& removed, ReportOutcome cause);
    void fail(const SqliteError& error);
    void wakeAt(SteadyTime time);
    void countWaiting() TELVORA_EXCLUDES(incomingLock_);

    const std::filesystem::path path_;
    const OutboxLimits limits_;
    const OutboxServices services_;
    const char* const vfs_;
    const std::shared_ptr<ReportAccount> account_;
    std::atomic<uint64_t> waiting_{0};  // messages
    std::atomic<size_t> storing_{0};    // messages
    std::atomic<bool> maySend_{true};
    std::atomic<bool> sparesLink_;
    std::atomic<bool> halfFull_{false};        // as far as sparesLink_
    std::atomic<size_t> postponedServers_{0};  // the size of servers_

    Mutex incomingLock_;
    std::vector<Incoming> incoming_ TELVORA_GUARDED_BY(incomingLock_);
    uint64_t incomingBytes_ TELVORA_GUARDED_BY(incomingLock_) = 0;
    bool closed_ TELVORA_GUARDED_BY(incomingLock_) = false;

    std::optional<OutboxStore> store_;  // absent while the file can't be opened
    std::unique_ptr<QueueTimer> timer_;
    std::map<std::string, Server> servers_;
    std::map<int64_t, Settled> settled_;  // to be removed, when the disk allows; they do not leave again
    std::optional<Checked> checked_;      // absent: messages have come since
    unsigned replaced_ = 0;               // damaged files
    bool sending_ = false;
    bool failureLogged_ = false;
};

}  // namespace telvora
