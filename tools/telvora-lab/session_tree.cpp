// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/session_tree.h"

#include <optional>
#include <string_view>
#include <unordered_map>

namespace telvora::lab {
namespace {

class Sessions {
  public:
    void take(std::string_view combinedID) {
        std::optional<size_t> above;
        while (true) {
            const size_t dot = combinedID.find('.');
            const size_t session = indexOf(std::string(combinedID.substr(0, dot)));
            if (above && !isAbove(session, *above)) sessions_[session].parent = above;
            above = session;
            if (dot == std::string_view::npos) break;
            combinedID.remove_prefix(dot + 1);
        }
        ++sessions_[*above].events;
    }

    std::vector<SessionNode> below(std::optional<size_t> parent) const {
        std::vector<SessionNode> nodes;
        for (size_t i = 0; i < sessions_.size(); ++i) {
            if (sessions_[i].parent != parent) continue;
            nodes.push_back({sessions_[i].sessionID, sessions_[i].events, below(i)});
        }
        return nodes;
    }

  private:
    struct Session {
        std::string sessionID;
        size_t events = 0;
        std::optional<size_t> parent;
    };

    size_t indexOf(const std::string& sessionID) {
        const auto [place, isNew] = places_.emplace(sessionID, sessions_.size());
        if (isNew) sessions_.push_back({sessionID, 0, std::nullopt});
        return place->second;
    }
    // Whether `session` is `other` or one of its ancestors.
    bool isAbove(size_t session, size_t other) const {
        for (std::optional<size_t> at = other; at; at = sessions_[*at].parent) {
            if (*at == session) return true;
        }
        return false;
    }

    std::vector<Session> sessions_;
    std::unordered_map<std::string, size_t> places_;
};

}  // namespace

std::vector<SessionNode> sessionTree(const std::vector<Dictionary>& events) {
    Sessions sessions;
    for (const Dictionary& event : events) {
        if (const std::string* id = event.string("_sessionID")) {
            sessions.take(*id);
        } else if (const auto number = event.integer("_sessionID")) {
            sessions.take(std::to_string(*number));
        }
    }
    return sessions.below(std::nullopt);
}

Array describeTree(const std::vector<SessionNode>& nodes) {
    Array described;
    for (const SessionNode& node : nodes) {
        described.push_back(Dictionary{{"sessionID", node.sessionID},
                                       {"events", node.events},
                                       {"children", describeTree(node.children)}});
    }
    return described;
}

}  // namespace telvora::lab
