// SPDX-License-Identifier: Apache-2.0
//
// An HTTPSPostBackend on the device of a user who consents, and access to its posts.
#pragma once

#include <gtest/gtest.h>

#include "backends/https_post_backend.h"
#include "tests/support/backend_rig.h"
#include "tests/support/posted_message.h"

namespace telvora::test {

constexpr auto kWaiting = BackendState::waitingForUserInfo, kDisabled = BackendState::disabled,
               kReporting = BackendState::reporting, kSampledOut = BackendState::sampledOut;
constexpr SendFlag kPlain{0}, kRealtime{1}, kPromote{2}, kPromoteRealtime{3};
constexpr char kPost[] = "https://post.example/", kRealtimePost[] = "https://realtime.example/";

using Urls = std::vector<std::string>;
using Flushed = std::pair<std::optional<std::string>, std::optional<TelvoraError>>;

// A bag's entry under which the rig's session reports.
inline Dictionary reportingClient(const Dictionary& changes = {}) {
    Dictionary client{{"locale_whitelist", "CH"}, {"filters", Array{}}, {"sampling_threshold", 0.5},
                      {"event_threshold", 49},    {"post_url", kPost},  {"realtime_post_url", kRealtimePost}};
    client.merge(changes);
    return client;
}

// Client type 7, with a change.
template <typename Change>
BackendIdentity identityWith(Change change) {
    BackendIdentity identity = identityOf(7);
    change(identity);
    return identity;
}

inline BackendIdentity batching() {
    return identityWith([](auto& identity) { identity.batchEvents = true; });
}

// A flush. Its completion has to be called once, at once, with the same answer.
inline Flushed flush(TelvoraBackend& backend) {
    std::vector<Flushed> calls;
    const auto answer = backend.flushMessagesWithCompletion(
        [&calls](auto told, auto error) { calls.emplace_back(std::move(told), std::move(error)); });
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls.at(0).first, answer);
    return calls.at(0);
}

struct HTTPSPostRig : BackendRig {
    HTTPSPostRig() {
        setConsent(true);
        http.setHandler([](const HttpRequest&) { return FakeHttpClient::response(200); });
    }

    Urls urls() const {
        Urls urls;
        for (const HttpRequest& request : http.requests())
            urls.push_back(request.url);
        return urls;
    }
    // A backend that has user info.
    std::shared_ptr<HTTPSPostBackend> makeBackend(Array clients, BackendIdentity as = identityOf(7)) {
        auto backend =
            HTTPSPostBackend::make(services, kTelvoraBackendHTTPPost,
                                   profileOf({{"clients", std::move(clients)}}), shared(std::move(as)));
        backend->setUserInfoDict(shared(userInfoOf("app", "network")));
        return backend;
    }
    std::shared_ptr<HTTPSPostBackend> makeReportingBackend(const Dictionary& changes = {},
                                                           BackendIdentity as = identityOf(7)) {
        auto backend = makeBackend({reportingClient(changes)}, std::move(as));
        backend->updateState();
        EXPECT_EQ(backend->state(), kReporting);
        return backend;
    }
};

// A backend that reports.
struct ReportingRig : HTTPSPostRig {
    explicit ReportingRig(const Dictionary& changes = {}, BackendIdentity as = identityOf(7))
        : backend(makeReportingBackend(changes, std::move(as))) {}

    // Sends a report of type 6.
    std::optional<std::string> send(SendFlag flag = kPlain, uint16_t category = 5,
                                    const std::optional<Dictionary>& payload = Dictionary{}) const {
        return backend->sendMessage(payload, kNow, category, 6, flag);
    }
    lab::EventMessage message(size_t at = 0) const { return messageOf(http.requests().at(at)); }
    // The first event of a request.
    Dictionary event(size_t at = 0) const { return message(at).events->at(0); }
    // "_eventNumber" of each event, request by request.
    std::vector<std::vector<int64_t>> posts() const {
        std::vector<std::vector<int64_t>> all(http.requestCount());
        for (size_t at = 0; at < all.size(); ++at) {
            const lab::EventMessage posted = message(at);
            for (const Dictionary& one : *posted.events)
                all[at].push_back(one.integer("_eventNumber").value());
        }
        return all;
    }

    std::shared_ptr<HTTPSPostBackend> backend;
};

}  // namespace telvora::test
