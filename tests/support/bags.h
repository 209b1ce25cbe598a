// SPDX-License-Identifier: Apache-2.0
//
// Bags that let all reports through.
#pragma once

#include <string>

#include "plist/property_list.h"

namespace telvora::test {

// An entry of "clients" that matches any client and, but for `changes`, lets all reports through to the
// laboratory's reporting server.
inline Dictionary openClientEntry(const Dictionary& changes = {}) {
    Dictionary entry{
        {"post_url", "@events@"},    {"realtime_post_url", "@realtime@"},
        {"locale_whitelist", "US"},  {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}}}},
        {"sampling_threshold", 1.0}, {"event_threshold", 49}};
    entry.merge(changes);
    return entry;
}

// A bag with these backends in the section "release".
inline Dictionary bagWithBackends(Dictionary backends) {
    return {{"version", "1.0"}, {"release", std::move(backends)}};
}

// A bag with one backend, "httpPost".
inline Dictionary bagWithClients(Array clients) {
    return bagWithBackends({{"httpPost", Dictionary{{"clients", std::move(clients)}}}});
}

// A bag with an open "httpPost", and also these backends.
inline Dictionary openBag(Dictionary more = {}) {
    more.set("httpPost", Dictionary{{"clients", Array{openClientEntry()}}});
    return bagWithBackends(std::move(more));
}

}  // namespace telvora::test
