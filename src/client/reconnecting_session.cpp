// SPDX-License-Identifier: Apache-2.0
#include "client/reconnecting_session.h"

#include <algorithm>

#include "telvora/keys.h"

namespace telvora {

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

telvora_status ReconnectingSession::call(Request request, AnswerHandler done) {
    const MutexLock lock(lock_);
    const bool fresh = link_ == nullptr;
    const bool connected = !fresh || connectForCall();
    if (connected && link_->unanswered.load() >= ClientSession::kMaxPendingCalls) return TELVORA_ERROR_BUSY;

    const bool setsInfo = request.operation == Operation::kSetSessionInfo;
    const bool starts = request.operation == Operation::kStartConfig;
    remember(request);
    if (!connected) return TELVORA_ERROR_UNAVAILABLE;
    if (fresh) replay(!setsInfo, !setsInfo && !starts);
    send(std::move(request), std::move(done));
    if (fresh && setsInfo) replay(false, true);
    return TELVORA_OK;
}

bool ReconnectingSession::connectForCall() {
    const auto now = clock_();
    if (now < nextAttempt_) return false;
    nextAttempt_ = now + kMinRetryDelay;
    return connect();
}

bool ReconnectingSession::connect() {
    const auto link = std::make_shared<Link>();
    ClientSession::Handlers handlers;
    if (handlers_.message) {
        handlers.aggregationBlock = [self = weak_from_this()](const AggregatedMessage& message) {
            if (const auto still = self.lock()) still->handlers_.message(message);
        };
    }
    handlers.connectionLost = [self = weak_from_this(),
                               weak = std::weak_ptr(link)](const std::string& reason) {
        const auto still = self.lock();
        const auto lost = weak.lock();
        if (still && lost) still->connectionLost(lost, reason);
    };
    const MutexLock forking(forkLock);
    auto session = ClientSession::connect(runtime_, socketPath_, std::move(handlers), FullBacklog::kFails);
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
    if (link_ || closed_ || !handlers_.message || !info_) return;
    if (atOnce && connect()) return replay(true, true);
    retry_ = startTimer_(retryDelay_, [self = weak_from_this()] {
        if (const auto still = self.lock()) still->reconnect(true);
    });
    retryDelay_ = std::min<std::chrono::milliseconds>(2 * retryDelay_, kMaxRetryDelay);
}

void ReconnectingSession::remember(const Request& request) {
    switch (request.operation) {
        case Operation::kSetSessionInfo:
            info_.emplace();
            info_->sessionInfo = request.sessionInfo;
            info_->userInfo = request.userInfo;
            info_->frameworksToCheck = request.frameworksToCheck;
            requiresUserInfo_ = request.sessionInfo.boolean(kTelvoraSessionInfoRequireUserInfo);
            break;
        case Operation::kStartConfig:
            started_ = true;
            break;
        case Operation::kFetchStates:
            rememberUserInfo(request.userInfo);
            break;
        case Operation::kSendSingleMessage:
            requiresUserInfo_ = request.sessionInfo.boolean(kTelvoraSessionInfoRequireUserInfo);
            rememberUserInfo(request.userInfo);
            break;
        default:
            break;
    }
}

// As in the daemon: a session that requires user info keeps it when a call has none.
void ReconnectingSession::rememberUserInfo(const std::optional<Dictionary>& userInfo) {
    if (info_ && (userInfo || !requiresUserInfo_)) info_->userInfo = userInfo;
}

void ReconnectingSession::replay(bool info, bool start) {
    info = info && info_;
    start = start && started_;
    ClientSession& session = *link_->session;
    const auto restored = [self = weak_from_this(), link = link_](const auto& answer) {
        const auto still = self.lock();
        if (!still || !answer) return;
        link->good = true;
        if (still->handlers_.connection) {
            still->handlers_.connection(TELVORA_CONNECTION_RESTORED, still->lostCalls(), "");
        }
    };
    if (info) {
        Completion<void> completion;
        if (!start) completion = restored;
        session.setSessionInfo(info_->sessionInfo, info_->userInfo, info_->frameworksToCheck, completion);
    }
    if (start) {
        link_->started = true;
        session.startConfig(restored);
    }
}

void ReconnectingSession::send(Request request, AnswerHandler done) {
    if (request.operation == Operation::kStartConfig && std::exchange(link_->started, true))
        link_->session->flushMessages({});
    ++link_->unanswered;
    telvora::send(link_->session, std::move(request),
                  [self = weak_from_this(), link = link_, done = std::move(done)](Answer answer) {
                      --link->unanswered;
                      if (answer.status == TELVORA_OK || answer.status == TELVORA_ERROR_REFUSED)
                          link->good = true;
                      if (answer.status == TELVORA_ERROR_LOST) {
                          const auto still = self.lock();
                          if (!still || still->closed_) {
                              answer.status = TELVORA_ERROR_CLOSED;
                          } else if (!link->ended) {
                              ++still->lostCalls_;  // the first call to find the connection lost
                          }
                      }
                      done(std::move(answer));
                  });
}

// This runs on the thread of the answers and before the completions of lost calls: every call of the link
// that is unanswered now stays so.
void ReconnectingSession::connectionLost(const std::shared_ptr<Link>& link, const std::string& reason) {
    const bool lasted = link->good && clock_() - link->since >= kMinRetryDelay;
    {
        const MutexLock lock(lock_);
        if (link_ != link) return;
        link_ = nullptr;
        if (link->good) nextAttempt_ = {};
        if (lasted) retryDelay_ = kMinRetryDelay;
        link->ended = true;
        lostCalls_ += link->unanswered.load();
    }
    if (handlers_.connection) handlers_.connection(TELVORA_CONNECTION_LOST, lostCalls(), reason);
    reconnect(lasted);
}

void ReconnectingSession::close() {
    closed_ = true;
    const MutexLock lock(lock_);
    retry_ = nullptr;
    if (link_) link_->session->invalidate();
}

}  // namespace telvora
