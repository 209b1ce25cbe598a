// SPDX-License-Identifier: Apache-2.0
//
// An HTTPSPostBackend on the device of a user who consents, and a look into what it posts.
#pragma once

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <zlib.h>

#include <memory>
#include <string>
#include <vector>

#include "backends/https_post_backend.h"
#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {

struct HTTPSPostRig : BackendRig {
    explicit HTTPSPostRig(Dictionary deviceProperties = {}) : BackendRig(std::move(deviceProperties)) {
        setConsent(true);
        http.setHandler([](const HttpRequest&) { return lab::FakeHttpClient::response(200); });
    }

    // A bag's entry under which the rig's session reports.
    static Dictionary reportingClient() {
        return {{"locale_whitelist", "CH"},
                {"filters", Array{}},
                {"sampling_threshold", 0.5},
                {"event_threshold", 49},
                {"post_url", "https://post.example/"},
                {"realtime_post_url", "https://realtime.example/"}};
    }

    // A backend that requires user info and has it, not batching.
    std::shared_ptr<HTTPSPostBackend> makeBackend(Array clients) {
        auto backend = HTTPSPostBackend::make(services, kTelvoraBackendHTTPPost,
                                              profileOf({{"clients", std::move(clients)}}), "PhoneOne");
        backend->setCompType(7);
        backend->setSessionID(42);
        backend->setClientVersion(11);
        backend->setHardwareType("Model1,1");
        backend->setProductVersion("12.1");
        backend->setSelfVersion("3.1.9");
        backend->setStartTimestamp(kNow);
        backend->setRequireUserInfo(true);
        backend->setUserInfoDict(shared(userInfoOf("app", "network")));
        return backend;
    }

    std::shared_ptr<HTTPSPostBackend> makeReportingBackend(const Dictionary& changes = {}) {
        Dictionary client = reportingClient();
        client.merge(changes);
        auto backend = makeBackend({std::move(client)});
        backend->updateState();
        EXPECT_EQ(backend->state(), BackendState::reporting);
        return backend;
    }
};

// A request's body as plain text.
inline std::string plainBody(const HttpRequest& request) {
    if (lab::headerOf(request, "Content-Encoding") != "gzip") return request.body;
    std::string plain(size_t{4} << 20, '\0');
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(request.body.data()));
    stream.avail_in = static_cast<uInt>(request.body.size());
    stream.next_out = reinterpret_cast<Bytef*>(plain.data());
    stream.avail_out = static_cast<uInt>(plain.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    plain.resize(stream.total_out);
    inflateEnd(&stream);
    return plain;
}

inline rapidjson::Document messageOf(const HttpRequest& request) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseFullPrecisionFlag>(plainBody(request).c_str());
    EXPECT_FALSE(document.HasParseError());
    return document;
}

// A backend that reports.
struct ReportingRig : HTTPSPostRig {
    explicit ReportingRig(const Dictionary& changes = {}, bool batch = false)
        : backend(makeReportingBackend(changes)) {
        backend->setBatchEvents(batch);
    }

    // Sends a report of type 6.
    std::optional<std::string> send(SendFlag flag = {}, uint16_t category = 5,
                                    const std::optional<Dictionary>& payload = Dictionary{}) const {
        return backend->sendMessage(payload, kNow, category, 6, flag);
    }
    rapidjson::Document message(size_t at = 0) const { return messageOf(http.requests().at(at)); }
    // "_eventNumber" of each event, request by request.
    std::vector<std::vector<int>> posts() const {
        std::vector<std::vector<int>> all;
        for (const HttpRequest& request : http.requests()) {
            const rapidjson::Document posted = messageOf(request);
            all.emplace_back();
            for (const auto& event : posted["events"].GetArray())
                all.back().push_back(event["_eventNumber"].GetInt());
        }
        return all;
    }

    std::shared_ptr<HTTPSPostBackend> backend;
};

}  // namespace telvora::test
