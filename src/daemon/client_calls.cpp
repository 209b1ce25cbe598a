// SPDX-License-Identifier: Apache-2.0
#include "daemon/client_calls.h"

#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
#include "util/log.h"

namespace telvora {

namespace {

using Failure = std::optional<BusError>;

Failure invalidArguments(const ArgumentReader& in) {
    return BusError{kBusErrorInvalidArgs, in.failure()};
}

// --- Replies: each holds the call until it is run or dropped, wherever that happens ---

template <typename Write>
void answer(const std::shared_ptr<PendingCall>& call, Write write) {
    call->reply([write = std::move(write)](BusMessage& reply) {
        ArgumentWriter out(reply);
        write(out);
        return out.result();
    });
}

StringReply optionalStringReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](std::optional<std::string> value) {
        answer(call, [value = std::move(value)](ArgumentWriter& out) { out.optionalString(value); });
    };
}

// For operations that always answer with a string; nothing, which none of them says, would be an empty one.
StringReply stringReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](std::optional<std::string> value) {
        answer(call, [value = std::move(value)](ArgumentWriter& out) { out.string(value.value_or("")); });
    };
}

ReportingStatesReply reportingStatesReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](std::optional<std::vector<std::string>> states) {
        answer(call, [states = std::move(states)](ArgumentWriter& out) { out.optionalStrings(states); });
    };
}

FlushReply flushReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](std::optional<std::string> value, std::optional<TelvoraError> error) {
        answer(call, [value = std::move(value), error = std::move(error)](ArgumentWriter& out) {
            out.optionalString(value);
            out.optionalError(error);
        });
    };
}

UploadFileReply uploadFileReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](bool uploaded) {
        answer(call, [uploaded](ArgumentWriter& out) { out.boolean(uploaded); });
    };
}

UploadLogDataReply uploadLogDataReply(std::shared_ptr<PendingCall> call) {
    return [call = std::move(call)](bool uploaded, std::optional<TelvoraError> error) {
        answer(call, [uploaded, error = std::move(error)](ArgumentWriter& out) {
            out.boolean(uploaded);
            out.optionalError(error);
        });
    };
}

// --- Calls ---

class SessionCalls {
  public:
    SessionCalls(BusConnection& bus, const ClientCallTargets& targets) : bus_(bus), targets_(targets) {}

    LogAdmission* logAdmission() const { return targets_.user.logAdmission(); }

    Failure setSessionInfo(BusMessage& call) const {
        ArgumentReader in(call);
        Dictionary sessionInfo = in.dictionary();
        std::optional<Dictionary> userInfo = in.optionalDictionary();
        std::vector<std::string> frameworks = in.strings();
        const bool hasAggregationBlock = in.boolean();
        if (!in.ok()) return invalidArguments(in);
        session().setSessionInfo(std::move(sessionInfo), std::move(userInfo), std::move(frameworks),
                                 hasAggregationBlock);
        // Nothing comes back from the session; the empty answer tells the client that it was heard.
        bus_.replyNow(call, [](BusMessage&) { return 0; });
        return std::nullopt;
    }

    Failure startConfig(BusMessage& call) const {
        session().startConfigWithCompletionHandler(reportingStatesReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure fetchStates(BusMessage& call) const {
        ArgumentReader in(call);
        std::optional<Dictionary> userInfo = in.optionalDictionary();
        if (!in.ok()) return invalidArguments(in);
        session().fetchStatesWithUserInfo(std::move(userInfo), reportingStatesReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure fetchDisplayURL(BusMessage& call) const {
        session().fetchDisplayURL(stringReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure sendMessageWithCategory(BusMessage& call) const {
        ArgumentReader in(call);
        const uint16_t category = in.u16();
        const uint16_t type = in.u16();
        std::optional<Dictionary> payload = in.optionalDictionary();
        if (!in.ok()) return invalidArguments(in);
        session().sendMessageWithCategory(category, type, std::move(payload),
                                          optionalStringReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure sendMessageWithDictionary(BusMessage& call) const {
        ArgumentReader in(call);
        Dictionary message = in.dictionary();
        if (!in.ok()) return invalidArguments(in);
        session().sendMessageWithDictionary(std::move(message), optionalStringReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure flushMessages(BusMessage& call) const {
        session().flushMessagesWithCompletion(flushReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure finishSession(BusMessage& call) const {
        session().finishSessionWithReply(optionalStringReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure uploadFileAtPath(BusMessage& call) const {
        ArgumentReader in(call);
        std::string fileURL = in.string();
        std::string extensionToken = in.string();
        if (!in.ok()) return invalidArguments(in);
        session().uploadFileAtPath(std::move(fileURL), std::move(extensionToken),
                                   uploadFileReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure uploadLogData(BusMessage& call) const {
        ArgumentReader in(call);
        Array records = in.array();
        if (!in.ok()) return invalidArguments(in);
        session().uploadLogData(std::move(records), uploadLogDataReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure sendMessageWithSessionInfo(BusMessage& call) const {
        ArgumentReader in(call);
        Dictionary sessionInfo = in.dictionary();
        std::optional<Dictionary> userInfo = in.optionalDictionary();
        const uint16_t category = in.u16();
        const uint16_t type = in.u16();
        std::optional<Dictionary> payload = in.optionalDictionary();
        if (!in.ok()) return invalidArguments(in);
        session().sendMessageWithSessionInfo(std::move(sessionInfo), std::move(userInfo), category, type,
                                             std::move(payload), stringReply(bus_.defer(call)));
        return std::nullopt;
    }

    Failure issueFileExtension(BusMessage& call) const {
        ArgumentReader in(call);
        std::string path = in.string();
        UniqueFd file = in.file();
        if (!in.ok()) return invalidArguments(in);
        if (!targets_.files) return BusError{kBusErrorNotSupported, "No file extensions are issued here"};
        const auto token = targets_.files->issueFileExtension(std::move(path), std::move(file));
        if (!token) return BusError{kBusErrorInvalidArgs, token.error()};
        bus_.replyNow(call, [&token](BusMessage& reply) { return reply.appendString(*token); });
        return std::nullopt;
    }

  private:
    ClientSessionInterface& session() const { return *targets_.session; }

    BusConnection& bus_;
    const ClientCallTargets& targets_;
};

BusConnection::MethodHandler bind(const SessionCalls& calls,
                                  Failure (SessionCalls::*method)(BusMessage&) const) {
    return [calls, method](BusMessage& call) {
        const LogScope onBehalfOfUser(calls.logAdmission());
        return (calls.*method)(call);
    };
}

}  // namespace

std::vector<BusConnection::MethodHandler> clientSessionHandlers(BusConnection& bus,
                                                                const ClientCallTargets& targets) {
    const SessionCalls calls(bus, targets);
    return {
        bind(calls, &SessionCalls::setSessionInfo),
        bind(calls, &SessionCalls::startConfig),
        bind(calls, &SessionCalls::fetchStates),
        bind(calls, &SessionCalls::fetchDisplayURL),
        bind(calls, &SessionCalls::sendMessageWithCategory),
        bind(calls, &SessionCalls::sendMessageWithDictionary),
        bind(calls, &SessionCalls::flushMessages),
        bind(calls, &SessionCalls::finishSession),
        bind(calls, &SessionCalls::uploadFileAtPath),
        bind(calls, &SessionCalls::uploadLogData),
        bind(calls, &SessionCalls::sendMessageWithSessionInfo),
    };
}

std::vector<BusConnection::MethodHandler> sandboxExtensionHandlers(BusConnection& bus,
                                                                   const ClientCallTargets& targets) {
    const SessionCalls calls(bus, targets);
    return {bind(calls, &SessionCalls::issueFileExtension)};
}

}  // namespace telvora
