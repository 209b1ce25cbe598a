// SPDX-License-Identifier: Apache-2.0
#include "client/reconnecting_session.h"

#include <algorithm>

#include "telvora/keys.h"

namespace telvora {

namespace {

std::optional<Dictionary> copyOf(const Dictionary* dictionary) {
    return dictionary != nullptr ? std::optional(*dictionary) : std::nullopt;
}

}  // namespace

ReconnectingSession::ReconnectingSession(ClientRuntime& runtime, std::string socketPath, Handlers handlers,
                                         Clock clock, StartTimer startTimer)
    : runtime_(runtime),
      socketPath_(std::move(socketPath)),
      handlers_(std::move(handlers)),
      clock_(std::move(clock)),
      startTimer_(startTimer ? std::move(startTimer)
                             : [&runtime](std::chrono::milliseconds delay, std::function<void()> due) {
                                   return runtime.startTimer(delay, std::move(due));
                               }) {}

ReconnectingSession::~ReconnectingSession() {
    ReconnectingSession::close();
}

// While the session is connected, the lock is held for a look at the link only: the call is written without
// it.
telvora_status ReconnectingSession::call(Request&& request, AnswerHandler&& done) {
    Remembered remembered(request);
    std::shared_ptr<Link> link;
    bool restarts = false;
    {
        const MutexLock lock(lock_);
        const bool fresh = link_ == nullptr;
        const bool connected = !fresh || connectForCall();
        if (connected && link_->traffic->unanswered.load() >= ClientSession::kMaxPendingCalls)
            return TELVORA_ERROR_BUSY;
        const Operation operation = request.operation;
        remember(remembered, operation);
        if (!connected) return TELVORA_ERROR_UNAVAILABLE;
        ++link_->traffic->unanswered;
        if (fresh) {
            open(std::move(request), std::move(done));
            return TELVORA_OK;
        }
        restarts = operation == Operation::kStartConfig && std::exchange(link_->started, true);
        link = link_;
    }
    send(*link, std::move(request), restarts, std::move(done));
    return TELVORA_OK;
}

// Sends the first call of a connection, and the replay.
void ReconnectingSession::open(Request&& request, AnswerHandler&& done) {
    const bool setsInfo = request.operation == Operation::kSetSessionInfo;
    const bool starts = request.operation == Operation::kStartConfig;
    replay(!setsInfo, !setsInfo && !starts);
    if (starts) link_->started = true;
    send(*link_, std::move(request), false, std::move(done));
    if (setsInfo) replay(false, true);
}

bool ReconnectingSession::connectForCall() {
    const auto now = clock_();
    if (now < nextAttempt_) return false;
    nextAttempt_ = now + kMinRetryDelay;
    return connect();
}

bool ReconnectingSession::connect() {
    const auto link = std::make_shared<Link>();
    link->traffic = std::make_shared<Traffic>(losses_);
    ClientSession::Handlers handlers;
    if (handlers_.message) {
        handlers.aggregationBlock = [self = weak_from_this()](const AggregatedMessage& message) {
            if (const auto still = self.lock()) still->handlers_.message(message);
        };
    }
    handlers.connectionLost = [self = weak_from_this(), weak = std::weak_ptr(link),
                               traffic = link->traffic](const std::string& reason) {
        const auto still = self.lock();
        const auto lost = weak.lock();
        if (still && lost) still->connectionLost(lost, reason);
    };
    const MutexLock forking(forkLock);
    auto session = ClientSession::connect(runtime_, socketPath_, std::move(handlers), FullBacklog::kFails,
                                          CallLimit::kNone);
    if (!session) return false;
    link->session = std::move(*session);
    link->since = clock_();
    link_ = link;
    retry_ = nullptr;
    return true;
}

// Calls that come meanwhile connect on their own, so that they reach a new daemon as early as possible.
void ReconnectingSession::reconnect(bool atOnce) {
    const MutexLock lock(lock_);
    if (link_ || losses_->closed || !handlers_.message || !info_) return;
    if (atOnce && connect()) return replay(true, true);
    retry_ = startTimer_(retryDelay_, [self = weak_from_this()] {
        if (const auto still = self.lock()) still->reconnect(true);
    });
    retryDelay_ = std::min<std::chrono::milliseconds>(2 * retryDelay_, kMaxRetryDelay);
}

ReconnectingSession::Remembered::Remembered(const Request& request) {
    switch (request.operation) {
        case Operation::kSetSessionInfo:
            info = Info{*request.sessionInfo, copyOf(request.userInfo), frameworkNames(request)};
            requiresUserInfo = request.sessionInfo->boolean(kTelvoraSessionInfoRequireUserInfo);
            break;
        case Operation::kFetchStates:
            setsUserInfo = true;
            userInfo = copyOf(request.userInfo);
            break;
        case Operation::kSendSingleMessage:
            requiresUserInfo = request.sessionInfo->boolean(kTelvoraSessionInfoRequireUserInfo);
            setsUserInfo = true;
            userInfo = copyOf(request.userInfo);
            break;
        default:
            break;
    }
}

void ReconnectingSession::remember(Remembered& given, Operation operation) {
    if (operation == Operation::kStartConfig) started_ = true;
    if (given.requiresUserInfo) requiresUserInfo_ = *given.requiresUserInfo;
    if (given.info) info_.swap(given.info);
    // As in the daemon: a session that requires user info keeps it when a call has none.
    if (given.setsUserInfo && info_ && (given.userInfo || !requiresUserInfo_))
        info_->userInfo.swap(given.userInfo);
}

void ReconnectingSession::replay(bool info, bool start) {
    info = info && info_;
    start = start && started_;
    ClientSession& session = *link_->session;
    const auto restored = [self = weak_from_this(), traffic = link_->traffic.get()](const auto& answer) {
        const auto still = self.lock();
        if (!still || !answer) return;
        traffic->good = true;
        if (still->handlers_.connection) {
            still->handlers_.connection(TELVORA_CONNECTION_RESTORED, still->lostCalls(), "");
        }
    };
    if (info) {
        Completion<void> completion;
        if (!start) completion = restored;
        session.setSessionInfo(info_->sessionInfo, info_->userInfo, info_->frameworksToCheck,
                               std::move(completion));
    }
    if (start) {
        link_->started = true;
        session.startConfig(restored);
    }
}

void ReconnectingSession::send(const Link& link, Request&& request, bool restarts, AnswerHandler&& done) {
    telvora::send(link.session, std::move(request), restarts,
                  [traffic = link.traffic.get(), done = std::move(done)](Answer answer) mutable {
                      traffic->answered(answer);
                      done(std::move(answer));
                  });
}

void ReconnectingSession::Traffic::answered(Answer& answer) {
    --unanswered;
    if (!good && (answer.status == TELVORA_OK || answer.status == TELVORA_ERROR_REFUSED)) good = true;
    if (answer.status != TELVORA_ERROR_LOST) return;
    if (losses->closed) {
        answer.status = TELVORA_ERROR_CLOSED;
    } else if (!ended) {
        ++losses->calls;  // the first call to find the connection lost
    }
}

// This runs on the thread of the answers and before the completions of lost calls: every call of the link
// that is unanswered now stays so.
void ReconnectingSession::connectionLost(const std::shared_ptr<Link>& link, const std::string& reason) {
    const bool lasted = link->traffic->good && clock_() - link->since >= kMinRetryDelay;
    {
        const MutexLock lock(lock_);
        if (link_ != link) return;
        link_ = nullptr;
        if (link->traffic->good) nextAttempt_ = {};
        if (lasted) retryDelay_ = kMinRetryDelay;
        link->traffic->ended = true;
        losses_->calls += link->traffic->unanswered.load();
    }
    if (handlers_.connection) handlers_.connection(TELVORA_CONNECTION_LOST, lostCalls(), reason);
    reconnect(lasted);
}

void ReconnectingSession::close() {
    losses_->closed = true;
    const MutexLock lock(lock_);
    retry_ = nullptr;
    if (link_) link_->session->invalidate();
}

}  // namespace telvora
