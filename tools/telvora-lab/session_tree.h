// SPDX-License-Identifier: Apache-2.0
//
// SessionTree: the trees of sessions that the reports describe. A session of a hierarchy reports under the
// dotted IDs of its ancestors and its own, top first.
//
// Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "plist/property_list.h"

namespace telvora::lab {

// The client of a session, as the headers of its messages name it. Empty: unknown.
struct ClientNames {
    std::string sender;  // the code of the client's type
    std::string client;
    std::string service;
};

struct SessionNode {
    std::string sessionID;  // the session's own, without dots
    size_t events = 0;      // 0: known from its descendants' reports alone
    ClientNames names;
    std::string country;  // as the session's first report names it
    Dictionary device;    // as in device.plist
    std::vector<SessionNode> children;
};

class SessionTree {
  public:
    // Beyond `maxSessions`, the session without sessions below it whose last report is the oldest is
    // forgotten.
    explicit SessionTree(size_t maxSessions = 2000) : maxSessions_(maxSessions) {}

    // Takes an event into account. One without a "_sessionID", or deeper than 64 levels, has no effect. A
    // session that is reported under several parents is below the last one; a parent that would form a circle
    // is left out.
    void take(const Dictionary& event, const ClientNames& names = {});

    // The trees. Each level is in the order of first appearance.
    std::vector<SessionNode> roots() const;

  private:
    struct Session {
        std::optional<std::string> parent;
        uint64_t firstSeen = 0;
        uint64_t lastSeen = 0;
        size_t children = 0;
        SessionNode node;
    };

    Session& reach(const std::string& sessionID);
    void place(Session& session, const std::string& sessionID, const std::string& parent);
    bool isAbove(const std::string& sessionID, const std::string& other) const;
    void forgetOldest();

    const size_t maxSessions_;
    uint64_t clock_ = 0;
    std::unordered_map<std::string, Session> sessions_;  // by ID
};

// The trees as values: dictionaries with "sessionID", "events" and "children".
Array describeTree(const std::vector<SessionNode>& nodes);

}  // namespace telvora::lab
