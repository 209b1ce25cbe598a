// SPDX-License-Identifier: Apache-2.0
//
// libtelvora for C++20: owning values, spans, initializer lists and function objects on top of telvora.h.
// This header has no library of its own. The rules of telvora.h for threads, failure, connections, fork and
// exit apply.
//
//     telvora::Session session;
//     session.setInfo({{kTelvoraSessionInfoClientType, 8}, {kTelvoraSessionInfoSessionID, 1},
//                      {kTelvoraSessionInfoRequireUserInfo, true}},  // else consent is not asked
//                     {{kTelvoraUserInfoClientName, "player"}});
//     session.start([](const telvora::Answer& names) { std::cout << names.value.view().size() << '\n'; });
//     session.send(5, 6, {{"fruit", "quince"}, {"weight", 0.3}});
//     session.flush([](const telvora::Answer& answer) { std::cout << answer.text().value_or("") << '\n'; });
//     if (session.wait(std::chrono::seconds(10)) != TELVORA_OK) ...
//
// Constructors and setters of values, sessions and recorders throw std::bad_alloc if memory is short, and so
// do operations; no other exception is thrown. An exception that leaves a callback ends the process.
#pragma once

#include <algorithm>
#include <chrono>
#include <coroutine>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "telvora/telvora.h"

namespace telvora {
inline namespace v1 {

using Status = telvora_status;
using Time = std::chrono::sys_time<std::chrono::duration<double>>;  // since 1970-01-01 UTC

// A reference to a value, or empty. Valid as long as the object that it was read from exists and is not
// changed.
class View {
  public:
    View() = default;
    View(const telvora_value* value) : value_(value) {}

    const telvora_value* get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }
    // Must not be empty.
    telvora_type type() const { return telvora_value_type(value_); }
    bool is(telvora_type type) const { return value_ != nullptr && this->type() == type; }

    // Number of entries, elements or bytes.
    size_t size() const { return telvora_value_count(value_); }
    // The value under a key, or at an index; empty if it does not exist.
    View operator[](const char* key) const { return telvora_value_find(value_, key); }
    View operator[](const std::string& key) const { return (*this)[key.c_str()]; }
    View at(size_t index) const { return telvora_value_at(value_, index); }
    std::string_view keyAt(size_t index) const {
        const char* key = telvora_value_key_at(value_, index);
        return key != nullptr ? key : "";
    }

    // Conversions of telvora.h. False, 0, `std::nullopt` or an empty span for other types, and if empty.
    bool boolean() const { return telvora_value_bool(value_); }
    int64_t integer() const { return telvora_value_int(value_); }
    double real() const { return telvora_value_double(value_); }
    Time time() const { return Time(std::chrono::duration<double>(real())); }
    std::optional<std::string_view> string() const {
        const char* text = telvora_value_string(value_);
        if (text == nullptr) return std::nullopt;
        return std::string_view(text, size());
    }
    std::span<const std::byte> data() const {
        size_t size = 0;
        const void* bytes = telvora_value_data(value_, &size);
        return {static_cast<const std::byte*>(bytes), size};
    }

  private:
    const telvora_value* value_ = nullptr;
};

// Owns a value, or is empty. Copies are deep.
class Value {
  public:
    Value() = default;
    explicit Value(View value) : value_(copied(value)) {}
    Value(const Value& other) : value_(copied(other)) {}
    Value(Value&&) noexcept = default;
    Value& operator=(const Value& other) {
        if (this != &other) value_.reset(copied(other));
        return *this;
    }
    Value& operator=(Value&&) noexcept = default;

    // Takes ownership of a value that a function of telvora.h has made; may be null.
    static Value adopt(telvora_value* value) {
        Value owner;
        owner.value_.reset(value);
        return owner;
    }

    View view() const { return value_.get(); }
    operator View() const { return view(); }
    const telvora_value* get() const { return value_.get(); }

  protected:
    // The value, which `make` makes if this is empty.
    telvora_value* mutableValue(telvora_value* (*make)()) {
        if (!value_) value_.reset(checked(make()));
        return value_.get();
    }

  private:
    struct Free {
        void operator()(telvora_value* value) const { telvora_value_free(value); }
    };
    static telvora_value* checked(telvora_value* value) {
        if (value == nullptr) throw std::bad_alloc();
        return value;
    }
    static telvora_value* copied(View value) {
        return value ? checked(telvora_value_copy(value.get())) : nullptr;
    }

    std::unique_ptr<telvora_value, Free> value_;
};

// Content of an entry or element: a boolean, a number, text, bytes, a time, or another value. Refers to bytes
// and values, which must outlive it.
class Input {
  public:
    Input(bool value) : content_(value) {}
    template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Input(T value)
        : content_(static_cast<int64_t>(value)) {}
    Input(double value) : content_(value) {}
    Input(const char* value) : content_(std::string(value)) {}
    Input(std::string_view value) : content_(std::string(value)) {}
    Input(std::string value) : content_(std::move(value)) {}
    template <typename Bytes>
    requires std::is_convertible_v<const Bytes&, std::span<const std::byte>> Input(const Bytes& value)
        : content_(std::span<const std::byte>(value)) {}
    Input(Time value) : content_(value) {}
    Input(std::chrono::system_clock::time_point value) : content_(Time(value)) {}
    Input(View value) : content_(value) {}
    Input(const Value& value) : content_(value.view()) {}

    // Sets the entry `key` of a dictionary, or appends to an array if `key` is null.
    void putInto(telvora_value* container, const char* key) const {
        const Status status =
            std::visit([=](const auto& value) { return put(container, key, value); }, content_);
        if (status == TELVORA_ERROR_RESOURCES) throw std::bad_alloc();
    }

  private:
    static Status put(telvora_value* c, const char* k, bool v) { return telvora_set_bool(c, k, v); }
    static Status put(telvora_value* c, const char* k, int64_t v) { return telvora_set_int(c, k, v); }
    static Status put(telvora_value* c, const char* k, double v) { return telvora_set_double(c, k, v); }
    static Status put(telvora_value* c, const char* k, const std::string& v) {
        return telvora_set_string(c, k, v.c_str());
    }
    static Status put(telvora_value* c, const char* k, std::span<const std::byte> v) {
        return telvora_set_data(c, k, v.data(), v.size());
    }
    static Status put(telvora_value* c, const char* k, Time v) {
        return telvora_set_date(c, k, v.time_since_epoch().count());
    }
    static Status put(telvora_value* c, const char* k, View v) { return telvora_set_value(c, k, v.get()); }

    std::variant<bool, int64_t, double, std::string, std::span<const std::byte>, Time, View> content_;
};

// A dictionary to fill. It is empty until the first set(); operations pass NULL then.
class Dictionary : public Value {
  public:
    Dictionary() = default;
    Dictionary(std::initializer_list<std::pair<std::string, Input>> entries) {
        for (const auto& [key, value] : entries)
            set(key, value);
    }
    // Takes ownership of a dictionary that a function of telvora.h has made; may be null.
    static Dictionary adopt(telvora_value* value) {
        Dictionary owner;
        static_cast<Value&>(owner) = Value::adopt(value);
        return owner;
    }
    Dictionary& set(const std::string& key, const Input& value) {
        value.putInto(mutableValue(telvora_dictionary_new), key.c_str());
        return *this;
    }
};

class Array : public Value {
  public:
    Array() { mutableValue(telvora_array_new); }
    Array(std::initializer_list<Input> elements) : Array() {
        for (const Input& element : elements)
            append(element);
    }
    Array& append(const Input& element) {
        element.putInto(mutableValue(telvora_array_new), nullptr);
        return *this;
    }
};

// A copy of a session info for a session one level below in the same hierarchy. Empty if the session info has
// no hierarchy token.
inline Dictionary childInfo(View sessionInfo, uint32_t sessionID) {
    return Dictionary::adopt(telvora_child_info(sessionInfo.get(), sessionID));
}

// Error of a backend; see telvora_answer_error().
struct Error {
    std::string domain;
    int32_t code = 0;
    std::string description;
};

// Result of an operation, as a copy.
struct Answer {
    Status status = TELVORA_OK;
    std::string message;  // description of the failure, for people
    Value value;          // may be empty
    std::optional<Error> error;

    bool ok() const { return status == TELVORA_OK; }
    std::optional<std::string_view> text() const { return value.view().string(); }

    Answer() = default;
    explicit Answer(const telvora_answer* answer)
        : status(telvora_answer_status(answer)),
          message(telvora_answer_message(answer)),
          value(View(telvora_answer_value(answer))) {
        const char* domain = nullptr;
        const char* description = nullptr;
        int32_t code = 0;
        if (telvora_answer_error(answer, &domain, &code, &description)) {
            error = Error{domain, code, description};
        }
    }
};

// Called on the library's thread. May be empty.
using Completion = std::function<void(const Answer& answer)>;

// Argument of a message handler; see telvora_message_handler. Valid during the call.
struct Message {
    View sessionInfo;
    Time timestamp;
    uint16_t category = 0;
    uint16_t type = 0;
    View payload;

    bool isEndMarker() const {
        return !sessionInfo && !payload && timestamp == Time() && category == 0 && type == 0;
    }
};

// Argument of a connection handler; see telvora_connection_handler. Valid during the call.
struct ConnectionChange {
    telvora_connection_event event = TELVORA_CONNECTION_LOST;
    uint64_t lostCalls = 0;
    std::string_view reason;
};

// Replaces the daemon in tests; see "Recorders" in telvora.h.
class Recorder {
  public:
    Recorder() : recorder_(telvora_recorder_new()) {
        if (!recorder_) throw std::bad_alloc();
    }
    // Sets the answer to later calls of an operation, or of all operations if `operation` is null.
    void answer(const char* operation, Status status, View value = {}) {
        if (telvora_recorder_answer(recorder_.get(), operation, status, value.get()) != TELVORA_OK)
            throw std::bad_alloc();
    }
    Status deliver(const Message& message) {
        return telvora_recorder_deliver(recorder_.get(), message.sessionInfo.get(),
                                        message.timestamp.time_since_epoch().count(), message.category,
                                        message.type, message.payload.get());
    }
    // Copies of the stored calls, in the form that telvora.h describes.
    std::vector<Value> calls() const {
        std::vector<Value> calls(telvora_recorder_count(recorder_.get()));
        for (size_t i = 0; i < calls.size(); ++i)
            calls[i] = Value::adopt(telvora_recorder_call_copy(recorder_.get(), i));
        return calls;
    }
    void clear() { telvora_recorder_clear(recorder_.get()); }
    telvora_recorder* get() const { return recorder_.get(); }

  private:
    struct Free {
        void operator()(telvora_recorder* recorder) const { telvora_recorder_free(recorder); }
    };
    std::unique_ptr<telvora_recorder, Free> recorder_;
};

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

// Makes an operation awaitable. The coroutine resumes on the library's thread with the Answer, or at once if
// the operation fails:
//
//     const telvora::Answer answer = co_await telvora::Awaitable(
//         [&](telvora::Completion done) { return session.flush(std::move(done)); });
template <typename Operation>
class Awaitable {
  public:
    explicit Awaitable(Operation operation) : operation_(std::move(operation)) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> waiting) {
        // The coroutine may resume, and destroy this object, before the operation returns.
        Operation operation = std::move(operation_);
        const Status status = operation([this, waiting](const Answer& answer) {
            answer_ = answer;
            waiting.resume();
        });
        if (status == TELVORA_OK) return true;
        answer_.status = status;
        return false;
    }
    Answer await_resume() { return std::move(answer_); }

  private:
    Operation operation_;
    Answer answer_;
};

}  // namespace v1
}  // namespace telvora
