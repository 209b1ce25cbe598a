// SPDX-License-Identifier: Apache-2.0
//
// What a session asks of its agent: its bag, and its place among the sessions that belong together.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "async/work_pool.h"
#include "plist/property_list.h"
#include "util/mutex.h"

namespace telvora {

class TelvoradSession;

// All operations are synchronous and callable from any thread. Those that say "under the lock" leave it to
// their caller to hold hierarchyLock().
class TelvoradSessionDelegate {
  public:
    virtual ~TelvoradSessionDelegate() = default;

    // The environment's section of the bag for the session's client type, or null. May block for 15 seconds:
    // takes the lock and holds it across a fetch.
    virtual std::shared_ptr<const Dictionary> storebagForSession(const TelvoradSession& session) = 0;
    // The version of the bag that storebagForSession() last found, or nothing. Never fetches.
    virtual std::optional<std::string> storebagVersionForSession(const TelvoradSession& session) = 0;

    // Enters the session in the list of its hierarchy token, leaving the list it was in.
    virtual void updateCorrelatedSessions(const std::shared_ptr<TelvoradSession>& session) = 0;
    // The dotted IDs of the session's ancestors, top first, or nothing.
    virtual std::optional<std::string> parentSessionIDStringForSession(const TelvoradSession& session) = 0;
    // The session one level above, or null. Under the lock.
    virtual std::shared_ptr<TelvoradSession> parentSessionForChild(const TelvoradSession& child) = 0;
    // The highest ancestor that aggregates, or null. Under the lock; without a hierarchy token or above level
    // 1 it looks at nothing but the session, and then needs no lock.
    virtual std::shared_ptr<TelvoradSession> getAncestorWithAggregatorForSession(
        const TelvoradSession& session) = 0;
    // Gives the session and all deeper ones of its hierarchy their combined IDs and reporting states anew.
    virtual void updateDownstreamSessions(TelvoradSession& session) = 0;

    // Guards the hierarchy and the bag cache. It is held across bag fetches: take it with a DelegateLock.
    virtual RecursiveMutex& hierarchyLock() = 0;
};

// Holds a delegate's lock for a scope. The lock may be held for seconds by somebody who fetches a bag: a
// thread that has to wait for it tells the work pool, so that others go on.
class TELVORA_TSA(scoped_lockable) DelegateLock {
  public:
    explicit DelegateLock(RecursiveMutex& mutex) TELVORA_TSA(acquire_capability(mutex)) : mutex_(mutex) {
        acquire();
    }
    ~DelegateLock() TELVORA_TSA(release_capability()) { mutex_.unlock(); }
    DelegateLock(const DelegateLock&) = delete;
    DelegateLock& operator=(const DelegateLock&) = delete;

  private:
    void acquire() TELVORA_NO_THREAD_SAFETY_ANALYSIS {
        if (mutex_.try_lock()) return;
        const BlockingSection blocking;
        mutex_.lock();
    }

    RecursiveMutex& mutex_;
};

}  // namespace telvora
