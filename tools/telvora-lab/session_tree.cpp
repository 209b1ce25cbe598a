// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/session_tree.h"

#include <algorithm>
#include <map>

namespace telvora::lab {
namespace {

constexpr ptrdiff_t kMaxDepth = 64;

// Fields of events that describe the device, and their names in device.plist.
constexpr std::pair<const char*, const char*> kDeviceFields[] = {{"_productFamily", "DeviceName"},
                                                                 {"_productModel", "ProductType"},
                                                                 {"_osVersion", "ProductVersion"},
                                                                 {"_build", "BuildVersion"}};

std::optional<std::string> combinedIDOf(const Dictionary& event) {
    if (const std::string* id = event.string("_sessionID")) return *id;
    if (const auto number = event.integer("_sessionID")) return std::to_string(*number);
    return std::nullopt;
}

Dictionary deviceOf(const Dictionary& event) {
    Dictionary device;
    for (const auto& [field, property] : kDeviceFields) {
        if (const std::string* value = event.string(field)) device.set(property, *value);
    }
    return device;
}

}  // namespace

void SessionTree::take(const Dictionary& event, const ClientNames& names) {
    const auto combinedID = combinedIDOf(event);
    if (!combinedID || std::count(combinedID->begin(), combinedID->end(), '.') >= kMaxDepth) return;
    std::optional<std::string> above;
    Session* session = nullptr;
    for (size_t start = 0, dot = 0; dot != std::string::npos; start = dot + 1) {
        dot = combinedID->find('.', start);
        const std::string id = combinedID->substr(start, dot - start);
        session = &reach(id);
        if (above) place(*session, id, *above);
        above = id;
    }

    SessionNode& node = session->node;
    if (node.events++ == 0) node.device = deviceOf(event);
    if (node.country.empty() && event.integer("_method") == 0) {
        if (const std::string* country = event.string("Locale")) node.country = *country;
    }
    if (!names.sender.empty() && node.names.sender != names.sender) node.names.sender = names.sender;
    if (!names.client.empty() && node.names.client != names.client) node.names.client = names.client;
    if (!names.service.empty() && node.names.service != names.service) node.names.service = names.service;
    while (sessions_.size() > maxSessions_)
        forgetOldest();
}

SessionTree::Session& SessionTree::reach(const std::string& sessionID) {
    const auto [place, isNew] = sessions_.try_emplace(sessionID);
    Session& session = place->second;
    session.lastSeen = ++clock_;
    if (isNew) {
        session.firstSeen = clock_;
        session.node.sessionID = sessionID;
    }
    return session;
}

void SessionTree::place(Session& session, const std::string& sessionID, const std::string& parent) {
    if (session.parent == parent || isAbove(sessionID, parent)) return;
    if (session.parent) --sessions_.at(*session.parent).children;
    session.parent = parent;
    ++sessions_.at(parent).children;
}

// Whether `sessionID` is `other` or one of its ancestors.
bool SessionTree::isAbove(const std::string& sessionID, const std::string& other) const {
    for (std::optional<std::string> at = other; at; at = sessions_.at(*at).parent) {
        if (*at == sessionID) return true;
    }
    return false;
}

void SessionTree::forgetOldest() {
    const auto isOlder = [](const auto& a, const auto& b) {
        if ((a.second.children == 0) != (b.second.children == 0)) return a.second.children == 0;
        return a.second.lastSeen < b.second.lastSeen;
    };
    const auto oldest = std::min_element(sessions_.begin(), sessions_.end(), isOlder);
    if (oldest->second.parent) --sessions_.at(*oldest->second.parent).children;
    sessions_.erase(oldest);
}

std::vector<SessionNode> SessionTree::roots() const {
    std::map<uint64_t, const Session*> inOrder;
    for (const auto& [id, session] : sessions_)
        inOrder.emplace(session.firstSeen, &session);
    std::map<std::optional<std::string>, std::vector<const Session*>> below;
    for (const auto& [order, session] : inOrder)
        below[session->parent].push_back(session);

    const auto nodesBelow = [&below](const auto& self, const std::optional<std::string>& parent) {
        std::vector<SessionNode> nodes;
        const auto sessions = below.find(parent);
        if (sessions == below.end()) return nodes;
        for (const Session* session : sessions->second) {
            nodes.push_back(session->node);
            nodes.back().children = self(self, session->node.sessionID);
        }
        return nodes;
    };
    return nodesBelow(nodesBelow, std::nullopt);
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
