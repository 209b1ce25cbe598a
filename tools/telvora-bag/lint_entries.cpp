// SPDX-License-Identifier: Apache-2.0
//
// Entries of "clients" that earlier entries make unreachable. The first entry whose names and framework match
// a session is used, even if its consent, country or device then refuse the session. A session that requires
// no user info only looks for an entry with a URL.
#include <algorithm>

#include "policy/client_entry.h"
#include "telvora-bag/lint_rules.h"

namespace telvora::bag {

namespace {

// The sessions that an entry applies to.
struct Audience {
    explicit Audience(const ClientEntry& entry)
        : clients(entry.clients()), services(entry.services()), since(entry.enabledSince()) {}

    StringList clients;   // empty: all
    StringList services;  // likewise
    std::array<uint8_t, 3> since;
};

// Whether every service that matches `later` also matches `earlier`.
bool coversServices(const Audience& earlier, const Audience& later) {
    if (earlier.services.empty()) return true;
    if (later.services.empty()) return false;
    return std::all_of(later.services.begin(), later.services.end(), [&](std::string_view service) {
        return matchStringWithList(earlier.services, std::string(service), true);
    });
}

// Whether `earlier` matches every session of `later` that has this client name (null: any name).
bool takesClient(const Audience& earlier, const Audience& later, const std::string_view* name) {
    const bool named =
        earlier.clients.empty() ||
        (name != nullptr && matchExactStringWithList(earlier.clients, std::string(*name), true));
    return named && coversServices(earlier, later);
}

// The first earlier entry that matches every session with this client name.
std::optional<size_t> takerOf(const std::vector<std::optional<Audience>>& audiences, size_t index,
                              const std::string_view* name, bool anyFramework) {
    const Audience& later = *audiences[index];
    for (size_t i = 0; i < index; ++i) {
        if (!audiences[i] || !takesClient(*audiences[i], later, name)) continue;
        if (anyFramework || audiences[i]->since <= later.since) return i;
    }
    return std::nullopt;
}

// The entry for sessions that require no user info: the first one with a URL. If no entry has one, the last
// entry, whose realtime URL is then used.
std::optional<size_t> entryWithoutUserInfo(const Array& clients) {
    std::optional<size_t> last;
    bool anyRealtime = false;
    for (size_t i = 0; i < clients.size(); ++i) {
        const auto entry = ClientEntry::of(clients[i]);
        if (!entry) continue;
        if (entry->postURL() != nullptr) return i;
        anyRealtime = anyRealtime || entry->realtimePostURL() != nullptr;
        last = i;
    }
    return anyRealtime ? last : std::nullopt;
}

// An entry whose sessions, where they require user info, all match entries of `takers`. True if it is never
// used.
bool reportTaken(const std::string& path, const std::string& takers, bool usedWithoutUserInfo,
                 Findings& findings) {
    if (usedWithoutUserInfo) {
        findings.warn(path, "is used only by sessions that require no user info: " + takers + " all others");
    } else {
        findings.error(path, "is never used: " + takers + " all its sessions");
    }
    return !usedWithoutUserInfo;
}

// Adds the unreachable parts of one entry. True if the whole entry is unreachable.
bool lintAudience(const std::string& path, const std::vector<std::optional<Audience>>& audiences,
                  size_t index, bool usedWithoutUserInfo, Findings& findings) {
    const std::string own = element(path, index);
    const StringList& names = audiences[index]->clients;
    if (names.empty()) {
        const auto taker = takerOf(audiences, index, nullptr, false);
        return taker &&
               reportTaken(own, element("clients", *taker) + " matches", usedWithoutUserInfo, findings);
    }
    Findings taken;
    size_t count = 0;
    for (const std::string_view name : names) {
        const auto taker = takerOf(audiences, index, &name, false);
        if (!taker) continue;
        ++count;
        taken.error(own + "/client", "never used for " + inQuotes(name) + ": " + element("clients", *taker) +
                                         " matches its sessions" +
                                         (usedWithoutUserInfo ? " that require user info" : ""));
    }
    if (count == names.size()) {
        return reportTaken(own, "earlier entries match", usedWithoutUserInfo, findings);
    }
    for (Finding& finding : taken.take())
        findings.add(std::move(finding));
    return false;
}

// "expedite" counts in the first entry that matches the names, even if that entry is for later frameworks.
void lintExpedite(const std::string& path, const std::vector<std::optional<Audience>>& audiences,
                  size_t index, Findings& findings) {
    const StringList& names = audiences[index]->clients;
    if (names.size() > 1) return;
    const auto first = takerOf(audiences, index, names.empty() ? nullptr : names.data(), true);
    if (!first) return;
    findings.error(element(path, index) + "/expedite",
                   "is never read: " + element("clients", *first) + " is the first entry of these names");
}

}  // namespace

void lintEntries(const std::string& path, const Array& clients, Findings& findings) {
    if (clients.empty()) findings.error(path, "is empty: every session that requires user info is refused");
    const auto withoutUserInfo = entryWithoutUserInfo(clients);
    std::vector<std::optional<Audience>> audiences;
    audiences.reserve(clients.size());
    for (size_t i = 0; i < clients.size(); ++i) {
        const auto entry = ClientEntry::of(clients[i]);
        audiences.push_back(entry ? std::optional<Audience>(*entry) : std::nullopt);
        if (!entry || lintAudience(path, audiences, i, i == withoutUserInfo, findings)) continue;
        if (entry->batchEvents()) lintExpedite(path, audiences, i, findings);
    }
}

}  // namespace telvora::bag
