// SPDX-License-Identifier: Apache-2.0
//
// The hierarchies: per token and user, the live sessions in the order in which they came. "The session of
// level n" always means the first of that level in the list.
#include <algorithm>

#include "daemon/telvorad_agent.h"
#include "util/log.h"

namespace telvora {

namespace {

// Lists stay when they empty, so that a token keeps its place while its sessions come and go. This bounds
// what a client can leave behind by inventing tokens.
constexpr size_t kMaxIdleTokenBytes = size_t{1} << 20;

}  // namespace

void TelvoradAgent::updateCorrelatedSessions(const std::shared_ptr<TelvoradSession>& session) {
    const std::optional<std::string> token = session->hierarchyToken();
    if (!token) {
        TELVORA_LOG(
            kLogInfo,
            "updateCorrelatedSessions: Session %u has no correlated sessions as it is a standalone session",
            session->sessionID());
        return;
    }
    const DelegateLock lock(lock_);
    leaveCorrelatedSessions(*session);
    const auto hierarchy = correlatedSessions_.try_emplace({*token, session->hierarchyUser()}).first;
    SessionList& list = hierarchy->second;
    if (list.empty()) newTokenBytes_ += token->size() + sizeof(SessionList);
    TELVORA_LOG(
        kLogDebug,
        "updateCorrelatedSessions: Adding session %u to list for hierarchyToken %s with hierarchyLevel %d",
        session->sessionID(), token->c_str(), static_cast<int>(session->hierarchyLevel()));
    if (othersHaveToken(*token, session->hierarchyUser())) {
        TELVORA_LOG(
            kLogInfo,
            "updateCorrelatedSessions: Session %u does not join other users' sessions with hierarchyToken %s",
            session->sessionID(), token->c_str());
    }
    list.push_back(session);
    hierarchyPlaces_[session.get()] = hierarchy;
    if (newTokenBytes_ > kMaxIdleTokenBytes) dropEmptyLists();
    correlatedSessionsCount_ = correlatedSessions_.size();
}

void TelvoradAgent::leaveCorrelatedSessions(const TelvoradSession& session) {
    const auto place = hierarchyPlaces_.find(&session);
    if (place == hierarchyPlaces_.end()) return;
    std::erase_if(place->second->second, [&](const auto& member) { return member.get() == &session; });
    hierarchyPlaces_.erase(place);
}

void TelvoradAgent::dropEmptyLists() {
    std::erase_if(correlatedSessions_, [](const auto& entry) { return entry.second.empty(); });
    newTokenBytes_ = 0;
}

bool TelvoradAgent::othersHaveToken(const std::string& token, uid_t user) const {
    for (auto at = correlatedSessions_.lower_bound({token, 0});
         at != correlatedSessions_.end() && at->first.first == token; ++at) {
        if (at->first.second != user && !at->second.empty()) return true;
    }
    return false;
}

const TelvoradAgent::SessionList* TelvoradAgent::sessionsOfToken(const std::string& token, uid_t user) const {
    const auto found = correlatedSessions_.find({token, user});
    return found != correlatedSessions_.end() && !found->second.empty() ? &found->second : nullptr;
}

std::shared_ptr<TelvoradSession> TelvoradAgent::getFirstSessionWithHierarchy(int64_t level,
                                                                             const SessionList& sessions) {
    const auto found = std::find_if(sessions.begin(), sessions.end(),
                                    [&](const auto& session) { return session->hierarchyLevel() == level; });
    return found != sessions.end() ? *found : nullptr;
}

std::optional<std::string> TelvoradAgent::parentSessionIDStringForSession(const TelvoradSession& session) {
    const std::optional<std::string> token = session.hierarchyToken();
    const int64_t level = session.hierarchyLevel();
    if (level == 0 || !token) return std::nullopt;
    TELVORA_LOG(kLogDebug, "parentSessionIDStringForSession: Checking hierarchyToken '%s' for session %u",
                token->c_str(), session.sessionID());

    const DelegateLock lock(lock_);
    const SessionList* sessions = sessionsOfToken(*token, session.hierarchyUser());
    if (sessions == nullptr) {
        TELVORA_LOG(kLogError,
                    "parentSessionIDStringForSession: ERROR: No sessions found for hierarchyToken %s",
                    token->c_str());
        return std::nullopt;
    }
    if (std::none_of(sessions->begin(), sessions->end(),
                     [&](const auto& s) { return s.get() == &session; })) {
        TELVORA_LOG(kLogInfo, "parentSessionIDStringForSession: Session %u not found for hierarchyToken %s",
                    session.sessionID(), token->c_str());
        return std::nullopt;
    }
    std::optional<std::string> combined;
    for (int64_t ancestorLevel = level - 1; ancestorLevel >= 0; --ancestorLevel) {
        const auto ancestor = getFirstSessionWithHierarchy(ancestorLevel, *sessions);
        if (!ancestor) {
            TELVORA_LOG(
                kLogInfo,
                "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '%s'",
                combined.value_or("").c_str());
            break;
        }
        combined = combined ? ancestor->sessionIDString() + "." + *combined : ancestor->sessionIDString();
    }
    return combined;
}

std::shared_ptr<TelvoradSession> TelvoradAgent::parentSessionForChild(const TelvoradSession& child)
    TELVORA_NO_THREAD_SAFETY_ANALYSIS {
    const std::optional<std::string> token = child.hierarchyToken();
    const int64_t level = child.hierarchyLevel();
    if (level == 0 || !token) return nullptr;
    TELVORA_LOG(kLogDebug, "parentSessionForChild: Checking hierarchyToken '%s' for session %u",
                token->c_str(), child.sessionID());

    const SessionList* sessions = sessionsOfToken(*token, child.hierarchyUser());
    if (sessions == nullptr) {
        TELVORA_LOG(kLogError, "parentSessionForChild: ERROR: No sessions found for hierarchyToken %s",
                    token->c_str());
        return nullptr;
    }
    if (std::none_of(sessions->begin(), sessions->end(), [&](const auto& s) { return s.get() == &child; })) {
        TELVORA_LOG(kLogError, "parentSessionForChild: ERROR: Session %u not found for hierarchyToken %s",
                    child.sessionID(), token->c_str());
        return nullptr;
    }
    auto parent = getFirstSessionWithHierarchy(level - 1, *sessions);
    if (!parent) {
        TELVORA_LOG(
            kLogError,
            "parentSessionForChild: Unable to find session with hierarchy of %d for hierarchyToken '%s'",
            static_cast<int>(level - 1), token->c_str());
    }
    return parent;
}

std::shared_ptr<TelvoradSession> TelvoradAgent::getAncestorWithAggregatorForSession(
    const TelvoradSession& session) TELVORA_NO_THREAD_SAFETY_ANALYSIS {
    if (!session.userInfo()) {
        TELVORA_LOG(kLogInfo, "getAncestorWithAggregatorForSession: No user info found for session %u",
                    session.sessionID());
        return nullptr;
    }
    const int64_t level = session.hierarchyLevel();
    if (level < 1) return nullptr;
    const std::optional<std::string> token = session.hierarchyToken();
    const SessionList* sessions = token ? sessionsOfToken(*token, session.hierarchyUser()) : nullptr;
    if (sessions == nullptr) return nullptr;

    // The first session of each level, top first: the levels that exist are few, whatever number a client
    // claims.
    std::map<int64_t, const std::shared_ptr<TelvoradSession>*> firstOfLevel;
    for (const auto& member : *sessions) {
        const int64_t memberLevel = member->hierarchyLevel();
        if (memberLevel >= 0 && memberLevel < level) firstOfLevel.try_emplace(memberLevel, &member);
    }
    for (const auto& [ancestorLevel, ancestor] : firstOfLevel) {
        if ((*ancestor)->hasAggregator()) return *ancestor;
    }
    return nullptr;
}

void TelvoradAgent::updateDownstreamSessions(TelvoradSession& session) {
    if (!session.userInfo()) {
        TELVORA_LOG(kLogInfo, "updateDownstreamSessions: No user info found for session %u",
                    session.sessionID());
        return;
    }
    const std::optional<std::string> token = session.hierarchyToken();
    if (!token) return;

    const DelegateLock lock(lock_);
    session.updateCombinedSessionID();
    session.syncReportingStates();
    const int64_t level = session.hierarchyLevel();
    const bool ancestorAggregates = level >= 1 && getAncestorWithAggregatorForSession(session) != nullptr;
    if (ancestorAggregates) session.shutdownSessionAggregation();

    const SessionList* sessions = sessionsOfToken(*token, session.hierarchyUser());
    if (sessions == nullptr) return;
    for (const auto& deeper : *sessions) {
        if (deeper->hierarchyLevel() <= level) continue;
        TELVORA_LOG(
            kLogDebug,
            "updateDownstreamSessions: Updating combined session ID and syncing reporting states for session %u",
            deeper->sessionID());
        deeper->updateCombinedSessionID();
        deeper->syncReportingStates();
        // Only the highest aggregator of a hierarchy keeps aggregating.
        if ((session.hasAggregator() || ancestorAggregates) && deeper->hasAggregator()) {
            deeper->shutdownSessionAggregation();
        }
    }
}

}  // namespace telvora
