// SPDX-License-Identifier: Apache-2.0
#include "client/application_session.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "client/handles.h"
#include "client/reconnecting_session.h"
#include "client/recorder.h"
#include "protocol/client_session_interface.h"

namespace telvora {

namespace {

// RUNTIME_DIRECTORY, which the daemon and its tools use, does not apply: in a service's environment it is the
// service's own.
std::string socketPath(const telvora_session_options& options) {
    if (options.socket_path != nullptr) return options.socket_path;
    const char* path = secure_getenv("TELVORA_SOCKET");
    if (path != nullptr && *path != '\0') return path;
    return std::string("/run/telvora/") + kTelvoradSocketName;
}

bool disabled() {
    const char* value = std::getenv("TELVORA_DISABLE");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

const telvora_value* orNull(const std::optional<Dictionary>& dictionary,
                            std::optional<PropertyList>& keeper) {
    if (!dictionary) return nullptr;
    keeper = *dictionary;
    return wrap(&*keeper);
}

}  // namespace

// A report costs one change of one counter. Only the first and the last of concurrent work take the lock; the
// process counts the sessions that have work.
void ApplicationSession::workBegins() {
    if (work_.fetch_add(1) != 0) return;
    runtime_.workBegins();
    const MutexLock lock(lock_);
    if (keepers_++ == 0) kept_ = shared_from_this();
}

// Another thread may begin work before this one gets the lock.
void ApplicationSession::workEnds() {
    if (work_.fetch_sub(1) != 1) return;
    ProcessRuntime& runtime = runtime_;
    std::shared_ptr<ApplicationSession> kept;
    {
        const MutexLock lock(lock_);
        if (--keepers_ == 0) kept = std::move(kept_);
        workDone_.notify_all();
    }
    runtime.workEnds();
}

ApplicationSession::ApplicationSession(const telvora_session_options& options)
    : runtime_(ProcessRuntime::ofThisProcess()), options_(options) {}

std::shared_ptr<ApplicationSession> ApplicationSession::make(const telvora_session_options& options) {
    std::shared_ptr<ApplicationSession> session(new ApplicationSession(options));
    ClientRuntime& runtime = session->runtime_.client();
    if (disabled()) {
        session->target_ = std::make_shared<RecordedSession>(runtime, nullptr, session->handlers());
    } else if (options.recorder != nullptr) {
        const std::shared_ptr<Recorder>& recorder = options.recorder->recorder;
        auto target = std::make_shared<RecordedSession>(runtime, recorder, session->handlers());
        recorder->addSession(target);
        session->target_ = std::move(target);
    } else {
        session->target_ =
            std::make_shared<ReconnectingSession>(runtime, socketPath(options), session->handlers());
    }
    return session;
}

SessionTarget::Handlers ApplicationSession::handlers() {
    SessionTarget::Handlers handlers;
    handlers.work = [weak = weak_from_this()]() -> std::shared_ptr<const void> {
        const auto self = weak.lock();
        return self ? std::make_shared<const Work>(*self) : nullptr;
    };
    if (options_.on_message != nullptr) {
        handlers.message = [weak = weak_from_this()](const AggregatedMessage& message) {
            const auto self = weak.lock();
            if (!self) return;
            std::optional<PropertyList> info, payload;
            self->runHandler([&] {
                self->options_.on_message(self->options_.message_context, orNull(message.sessionInfo, info),
                                          message.timestamp, message.category, message.type,
                                          orNull(message.payload, payload));
            });
        };
    }
    if (options_.on_connection != nullptr) {
        handlers.connection = [weak = weak_from_this()](telvora_connection_event event, uint64_t lostCalls,
                                                        const std::string& reason) {
            const auto self = weak.lock();
            if (!self) return;
            self->runHandler([&] {
                self->options_.on_connection(self->options_.connection_context, event, lostCalls,
                                             reason.c_str());
            });
        };
    }
    return handlers;
}

// end() waits for work that reads ended_ as false here.
template <typename Run>
void ApplicationSession::runHandler(Run run) {
    const Work work(*this);
    if (ended_ || runtime_.exiting()) return;
    const ProcessRuntime::Callback callback;
    run();
}

void ApplicationSession::answered(const Answer& answer, telvora_completion completion, void* context) {
    if (answer.status != TELVORA_OK) failed(answer.status);
    if (completion == nullptr || runtime_.exiting()) return;
    const ProcessRuntime::Callback callback;
    completion(context, wrap(&answer));
}

telvora_status ApplicationSession::failed(telvora_status status) {
    const MutexLock lock(lock_);
    if (firstFailure_ == TELVORA_OK) firstFailure_ = status;
    return status;
}

telvora_status ApplicationSession::call(Request request, telvora_completion completion, void* context) {
    if (runtime_.exiting()) return TELVORA_ERROR_EXITING;
    request.awaited = completion != nullptr;
    auto done = [work = Work(*this), completion, context](const Answer& answer) {
        work->answered(answer, completion, context);
    };
    const telvora_status status = target_->call(std::move(request), std::move(done));
    return status == TELVORA_OK ? status : failed(status);
}

telvora_status ApplicationSession::uploadFile(const char* path, telvora_completion completion,
                                              void* context) {
    Request request{.operation = Operation::kUploadFile};
    request.path = std::filesystem::absolute(path);
    if (target_->readsFiles()) {
        // The server gets the file's name from the path, so the path must not end in a symbolic link.
        request.file.reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
        if (!request.file) {
            const int error = errno;
            failed(TELVORA_ERROR_FILE);
            errno = error;
            return TELVORA_ERROR_FILE;
        }
    }
    return call(std::move(request), completion, context);
}

telvora_status ApplicationSession::wait(int64_t milliseconds) {
    if (ProcessRuntime::Callback::isRunning()) return TELVORA_ERROR_INVALID;
    constexpr int64_t kLongest = int64_t{365} * 86400 * 1000;  // does not overflow the clock
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::milliseconds(milliseconds < 0 ? kLongest : std::min(milliseconds, kLongest));
    const MutexLock lock(lock_);
    while (work_ != 0) {
        if (workDone_.wait_until(lock_, deadline) == std::cv_status::timeout && work_ != 0)
            return TELVORA_ERROR_TIMEOUT;
    }
    return std::exchange(firstFailure_, TELVORA_OK);
}

// Does not wait within exit(3), where callbacks do not run any more, or on the thread of the callbacks, which
// this function occupies.
void ApplicationSession::end() {
    ended_ = true;
    target_->close();
    if (runtime_.exiting() || ProcessRuntime::Callback::isRunning()) return;
    const MutexLock lock(lock_);
    while (work_ != 0)
        workDone_.wait(lock_);
}

}  // namespace telvora
