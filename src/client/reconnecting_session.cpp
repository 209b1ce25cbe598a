// SPDX-License-Identifier: Apache-2.0
#include "client/reconnecting_session.h"

#include "client/fork_lock.h"

namespace telvora {

ReconnectingSession::ReconnectingSession(ClientRuntime& runtime, std::string socketPath, Handlers handlers,
                                         Clock clock)
    : runtime_(runtime),
      socketPath_(std::move(socketPath)),
      handlers_(std::move(handlers)),
      clock_(std::move(clock)) {}

ReconnectingSession::~ReconnectingSession() {
    ReconnectingSession::close();
}

telvora_status ReconnectingSession::call(Request request, AnswerHandler done) {
    const MutexLock lock(lock_);
    const bool fresh = link_ == nullptr;
    const bool connected = !fresh || connect();
    if (connected && link_->unanswered.load() >= ClientSession::kMaxPendingCalls) return TELVORA_ERROR_BUSY;

    const bool tells = request.operation == Operation::kSetSessionInfo;
    const bool starts = request.operation == Operation::kStartConfig;
    if (connected && fresh) replay(!tells, !tells && !starts);
    remember(request);
    if (!connected) return TELVORA_ERROR_UNAVAILABLE;
    send(std::move(request), std::move(done));
    if (fresh && tells) replay(false, true);
    return TELVORA_OK;
}

bool ReconnectingSession::connect() {
    const auto now = clock_();
    if (now < nextAttempt_) return false;
    nextAttempt_ = now + kRest;

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
    link_ = link;
    return true;
}

void ReconnectingSession::remember(const Request& request) {
    if (request.operation == Operation::kSetSessionInfo) {
        info_.emplace();
        info_->sessionInfo = request.sessionInfo;
        info_->userInfo = request.userInfo;
        info_->frameworksToCheck = request.frameworksToCheck;
    }
    if (request.operation == Operation::kStartConfig) started_ = true;
    if (request.operation == Operation::kFetchStates && request.userInfo && info_) {
        info_->userInfo = request.userInfo;
    }
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
        Completion<void> told;
        if (!start) told = restored;
        session.setSessionInfo(info_->sessionInfo, info_->userInfo, info_->frameworksToCheck, told);
    }
    if (start) session.startConfig(restored);
}

void ReconnectingSession::send(Request request, AnswerHandler done) {
    ++link_->unanswered;
    carryOut(link_->session, std::move(request),
             [self = weak_from_this(), link = link_, done = std::move(done)](Answer answer) {
                 --link->unanswered;
                 if (answer.status == TELVORA_OK || answer.status == TELVORA_ERROR_REFUSED) link->good = true;
                 if (answer.status == TELVORA_ERROR_LOST) {
                     const auto still = self.lock();
                     if (!still || still->closed_) {
                         answer.status = TELVORA_ERROR_CLOSED;
                     } else if (!link->ended) {
                         ++still->lostCalls_;  // it was the first to find the connection dead
                     }
                 }
                 done(std::move(answer));
             });
}

// Everything that was called on the link, and has not been answered by now, never will be: this runs where
// the answers run, and before the calls are told.
void ReconnectingSession::connectionLost(const std::shared_ptr<Link>& link, const std::string& reason) {
    {
        const MutexLock lock(lock_);
        if (link_ != link) return;
        link_ = nullptr;
        if (link->good) nextAttempt_ = {};
        link->ended = true;
        lostCalls_ += link->unanswered.load();
    }
    if (handlers_.connection) handlers_.connection(TELVORA_CONNECTION_LOST, lostCalls(), reason);
}

void ReconnectingSession::close() {
    closed_ = true;
    const MutexLock lock(lock_);
    if (link_) link_->session->invalidate();
}

}  // namespace telvora
