// SPDX-License-Identifier: Apache-2.0
//
// The laboratory itself: whether each of its faults is what its name says. A fault that does not happen would
// make the tests that rely on it pass for nothing.
#include <gtest/gtest.h>

#include "platform/http_client.h"
#include "platform/property_list_format.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/laboratory.h"
#include "telvora-lab/temporary_directory.h"

namespace telvora::test {
namespace {

using lab::BagFault;
using lab::ReportingFault;
using lab::TemporaryDirectory;

class Lab : public testing::Test {
  protected:
    void SetUp() override {
        auto made = lab::Laboratory::make(directory_.path() / "lab");
        ASSERT_TRUE(made) << made.error();
        laboratory_ = std::move(*made);
        CurlHttpClientOptions options;
        options.caFile = laboratory_->pki().caFile();
        client_ = makeCurlHttpClient(options);
    }

    HttpResult getBag() {
        HttpRequest request;
        request.url = laboratory_->bags().baseURL() + "/quillet?version=8.0";
        return performBlocking(*client_, std::move(request));
    }
    HttpResult post() {
        HttpRequest request;
        request.method = "POST";
        request.url = laboratory_->reports().eventsURL();
        request.headers = {{"User-Agent", "1"},
                           {"X-TVR-Client-Version", "1"},
                           {"X-TVR-Sender", "1"},
                           {"Accept", "application/json"},
                           {"Content-Type", "application/json"}};
        request.body = R"({"postTime": 1.5, "clientId": "me", "events": [{"a": 1}, {"a": 2}]})";
        return performBlocking(*client_, std::move(request));
    }

    TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
    std::unique_ptr<HttpClient> client_;
};

TEST_F(Lab, ShowsEachFaultOfABag) {
    lab::BagServer& bags = laboratory_->bags();
    bags.setBag("quillet", {{"version", "1"}});
    const struct {
        BagFault fault;
        int status;  // 0: no complete answer
        bool propertyList;
    } cases[] = {
        {BagFault::none, 200, true},         {BagFault::noAnswer, 0, false},
        {BagFault::notModified, 304, false}, {BagFault::notFound, 404, false},
        {BagFault::truncated, 0, false},     {BagFault::notAPropertyList, 200, false},
        {BagFault::unsignedBag, 200, true},  {BagFault::foreignKey, 200, true},
        {BagFault::flippedBit, 200, true},   {BagFault::innerNotAPropertyList, 200, true},
    };
    for (const auto& expected : cases) {
        bags.setFault("quillet", expected.fault);
        const HttpResult result = getBag();
        const int fault = static_cast<int>(expected.fault);
        ASSERT_EQ(result.has_value(), expected.status != 0) << fault;
        if (!result) continue;
        EXPECT_EQ(result->status, expected.status) << fault;
        EXPECT_EQ(parsePropertyList(result->body).has_value(), expected.propertyList) << fault;
        EXPECT_EQ(result->body.empty(), expected.status == 304) << fault;
    }
    EXPECT_EQ(bags.requests().front().version, "8.0");
}

TEST_F(Lab, ShowsEachFaultOfTheReportingServer) {
    const std::pair<ReportingFault, int> cases[] = {{ReportingFault::none, 200},
                                                    {ReportingFault::notFound, 404},
                                                    {ReportingFault::serviceUnavailable, 503},
                                                    {ReportingFault::noAnswer, 0},
                                                    {ReportingFault::halfAnswer, 0}};
    for (const auto& [fault, status] : cases) {
        laboratory_->reports().setFault(fault);
        const size_t before = laboratory_->reports().eventCount();
        const HttpResult result = post();
        EXPECT_EQ(result ? result->status : 0, status);
        EXPECT_GE(laboratory_->reports().eventCount(), before + 2);
    }
    EXPECT_EQ(laboratory_->reports().problems(), std::vector<std::string>());
}

TEST(EventJson, FindsTheNumbersOfEventsAlone) {
    const struct {
        const char* json;
        std::optional<std::vector<uint64_t>> numbers;
    } cases[] = {
        {R"({"n": 9, "events": [{"n": 1, "x": {"n": 7}}, {"n": 2}]})", {{1, 2}}},
        {R"({"events": []})", {{}}},
        {R"({"other": [{"n": 5}], "events": [{"n": 1}]})", {{1}}},
        {R"({"events": [{"m": 1}, {"n": -1}, {"n": 3}]})", {{3}}},
        {R"({"events": [{"n": 1})", std::nullopt},
    };
    for (const auto& [json, numbers] : cases) {
        const auto found = lab::eventNumbers(json, "n");
        EXPECT_EQ(found ? std::optional(*found) : std::nullopt, numbers) << json;
    }
}

}  // namespace
}  // namespace telvora::test
