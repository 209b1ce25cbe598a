// SPDX-License-Identifier: Apache-2.0
//
// Bags that let reports through, for whoever needs one.
#pragma once

#include <string>

#include "platform/property_list.h"

namespace telvora::lab {

// An entry of "clients" that any client fits and that lets everything through to the laboratory's reporting
// server.
inline Dictionary openClientEntry() {
    return {
        {"post_url", "@events@"},    {"realtime_post_url", "@realtime@"},
        {"locale_whitelist", "US"},  {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}}}},
        {"sampling_threshold", 1.0}, {"event_threshold", 49}};
}

// A bag with one backend, "httpPost", in the section "release".
inline Dictionary bagWithClients(Array clients, const std::string& version = "1.0") {
    return {{"version", version},
            {"release", Dictionary{{"httpPost", Dictionary{{"clients", std::move(clients)}}}}}};
}

inline Dictionary openBag(const std::string& version = "1.0") {
    return bagWithClients({openClientEntry()}, version);
}

}  // namespace telvora::lab
