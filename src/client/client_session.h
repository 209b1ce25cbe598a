// SPDX-License-Identifier: Apache-2.0
//
// ClientSession: a client's session with the daemon, one connection each.
//
// Every operation returns at once and may be called from any thread, also in callbacks; it does not use its
// arguments later. Calls are sent and answered in order; a client need not wait for an answer before its next
// call. A completion (it may be empty) runs exactly once, on the runtime's thread, with the answer or the
// failure, and must not block.
//
// The daemon has accepted a report when its completion runs. A client that ends before may lose the report:
// it should wait for the completion of finishSession().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "bus/connect_socket.h"
#include "client/client_runtime.h"
#include "plist/property_list.h"
#include "protocol/telvora_error.h"
#include "util/mutex.h"
#include "util/unique_fd.h"
#include "util/unique_function.h"

namespace telvora {

struct CallFailure {
    enum class Kind {
        kConnectionLost,  // ended by either side before the answer came
        kTooManyCalls,    // not sent: ClientSession::kMaxPendingCalls calls were unanswered
        kInvalid,         // the arguments can't be sent, or the answer can't be read
        kRefused,         // the daemon answered with an error
    };
    Kind kind = Kind::kConnectionLost;
    std::string message;  // for people
};

template <typename T>
using Completion = UniqueFunction<void(tl::expected<T, CallFailure> answer), 56>;

using ReportingStates = std::optional<std::vector<std::string>>;

struct FlushAnswer {
    std::optional<std::string> answer;
    std::optional<TelvoraError> error;
};

struct UploadAnswer {
    bool uploaded = false;
    std::optional<TelvoraError> error;
};

// An optional dictionary as an argument. Refers to the caller's dictionary.
class OptionalDictionary {
  public:
    OptionalDictionary(std::nullopt_t = std::nullopt) {}
    OptionalDictionary(const Dictionary* dictionary) : dictionary_(dictionary) {}
    OptionalDictionary(const Dictionary& dictionary) : dictionary_(&dictionary) {}
    OptionalDictionary(const std::optional<Dictionary>& dictionary)
        : dictionary_(dictionary ? &*dictionary : nullptr) {}
    // Null if it is absent.
    const Dictionary* get() const { return dictionary_; }

  private:
    const Dictionary* dictionary_ = nullptr;
};

// A report of this session, or of a session below it, for the aggregation block.
struct AggregatedMessage {
    std::optional<Dictionary> sessionInfo;
    double timestamp = 0;  // seconds since 1970
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload;

    // Whether all members are empty: aggregation has ended, no more messages follow.
    bool isEndMarker() const {
        return !sessionInfo && !payload && timestamp == 0 && category == 0 && type == 0;
    }
};

// Whether ClientSession::kMaxPendingCalls applies. kNone: the caller keeps to a limit of its own.
enum class CallLimit { kApplies, kNone };

// The session info of a session one level below `parent` in its hierarchy: a copy with another session ID and
// level. std::nullopt if the parent belongs to no hierarchy. Pure.
std::optional<Dictionary> sessionInfoOfChild(const Dictionary& parent, uint32_t sessionID);

class ClientSession {
  public:
    // Maximum number of unanswered calls; more are refused. It bounds the memory of a client that reports
    // faster than the daemon accepts.
    static constexpr size_t kMaxPendingCalls = 16384;

    struct Handlers {
        // Both run on the runtime's thread and must not block. A session with an aggregation block requests
        // messages from the daemon.
        std::function<void(AggregatedMessage message)> aggregationBlock;
        // Runs once, with the reason, when the connection has ended other than by invalidate().
        std::function<void(const std::string& reason)> connectionLost;
    };

    // $TELVORA_SOCKET, else com.zandor.telvorad in $RUNTIME_DIRECTORY or /run/telvora.
    static std::string defaultSocketPath();

    // Connects to the daemon's socket: unix(7). Fails with the reason. `runtime` outlives the session.
    static tl::expected<std::unique_ptr<ClientSession>, std::string> connect(
        ClientRuntime& runtime, const std::string& socketPath, Handlers handlers = {},
        FullBacklog fullBacklog = FullBacklog::kWaits, CallLimit callLimit = CallLimit::kApplies);
    // Connects a session one level below this one in its hierarchy and calls its setSessionInfo() with this
    // session's last arguments, but another session ID and user info. `completion` is that of
    // setSessionInfo(). Fails with the reason if connecting fails or this session belongs to no hierarchy.
    // Either session may end first.
    tl::expected<std::unique_ptr<ClientSession>, std::string> child(uint32_t sessionID,
                                                                    OptionalDictionary userInfo,
                                                                    Completion<void> completion,
                                                                    Handlers handlers = {}) const
        TELVORA_EXCLUDES(lock_);
    // Invalidates.
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    // The keys of the dictionaries: telvora/keys.h.
    void setSessionInfo(const Dictionary& sessionInfo, OptionalDictionary userInfo,
                        std::vector<std::string> frameworksToCheck, Completion<void> completion)
        TELVORA_EXCLUDES(lock_);
    // The backends that report; std::nullopt if the daemon has no configuration for this session.
    void startConfig(Completion<ReportingStates> completion);
    // The same for a configured session: a flush precedes the call, with no other call between the two, as
    // the daemon makes its backends anew.
    void restartConfig(Completion<ReportingStates> completion);
    void fetchStates(OptionalDictionary userInfo, Completion<ReportingStates> completion);
    void fetchDisplayURL(Completion<std::string> completion);
    // A backend's answer, if any.
    void sendMessage(uint16_t category, uint16_t type, OptionalDictionary payload,
                     Completion<std::optional<std::string>> completion);
    void sendMessage(const Dictionary& message, Completion<std::optional<std::string>> completion);
    // The daemon does not answer if the session's bag names no backends. The error is FlushWatch::kNoBackends
    // (flush_watch.h) then; a session below another session of a hierarchy gets no answer.
    void flushMessages(Completion<FlushAnswer> completion);
    void finishSession(Completion<std::optional<std::string>> completion);
    // The token that lets the daemon read `file`, which the client has open at `path`.
    void issueFileExtension(const std::string& path, UniqueFd file, Completion<std::string> completion);
    // Whether a backend uploaded the file. `fileURL`: a file URL; `extensionToken`: "" if not needed.
    void uploadFile(const std::string& fileURL, const std::string& extensionToken,
                    Completion<bool> completion);
    void uploadLogData(const Array& records, Completion<UploadAnswer> completion);
    // A one-shot message, without a configured session. The answer is "finished" or "storebag not available".
    // The daemon does not answer if the session info lacks the session ID or the client type.
    void sendSingleMessage(const Dictionary& sessionInfo, OptionalDictionary userInfo, uint16_t category,
                           uint16_t type, OptionalDictionary payload, Completion<std::string> completion);

    // Ends the connection; waiting completions get kConnectionLost.
    void invalidate();

  private:
    class Connection;
    ClientSession(ClientRuntime& runtime, std::string socketPath, std::shared_ptr<Connection> connection);

    ClientRuntime& runtime_;
    const std::string socketPath_;
    const std::shared_ptr<Connection> connection_;

    // The last arguments of setSessionInfo(), for child().
    mutable Mutex lock_;
    Dictionary sessionInfo_ TELVORA_GUARDED_BY(lock_);
    std::vector<std::string> frameworksToCheck_ TELVORA_GUARDED_BY(lock_);
};

}  // namespace telvora
