// SPDX-License-Identifier: Apache-2.0
#include "session/session_hierarchies.h"

#include "session/telvorad_session.h"
#include "util/log.h"

namespace telvora {

namespace {

// An empty list stays, because its token's sessions often come and go. This bounds the memory that a client
// can take by inventing tokens.
constexpr size_t kMaxIdleTokenBytes = size_t{1} << 20;

}  // namespace

void SessionHierarchies::updateCorrelatedSessions(const std::shared_ptr<TelvoradSession>& session) {
    const std::optional<std::string> token = session->hierarchyToken();
    if (!token) {
        TELVORA_LOG(
            kLogInfo,
            "updateCorrelatedSessions: Session %u has no correlated sessions as it is a standalone session",
            session->sessionID());
        return;
    }
    const RecursiveMutexLock lock(lock_);
    removeFromList(*session);
    const auto hierarchy = correlatedSessions_.try_emplace({*token, session->hierarchyUser()}).first;
    SessionList& list = hierarchy->second;
    if (list.size() >= kMaxSessions) {
        TELVORA_LOG(kLogWarning,
                    "updateCorrelatedSessions: Session %u does not join the %zu sessions of its hierarchy",
                    session->sessionID(), list.size());
        return;
    }
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
    listOfSession_[session.get()] = hierarchy;  // first: by it, the session leaves the list again
    list.push_back(session);
    if (newTokenBytes_ > kMaxIdleTokenBytes) dropEmptyLists();
    count_ = correlatedSessions_.size();
}

void SessionHierarchies::leave(const TelvoradSession& session) {
    if (!session.everInHierarchy()) return;
    const RecursiveMutexLock lock(lock_);
    removeFromList(session);
}

void SessionHierarchies::removeFromList(const TelvoradSession& session) {
    const auto found = listOfSession_.find(&session);
    if (found == listOfSession_.end()) return;
    std::erase_if(found->second->second, [&](const auto& member) { return member.get() == &session; });
    listOfSession_.erase(found);
}

void SessionHierarchies::dropEmptyLists() {
    std::erase_if(correlatedSessions_, [](const auto& entry) { return entry.second.empty(); });
    newTokenBytes_ = 0;
}

bool SessionHierarchies::othersHaveToken(const std::string& token, uid_t user) const {
    for (auto at = correlatedSessions_.lower_bound({token, 0});
         at != correlatedSessions_.end() && at->first.first == token; ++at) {
        if (at->first.second != user && !at->second.empty()) return true;
    }
    return false;
}

const SessionHierarchies::SessionList* SessionHierarchies::sessionsOfToken(const std::string& token,
                                                                           uid_t user) const {
    const auto found = correlatedSessions_.find({token, user});
    return found != correlatedSessions_.end() && !found->second.empty() ? &found->second : nullptr;
}

bool SessionHierarchies::isListed(const TelvoradSession& session, const SessionList& sessions) const {
    const auto found = listOfSession_.find(&session);
    return found != listOfSession_.end() && &found->second->second == &sessions;
}

std::shared_ptr<TelvoradSession> SessionHierarchies::getFirstSessionWithHierarchy(int64_t level,
                                                                                  const LevelIndex& index) {
    const auto found = index.levels.find(level);
    return found != index.levels.end() ? found->second.first : nullptr;
}

std::optional<std::string> SessionHierarchies::parentSessionIDStringForSession(
    const TelvoradSession& session) {
    const std::optional<std::string> token = session.hierarchyToken();
    const int64_t level = session.hierarchyLevel();
    if (level == 0 || !token) return std::nullopt;
    TELVORA_LOG(kLogDebug, "parentSessionIDStringForSession: Checking hierarchyToken '%s' for session %u",
                token->c_str(), session.sessionID());

    const RecursiveMutexLock lock(lock_);
    const SessionList* sessions = sessionsOfToken(*token, session.hierarchyUser());
    if (sessions == nullptr) {
        TELVORA_LOG(kLogError,
                    "parentSessionIDStringForSession: ERROR: No sessions found for hierarchyToken %s",
                    token->c_str());
        return std::nullopt;
    }
    if (!isListed(session, *sessions)) {
        TELVORA_LOG(kLogInfo, "parentSessionIDStringForSession: Session %u not found for hierarchyToken %s",
                    session.sessionID(), token->c_str());
        return std::nullopt;
    }
    std::optional<LevelIndex> made;
    const LevelIndex& index = indexOf(*sessions, made);
    const auto found = index.levels.find(level - 1);
    const LevelIndex::Level parent =
        found != index.levels.end() ? found->second : LevelIndex::Level{nullptr, level <= 0};
    std::string path = index.paths.substr(parent.pathBegin, parent.pathEnd - parent.pathBegin);
    if (!parent.complete) {
        TELVORA_LOG(
            kLogInfo,
            "parentSessionIDStringForSession: Found a gap in hierarchy (one of parents missing): incomplete parentSessionID is '%s'",
            path.c_str());
    }
    return parent.first ? std::optional(std::move(path)) : std::nullopt;
}

const SessionHierarchies::LevelIndex& SessionHierarchies::indexOf(const SessionList& sessions,
                                                                  std::optional<LevelIndex>& made) const {
    return &sessions == indexedList_ ? index_ : made.emplace(indexLevels(sessions));
}

// In one pass from the top, so that an update of a deep hierarchy does not walk up from each session.
SessionHierarchies::LevelIndex SessionHierarchies::indexLevels(const SessionList& sessions) {
    LevelIndex index;
    for (const auto& member : sessions)
        index.levels.try_emplace(member->hierarchyLevel(), LevelIndex::Level{member});
    const LevelIndex::Level* above = nullptr;
    for (auto& [number, level] : index.levels) {
        if (number < 0) continue;
        const bool follows = number > 0 && index.levels.contains(number - 1);
        level.complete = number == 0 || (follows && above->complete);
        level.pathBegin = follows ? above->pathBegin : index.paths.size();
        if (follows) index.paths += '.';
        index.paths += level.first->sessionIDString();
        level.pathEnd = index.paths.size();
        above = &level;
    }
    return index;
}

std::shared_ptr<TelvoradSession> SessionHierarchies::parentSessionForChild(const TelvoradSession& child)
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
    if (!isListed(child, *sessions)) {
        TELVORA_LOG(kLogError, "parentSessionForChild: ERROR: Session %u not found for hierarchyToken %s",
                    child.sessionID(), token->c_str());
        return nullptr;
    }
    std::optional<LevelIndex> made;
    auto parent = getFirstSessionWithHierarchy(level - 1, indexOf(*sessions, made));
    if (!parent) {
        TELVORA_LOG(
            kLogError,
            "parentSessionForChild: Unable to find session with hierarchy of %d for hierarchyToken '%s'",
            static_cast<int>(level - 1), token->c_str());
    }
    return parent;
}

std::shared_ptr<TelvoradSession> SessionHierarchies::getAncestorWithAggregatorForSession(
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

    // The first session of each level, top first. Only few levels exist, whatever number a client sends.
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

void SessionHierarchies::updateDownstreamSessions(TelvoradSession& session) {
    if (!session.userInfo()) {
        TELVORA_LOG(kLogInfo, "updateDownstreamSessions: No user info found for session %u",
                    session.sessionID());
        return;
    }
    const std::optional<std::string> token = session.hierarchyToken();
    if (!token) return;

    const RecursiveMutexLock lock(lock_);
    const SessionList* sessions = sessionsOfToken(*token, session.hierarchyUser());
    struct Index {
        SessionHierarchies& of;
        ~Index() {
            of.indexedList_ = nullptr;
            of.index_ = {};
        }
    } const index{*this};
    if (sessions != nullptr) {
        index_ = indexLevels(*sessions);
        indexedList_ = sessions;
    }
    updateListedSessions(session, sessions);
}

void SessionHierarchies::updateListedSessions(TelvoradSession& session, const SessionList* sessions) {
    session.updateCombinedSessionID();
    session.syncReportingStates();
    const int64_t level = session.hierarchyLevel();
    const bool ancestorAggregates = level >= 1 && getAncestorWithAggregatorForSession(session) != nullptr;
    if (ancestorAggregates) session.shutdownSessionAggregation();

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
