// SPDX-License-Identifier: Apache-2.0
//
// Replaces the daemon in an application's own tests, and, without a recorder, where libtelvora is disabled.
// Both classes are thread-safe.
#pragma once

#include <map>

#include "client/session_target.h"

namespace telvora {

class RecordedSession;

class Recorder {
  public:
    struct Reply {
        telvora_status status = TELVORA_OK;
        std::optional<PropertyList> value;
    };

    // Sets the reply to all operations of this name, or, with std::nullopt, to all operations.
    void setReply(const std::optional<std::string>& operation, Reply reply) TELVORA_EXCLUDES(lock_);
    // Records the call and returns the reply to it.
    Reply record(const Request& request, bool aggregates) TELVORA_EXCLUDES(lock_);
    void addSession(std::weak_ptr<RecordedSession> session) TELVORA_EXCLUDES(lock_);
    void deliver(const AggregatedMessage& message) TELVORA_EXCLUDES(lock_);

    size_t callCount() const TELVORA_EXCLUDES(lock_);
    std::optional<Dictionary> call(size_t index) const TELVORA_EXCLUDES(lock_);
    void clear() TELVORA_EXCLUDES(lock_);

  private:
    mutable Mutex lock_;
    std::vector<Dictionary> calls_ TELVORA_GUARDED_BY(lock_);
    std::map<std::string, Reply> replies_ TELVORA_GUARDED_BY(lock_);
    std::optional<Reply> replyToAll_ TELVORA_GUARDED_BY(lock_);
    std::vector<std::weak_ptr<RecordedSession>> sessions_ TELVORA_GUARDED_BY(lock_);
};

class RecordedSession final : public SessionTarget {
  public:
    // `recorder`: null to record no calls. `runtime` outlives the session.
    RecordedSession(ClientRuntime& runtime, std::shared_ptr<Recorder> recorder, Handlers handlers);

    telvora_status call(Request&& request, AnswerHandler&& done) override TELVORA_EXCLUDES(lock_);
    void close() override {}
    uint64_t lostCalls() const override { return 0; }
    bool readsFiles() const override { return false; }

    // Passes the message to the aggregation block, if there is one.
    void deliver(AggregatedMessage message) TELVORA_EXCLUDES(lock_);

  private:
    const Strand& strand() TELVORA_EXCLUDES(lock_);

    ClientRuntime& runtime_;
    const std::shared_ptr<Recorder> recorder_;
    const std::shared_ptr<const Handlers> handlers_;

    Mutex lock_{LockRank::clientSession};
    std::optional<Strand> strand_ TELVORA_GUARDED_BY(lock_);  // once made, for good
};

}  // namespace telvora
