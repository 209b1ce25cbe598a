// SPDX-License-Identifier: Apache-2.0
//
// A session with the daemon, or with a recorder.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

#include "telvora/answer.hpp"
#include "telvora/dictionary.hpp"
#include "telvora/message.hpp"
#include "telvora/recorder.hpp"

namespace telvora {
inline namespace v1 {

struct SessionOptions {
    std::string socketPath = {};         // empty: the default of telvora.h
    const Recorder* recorder = nullptr;  // replaces the daemon; used only while the session is made
    std::function<void(const Message&)> onMessage = {};
    std::function<void(const ConnectionChange&)> onConnection = {};
};

// A session. Must not be destroyed in one of its own callbacks. After a move, the source may only be
// destroyed or assigned to.
class Session {
  public:
    explicit Session(SessionOptions options = {}) : handlers_(std::make_unique<Handlers>()) {
        handlers_->message = std::move(options.onMessage);
        handlers_->connection = std::move(options.onConnection);
        telvora_session_options plain = {};
        plain.size = sizeof plain;
        plain.socket_path = options.socketPath.empty() ? nullptr : options.socketPath.c_str();
        plain.recorder = options.recorder != nullptr ? options.recorder->get() : nullptr;
        plain.on_message = handlers_->message ? onMessage : nullptr;
        plain.on_connection = handlers_->connection ? onConnection : nullptr;
        plain.message_context = plain.connection_context = handlers_.get();
        session_.reset(telvora_session_new(&plain));
        if (!session_) throw std::bad_alloc();
    }

    telvora_session* get() const { return session_.get(); }

    // Operations of telvora.h. Return TELVORA_OK, and the completion then runs exactly once; or return the
    // failure, and the completion never runs.
    Status setInfo(const Dictionary& sessionInfo, const Dictionary& userInfo = {},
                   std::span<const char* const> frameworks = {}, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_set_info(get(), sessionInfo.get(), userInfo.get(), frameworks.data(),
                                            frameworks.size(), done, context);
        });
    }
    Status start(Completion completion = {}) { return call(std::move(completion), telvora_session_start); }
    Status fetchStates(const Dictionary& userInfo = {}, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_fetch_states(get(), userInfo.get(), done, context);
        });
    }
    Status fetchDisplayURL(Completion completion = {}) {
        return call(std::move(completion), telvora_session_fetch_display_url);
    }
    Status send(uint16_t category, uint16_t type, const Dictionary& payload = {},
                Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_send(get(), category, type, payload.get(), done, context);
        });
    }
    Status sendDictionary(const Dictionary& message, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_send_dictionary(get(), message.get(), done, context);
        });
    }
    Status flush(Completion completion = {}) { return call(std::move(completion), telvora_session_flush); }
    Status finish(Completion completion = {}) { return call(std::move(completion), telvora_session_finish); }
    Status uploadFile(const std::string& path, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_upload_file(get(), path.c_str(), done, context);
        });
    }
    Status uploadLogData(const Array& records, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_upload_log_data(get(), records.get(), done, context);
        });
    }
    Status sendSingle(const Dictionary& sessionInfo, const Dictionary& userInfo, uint16_t category,
                      uint16_t type, const Dictionary& payload = {}, Completion completion = {}) {
        return call(std::move(completion), [&](auto done, void* context) {
            return telvora_session_send_single(get(), sessionInfo.get(), userInfo.get(), category, type,
                                               payload.get(), done, context);
        });
    }

    // As telvora_session_wait(); a negative timeout counts as 0.
    Status wait(std::chrono::milliseconds timeout) {
        return telvora_session_wait(get(), std::max<int64_t>(timeout.count(), 0));
    }
    uint64_t lostCalls() const { return telvora_session_lost_calls(get()); }

  private:
    struct Free {
        void operator()(telvora_session* session) const { telvora_session_free(session); }
    };
    struct Handlers {
        std::function<void(const Message&)> message;
        std::function<void(const ConnectionChange&)> connection;
    };

    Status call(Completion completion, Status (*operation)(telvora_session*, telvora_completion, void*)) {
        return call(std::move(completion),
                    [&](auto done, void* context) { return operation(get(), done, context); });
    }
    template <typename Operation>
    requires std::is_invocable_v<Operation, telvora_completion, void*> Status call(Completion completion,
                                                                                   Operation operation) {
        if (!completion) return operation(nullptr, nullptr);
        auto held = std::make_unique<Completion>(std::move(completion));
        const Status status = operation(onAnswer, held.get());
        if (status == TELVORA_OK) static_cast<void>(held.release());  // onAnswer() owns it, and may have run
        return status;
    }

    static void onAnswer(void* context, const telvora_answer* answer) noexcept {
        const std::unique_ptr<Completion> completion(static_cast<Completion*>(context));
        (*completion)(Answer(answer));
    }
    static void onMessage(void* context, const telvora_value* sessionInfo, double timestamp,
                          uint16_t category, uint16_t type, const telvora_value* payload) noexcept {
        static_cast<Handlers*>(context)->message(
            {sessionInfo, Time(std::chrono::duration<double>(timestamp)), category, type, payload});
    }
    static void onConnection(void* context, telvora_connection_event event, uint64_t lostCalls,
                             const char* reason) noexcept {
        static_cast<Handlers*>(context)->connection({event, lostCalls, reason});
    }

    std::unique_ptr<Handlers> handlers_;  // outlives the session, whose callbacks use it
    std::unique_ptr<telvora_session, Free> session_;
};

}  // namespace v1
}  // namespace telvora
