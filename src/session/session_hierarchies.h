// SPDX-License-Identifier: Apache-2.0
//
// SessionHierarchies: the live sessions of each hierarchy, and the rules by which they find and update each
// other.
//
// A token and a user (TelvoradSession::hierarchyUser) identify a hierarchy: clients can guess each other's
// tokens, and the sessions of a hierarchy see and control each other's reports. The list of a hierarchy keeps
// the order in which its sessions joined. "The session of level n" is always the first of that level in the
// list.
//
// The recursive hierarchy lock guards all of it. Operations take the lock themselves and are callable from
// any thread, except those that leave it to their caller to hold lock().
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "util/mutex.h"

namespace telvora {

class TelvoradSession;

class SessionHierarchies {
  public:
    // The most sessions of a hierarchy, each of which an update visits.
    static constexpr size_t kMaxSessions = 256;

    // The hierarchy lock.
    RecursiveMutex& lock() { return lock_; }

    // Adds the session to the list of its token and user, and removes it from its former list. A session
    // without a token is not listed; one that gave up its token stays in its list. A session
    // that comes after kMaxSessions others is not listed, with a line at level 4.
    void updateCorrelatedSessions(const std::shared_ptr<TelvoradSession>& session);
    // Removes a session that ends from its list.
    void leave(const TelvoradSession& session);
    // Number of lists, empty ones included. Does not wait for the lock.
    size_t count() const { return count_.load(); }

    // The dotted IDs of the session's ancestors, top first, down from the first level without a session.
    // `std::nullopt` if there is no parent.
    std::optional<std::string> parentSessionIDStringForSession(const TelvoradSession& session);
    // The session one level above, or null. The caller holds lock().
    std::shared_ptr<TelvoradSession> parentSessionForChild(const TelvoradSession& child);
    // The highest ancestor that aggregates, or null. The caller holds lock(), unless the session's level is
    // 0: only the session is read then.
    std::shared_ptr<TelvoradSession> getAncestorWithAggregatorForSession(const TelvoradSession& session);
    // Updates the combined IDs and reporting states of the session and of all deeper sessions of its
    // hierarchy. Ends the aggregation of sessions with an ancestor that aggregates.
    void updateDownstreamSessions(TelvoradSession& session);

  private:
    using SessionList = std::vector<std::shared_ptr<TelvoradSession>>;
    using Lists = std::map<std::pair<std::string, uid_t>, SessionList>;  // by token and user

    // The levels of a list, by number. The path of a level: the dotted IDs of the first sessions of this
    // level and those above it, top first, down from the last gap. It begins with the path of the level
    // above, so one text holds all paths.
    struct LevelIndex {
        struct Level {
            std::shared_ptr<TelvoradSession> first;
            bool complete = true;  // whether no level above lacks a session
            size_t pathBegin = 0;  // in `paths`
            size_t pathEnd = 0;
        };
        std::map<int64_t, Level> levels;
        std::string paths;
    };

    const SessionList* sessionsOfToken(const std::string& token, uid_t user) const TELVORA_REQUIRES(lock_);
    bool isListed(const TelvoradSession& session, const SessionList& sessions) const TELVORA_REQUIRES(lock_);
    void updateListedSessions(TelvoradSession& session, const SessionList* sessions) TELVORA_REQUIRES(lock_);
    static LevelIndex indexLevels(const SessionList& sessions);
    // The index of the list; made in `made`, unless an update of the list is running.
    const LevelIndex& indexOf(const SessionList& sessions, std::optional<LevelIndex>& made) const
        TELVORA_REQUIRES(lock_);
    bool othersHaveToken(const std::string& token, uid_t user) const TELVORA_REQUIRES(lock_);
    void removeFromList(const TelvoradSession& session) TELVORA_REQUIRES(lock_);
    void dropEmptyLists() TELVORA_REQUIRES(lock_);
    static std::shared_ptr<TelvoradSession> getFirstSessionWithHierarchy(int64_t level,
                                                                         const LevelIndex& index);

    RecursiveMutex lock_{LockRank::agent};
    Lists correlatedSessions_ TELVORA_GUARDED_BY(lock_);
    std::unordered_map<const TelvoradSession*, Lists::iterator> listOfSession_ TELVORA_GUARDED_BY(lock_);
    // While updateDownstreamSessions() runs: the list that it updates, and its index.
    const SessionList* indexedList_ TELVORA_GUARDED_BY(lock_) = nullptr;
    LevelIndex index_ TELVORA_GUARDED_BY(lock_);
    // Bytes of the tokens that were added since empty lists were last dropped.
    size_t newTokenBytes_ TELVORA_GUARDED_BY(lock_) = 0;
    std::atomic<size_t> count_{0};
};

}  // namespace telvora
