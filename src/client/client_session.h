// SPDX-License-Identifier: Apache-2.0
//
// ClientSession: a client's session with the daemon, one connection each.
//
// Every operation returns at once and may be called from any thread, callbacks included. Calls are sent, and
// answered by the daemon, in the order in which they were made; there is no need to wait for one answer
// before the next call. A completion (it may be empty) runs exactly once, on the runtime's thread, and must
// not block; it gets the answer or the reason why there is none.
//
// Reports are on their way when their completion has run. A client that ends before that may lose them:
// finishSession(), and its completion, is the way to leave.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "client/client_runtime.h"
#include "plist/property_list.h"
#include "protocol/telvora_error.h"
#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora {

struct CallFailure {
    enum class Kind {
        kConnectionLost,  // ended by either side before the answer came
        kTooManyCalls,    // more than ClientSession::kMaxPendingCalls were unanswered; nothing was sent
        kInvalid,         // the arguments can't be sent, or the answer can't be read
        kRefused,         // the daemon answered with an error
    };
    Kind kind = Kind::kConnectionLost;
    std::string message;  // for people
};

template <typename T>
using Completion = std::function<void(tl::expected<T, CallFailure> answer)>;

using ReportingStates = std::optional<std::vector<std::string>>;

struct FlushAnswer {
    std::optional<std::string> answer;
    std::optional<TelvoraError> error;
};

struct UploadAnswer {
    bool uploaded = false;
    std::optional<TelvoraError> error;
};

// A message of this session, or of one below it, on its way to the aggregation block.
struct AggregatedMessage {
    std::optional<Dictionary> sessionInfo;
    double timestamp = 0;  // seconds since 1970
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload;

    // All zero and nothing: aggregation has ended, no more messages follow.
    bool isEndMarker() const {
        return !sessionInfo && !payload && timestamp == 0 && category == 0 && type == 0;
    }
};

// What connecting does while the daemon's backlog is full.
enum class FullBacklog { kWaits, kFails };

// The session info of a session one level below `parent` in its hierarchy: the parent's but for session ID
// and level. Nothing when the parent belongs to no hierarchy. Pure.
std::optional<Dictionary> sessionInfoOfChild(const Dictionary& parent, uint32_t sessionID);

class ClientSession {
  public:
    // Calls that wait for their answer; more are refused, so that a client that reports faster than the
    // daemon takes it does not grow without bound.
    static constexpr size_t kMaxPendingCalls = 16384;

    struct Handlers {
        // Both run on the runtime's thread and must not block. With an aggregation block, the session asks
        // the daemon for its messages.
        std::function<void(AggregatedMessage message)> aggregationBlock;
        // Once, when the connection has ended other than by invalidate(), with the reason.
        std::function<void(const std::string& reason)> connectionLost;
    };

    // $TELVORA_SOCKET, else com.zandor.telvorad in $RUNTIME_DIRECTORY or /run/telvora.
    static std::string defaultSocketPath();

    // What one call may take on the wire; the daemon ends a connection that brings it much more.
    static constexpr size_t kMaxCallBytes = 16'000'000;

    // Connects to the daemon's socket: unix(7). Fails with the reason. `runtime` outlives the session.
    static tl::expected<std::unique_ptr<ClientSession>, std::string> connect(
        ClientRuntime& runtime, const std::string& socketPath, Handlers handlers = {},
        FullBacklog fullBacklog = FullBacklog::kWaits);
    // Connects a session one level below this one in its hierarchy, and tells the daemon what it is: what
    // this session is (its last setSessionInfo()), with a session ID and a user info of its own. `completion`
    // is that of setSessionInfo(). Fails with the reason, as connect() does, and when this session belongs to
    // no hierarchy. Either session may end first.
    tl::expected<std::unique_ptr<ClientSession>, std::string> child(uint32_t sessionID,
                                                                    std::optional<Dictionary> userInfo,
                                                                    Completion<void> completion,
                                                                    Handlers handlers = {}) const
        TELVORA_EXCLUDES(lock_);
    // Invalidates.
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    // The keys of the dictionaries: telvora/keys.h.
    void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                        std::vector<std::string> frameworksToCheck, Completion<void> completion)
        TELVORA_EXCLUDES(lock_);
    // The backends that report, or nothing when there is no configuration for this session.
    void startConfig(Completion<ReportingStates> completion);
    void fetchStates(std::optional<Dictionary> userInfo, Completion<ReportingStates> completion);
    void fetchDisplayURL(Completion<std::string> completion);
    // A backend's answer, or nothing.
    void sendMessage(uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                     Completion<std::optional<std::string>> completion);
    void sendMessage(Dictionary message, Completion<std::optional<std::string>> completion);
    // Where the session's bag names no backends, which the daemon doesn't answer, the error is
    // FlushWatch::kNoBackends (flush_watch.h); below another session of a hierarchy there is no answer then.
    void flushMessages(Completion<FlushAnswer> completion);
    void finishSession(Completion<std::optional<std::string>> completion);
    // The token under which the daemon may read `file`, which the client has open at `path`.
    void issueFileExtension(std::string path, UniqueFd file, Completion<std::string> completion);
    // Whether a backend uploaded it. `fileURL`: a file URL; `extensionToken`: "" where none is needed.
    void uploadFile(std::string fileURL, std::string extensionToken, Completion<bool> completion);
    void uploadLogData(Array records, Completion<UploadAnswer> completion);
    // One message without a configured session: "finished" or "storebag not available". The daemon does not
    // answer at all when the session info lacks the session ID or the client type.
    void sendSingleMessage(Dictionary sessionInfo, std::optional<Dictionary> userInfo, uint16_t category,
                           uint16_t type, std::optional<Dictionary> payload,
                           Completion<std::string> completion);

    // Ends the connection; completions that still wait are told that it is lost.
    void invalidate();

  private:
    class Connection;
    ClientSession(ClientRuntime& runtime, std::string socketPath, std::shared_ptr<Connection> connection);

    ClientRuntime& runtime_;
    const std::string socketPath_;
    const std::shared_ptr<Connection> connection_;

    // What the children take over.
    mutable Mutex lock_;
    Dictionary sessionInfo_ TELVORA_GUARDED_BY(lock_);
    std::vector<std::string> frameworksToCheck_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
