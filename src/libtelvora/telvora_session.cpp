// SPDX-License-Identifier: Apache-2.0
//
// telvora.h: sessions and recorders.
#include <algorithm>
#include <cstring>

#include "client/handles.h"

using telvora::AggregatedMessage;
using telvora::ApplicationSession;
using telvora::Array;
using telvora::Dictionary;
using telvora::dictionaryIn;
using telvora::guarded;
using telvora::Operation;
using telvora::PropertyList;
using telvora::Recorder;
using telvora::Request;
using telvora::take;
using telvora::unwrap;
using telvora::wrap;

namespace {

// The options of this version of the library, from a program that may have fewer or more.
telvora_session_options complete(const telvora_session_options* given) {
    telvora_session_options options = {};
    if (given != nullptr) std::memcpy(&options, given, std::min(given->size, sizeof options));
    return options;
}

// Runs `body` with the session. All functions use the session through this one.
template <typename Body>
telvora_status with(telvora_session* session, Body body) {
    if (session == nullptr) return TELVORA_ERROR_INVALID;
    if (session->session->inherited()) return TELVORA_ERROR_FORKED;
    return guarded(TELVORA_ERROR_RESOURCES, [&] { return body(*session->session); });
}

// Calls the operation. `fill` sets the arguments and returns false if they are invalid.
template <typename Fill>
telvora_status call(telvora_session* session, Operation operation, telvora_completion completion,
                    void* context, Fill fill) {
    return with(session, [&](ApplicationSession& target) {
        Request request{.operation = operation};
        if (!fill(request)) return TELVORA_ERROR_INVALID;
        return target.call(std::move(request), completion, context);
    });
}

telvora_status call(telvora_session* session, Operation operation, telvora_completion completion,
                    void* context) {
    return call(session, operation, completion, context, [](Request&) { return true; });
}

// Takes a mandatory dictionary. False if it is missing or of another type.
bool takeMandatory(const telvora_value* value, const Dictionary*& into) {
    into = dictionaryIn(value);
    return into != nullptr;
}

// Takes an optional dictionary. False if the value is of another type.
bool takeOptional(const telvora_value* value, const Dictionary*& into) {
    into = dictionaryIn(value);
    return into != nullptr || value == nullptr;
}

}  // namespace

const char* telvora_version() {
    return TELVORA_VERSION;
}

const char* telvora_status_text(telvora_status status) {
    switch (status) {
        case TELVORA_OK:
            return "done";
        case TELVORA_ERROR_INVALID:
            return "invalid arguments or answer";
        case TELVORA_ERROR_UNAVAILABLE:
            return "the daemon can't be reached: 'telvoractl doctor' shows the reason";
        case TELVORA_ERROR_LOST:
            return "the connection was lost before the answer";
        case TELVORA_ERROR_BUSY:
            return "too many calls wait for their answer";
        case TELVORA_ERROR_REFUSED:
            return "the daemon answered with an error";
        case TELVORA_ERROR_FILE:
            return "the file can't be opened";
        case TELVORA_ERROR_RESOURCES:
            return "memory or another resource is short";
        case TELVORA_ERROR_FORKED:
            return "the session is the parent process's";
        case TELVORA_ERROR_EXITING:
            return "the process is ending";
        case TELVORA_ERROR_TIMEOUT:
            return "the time has passed";
        case TELVORA_ERROR_CLOSED:
            return "the session was freed before the answer";
    }
    return "unknown status";
}

telvora_session* telvora_session_new(const telvora_session_options* options) {
    return guarded<telvora_session*>(
        nullptr, [&] { return new telvora_session{ApplicationSession::make(complete(options))}; });
}

void telvora_session_free(telvora_session* session) {
    if (session == nullptr || session->session->inherited()) return;
    with(session, [](ApplicationSession& target) {
        target.end();
        return TELVORA_OK;
    });
    delete session;
}

telvora_status telvora_session_wait(telvora_session* session, int64_t milliseconds) {
    return with(session, [&](ApplicationSession& target) { return target.wait(milliseconds); });
}

uint64_t telvora_session_lost_calls(const telvora_session* session) {
    return session != nullptr ? session->session->lostCalls() : 0;
}

telvora_value* telvora_child_info(const telvora_value* session_info, uint32_t session_id) {
    return guarded<telvora_value*>(nullptr, [&]() -> telvora_value* {
        const Dictionary* parent = dictionaryIn(session_info);
        if (parent == nullptr) return nullptr;
        auto info = telvora::sessionInfoOfChild(*parent, session_id);
        return info ? wrap(new PropertyList(std::move(*info))) : nullptr;
    });
}

telvora_status telvora_session_set_info(telvora_session* session, const telvora_value* session_info,
                                        const telvora_value* user_info, const char* const* frameworks,
                                        size_t count, telvora_completion completion, void* context) {
    return call(session, Operation::kSetSessionInfo, completion, context, [&](Request& request) {
        if (count != 0 && (frameworks == nullptr || std::count(frameworks, frameworks + count, nullptr) != 0))
            return false;
        request.frameworksToCheck = {frameworks, count};
        return takeMandatory(session_info, request.sessionInfo) && takeOptional(user_info, request.userInfo);
    });
}

telvora_status telvora_session_start(telvora_session* session, telvora_completion completion, void* context) {
    return call(session, Operation::kStartConfig, completion, context);
}

telvora_status telvora_session_fetch_states(telvora_session* session, const telvora_value* user_info,
                                            telvora_completion completion, void* context) {
    return call(session, Operation::kFetchStates, completion, context,
                [&](Request& request) { return takeOptional(user_info, request.userInfo); });
}

telvora_status telvora_session_fetch_display_url(telvora_session* session, telvora_completion completion,
                                                 void* context) {
    return call(session, Operation::kFetchDisplayURL, completion, context);
}

telvora_status telvora_session_send(telvora_session* session, uint16_t category, uint16_t type,
                                    const telvora_value* payload, telvora_completion completion,
                                    void* context) {
    return call(session, Operation::kSendMessage, completion, context, [&](Request& request) {
        request.category = category;
        request.type = type;
        return takeOptional(payload, request.payload);
    });
}

telvora_status telvora_session_send_dictionary(telvora_session* session, const telvora_value* message,
                                               telvora_completion completion, void* context) {
    return call(session, Operation::kSendMessageDictionary, completion, context,
                [&](Request& request) { return takeMandatory(message, request.message); });
}

telvora_status telvora_session_flush(telvora_session* session, telvora_completion completion, void* context) {
    return call(session, Operation::kFlushMessages, completion, context);
}

telvora_status telvora_session_finish(telvora_session* session, telvora_completion completion,
                                      void* context) {
    return call(session, Operation::kFinishSession, completion, context);
}

telvora_status telvora_session_upload_file(telvora_session* session, const char* path,
                                           telvora_completion completion, void* context) {
    if (path == nullptr || *path == '\0') return TELVORA_ERROR_INVALID;
    return with(session,
                [&](ApplicationSession& target) { return target.uploadFile(path, completion, context); });
}

telvora_status telvora_session_upload_log_data(telvora_session* session, const telvora_value* records,
                                               telvora_completion completion, void* context) {
    return call(session, Operation::kUploadLogData, completion, context, [&](Request& request) {
        request.records = records != nullptr ? unwrap(records)->getIf<Array>() : nullptr;
        return request.records != nullptr;
    });
}

telvora_status telvora_session_send_single(telvora_session* session, const telvora_value* session_info,
                                           const telvora_value* user_info, uint16_t category, uint16_t type,
                                           const telvora_value* payload, telvora_completion completion,
                                           void* context) {
    return call(session, Operation::kSendSingleMessage, completion, context, [&](Request& request) {
        request.category = category;
        request.type = type;
        return takeMandatory(session_info, request.sessionInfo) &&
               request.sessionInfo->contains(kTelvoraSessionInfoSessionID) &&
               request.sessionInfo->contains(kTelvoraSessionInfoClientType) &&
               takeOptional(user_info, request.userInfo) && takeOptional(payload, request.payload);
    });
}

telvora_recorder* telvora_recorder_new() {
    return guarded<telvora_recorder*>(nullptr,
                                      [] { return new telvora_recorder{std::make_shared<Recorder>()}; });
}

void telvora_recorder_free(telvora_recorder* recorder) {
    delete recorder;
}

telvora_status telvora_recorder_answer(telvora_recorder* recorder, const char* operation,
                                       telvora_status status, const telvora_value* value) {
    if (recorder == nullptr) return TELVORA_ERROR_INVALID;
    return guarded(TELVORA_ERROR_RESOURCES, [&] {
        Recorder::Reply reply{status, std::nullopt};
        if (value != nullptr) reply.value = *unwrap(value);
        std::optional<std::string> name;
        if (operation != nullptr) name = operation;
        recorder->recorder->setReply(name, std::move(reply));
        return TELVORA_OK;
    });
}

telvora_status telvora_recorder_deliver(telvora_recorder* recorder, const telvora_value* session_info,
                                        double timestamp, uint16_t category, uint16_t type,
                                        const telvora_value* payload) {
    if (recorder == nullptr) return TELVORA_ERROR_INVALID;
    return guarded(TELVORA_ERROR_RESOURCES, [&] {
        AggregatedMessage message{std::nullopt, timestamp, category, type, std::nullopt};
        if (!take(session_info, message.sessionInfo) || !take(payload, message.payload))
            return TELVORA_ERROR_INVALID;
        recorder->recorder->deliver(message);
        return TELVORA_OK;
    });
}

size_t telvora_recorder_count(const telvora_recorder* recorder) {
    return recorder != nullptr ? recorder->recorder->callCount() : 0;
}

telvora_value* telvora_recorder_call_copy(const telvora_recorder* recorder, size_t index) {
    return guarded<telvora_value*>(nullptr, [&]() -> telvora_value* {
        if (recorder == nullptr) return nullptr;
        auto call = recorder->recorder->call(index);
        return call ? wrap(new PropertyList(std::move(*call))) : nullptr;
    });
}

void telvora_recorder_clear(telvora_recorder* recorder) {
    if (recorder != nullptr) recorder->recorder->clear();
}
