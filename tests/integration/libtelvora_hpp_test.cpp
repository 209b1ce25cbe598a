// SPDX-License-Identifier: Apache-2.0
//
// telvora.hpp, and the recorder for an application's own tests. No daemon is involved.
#include <gmock/gmock.h>

#include <telvora/telvora.hpp>

namespace {

using telvora::Answer;
using telvora::Array;
using telvora::Dictionary;
using telvora::View;
using testing::ElementsAre;

// A coroutine that runs without a caller.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

TEST(LibtelvoraHpp, KeepsEveryKindOfValue) {
    const std::byte bytes[] = {std::byte{0}, std::byte{255}};
    const telvora::Time time(std::chrono::duration<double>(1000.5));
    const Array array{1, "two", Array{3.5}};
    Dictionary dictionary{{"bool", true},     {"int", uint32_t{4'000'000'000}}, {"double", 0.25},
                          {"text", "grüezi"}, {"data", std::span(bytes)},       {"date", time},
                          {"array", array}};
    dictionary.set("dictionary", dictionary).set("double", 0.5);
    const telvora::Value copy = dictionary;
    dictionary = {};
    EXPECT_EQ(dictionary.get(), nullptr);

    const View view = copy;
    ASSERT_EQ(view.size(), 8u);
    EXPECT_EQ(view.keyAt(0), "array");
    EXPECT_EQ(view.at(8).get(), nullptr);
    EXPECT_TRUE(view["bool"].boolean());
    EXPECT_EQ(view["int"].integer(), 4'000'000'000);
    EXPECT_EQ(view["double"].real(), 0.5);
    EXPECT_EQ(view["text"].string(), "grüezi");
    EXPECT_EQ(view["text"].integer(), 0);
    EXPECT_THAT(view["data"].data(), ElementsAre(bytes[0], bytes[1]));
    EXPECT_EQ(view["date"].time(), time);
    EXPECT_EQ(view["array"].at(2).at(0).real(), 3.5);
    EXPECT_EQ(view["dictionary"]["double"].real(), 0.25);
    EXPECT_FALSE(view["none"]);
    const telvora_type types[] = {TELVORA_TYPE_ARRAY, TELVORA_TYPE_BOOL,       TELVORA_TYPE_DATA,
                                  TELVORA_TYPE_DATE,  TELVORA_TYPE_DICTIONARY, TELVORA_TYPE_DOUBLE,
                                  TELVORA_TYPE_INT,   TELVORA_TYPE_STRING};
    const Dictionary token{{kTelvoraHierarchyTokenLevel, 1}, {kTelvoraHierarchyTokenTokenID, "t"}};
    const Dictionary parent{{kTelvoraSessionInfoHierarchyToken, token}};
    EXPECT_EQ(telvora::childInfo(parent, 7).view()[kTelvoraSessionInfoSessionID].integer(), 7);
    EXPECT_FALSE(telvora::childInfo(token, 7).view());
    for (size_t i = 0; i < view.size(); ++i)
        EXPECT_EQ(view.at(i).type(), types[i]) << view.keyAt(i);
    telvora_value* list = telvora_array_new();
    EXPECT_EQ(telvora_set_int(list, "key", 1), TELVORA_ERROR_INVALID);
    EXPECT_EQ(telvora_set_int(nullptr, "key", 1), TELVORA_ERROR_INVALID);
    telvora_value_free(list);
}

TEST(LibtelvoraHpp, RecordsWhatWouldBeSent) {
    using namespace std::chrono_literals;
    telvora::Recorder recorder;
    std::vector<std::string> heard;
    const auto note = [&heard](const Answer& answer) {
        heard.push_back(answer.ok() ? std::string(answer.text().value_or("-")) : "failed");
    };
    telvora::Session session({.recorder = &recorder, .onMessage = [&](const telvora::Message& message) {
                                  heard.push_back(std::string(*message.payload["k"].string()));
                              }});
    recorder.answer("sendMessage", TELVORA_OK, Dictionary{{"x", "kept"}}.view()["x"]);
    recorder.answer("flushMessages", TELVORA_ERROR_LOST);
    recorder.answer("finishSession", TELVORA_ERROR_UNAVAILABLE);
    session.setInfo({{kTelvoraSessionInfoSessionID, 1}}, {{kTelvoraUserInfoClientName, "me"}});
    EXPECT_EQ(session.send(5, 6, {{"fruit", "quince"}}, note), TELVORA_OK);
    EXPECT_EQ(session.flush(note), TELVORA_OK);
    EXPECT_EQ(session.uploadFile("/nowhere"), TELVORA_OK);
    const Dictionary payload{{"k", "delivered"}};
    recorder.deliver({{}, {}, 5, 6, payload});
    EXPECT_EQ(session.wait(60s), TELVORA_ERROR_LOST);
    EXPECT_EQ(session.finish(note), TELVORA_ERROR_UNAVAILABLE);
    // Named, since a coroutine's captures live in its closure.
    const auto coroutine = [&]() -> Detached {
        heard.push_back("awaits");
        const Answer answer = co_await telvora::Awaitable(
            [&](telvora::Completion done) { return session.fetchDisplayURL(std::move(done)); });
        note(answer);
    };
    coroutine();
    EXPECT_EQ(session.wait(60s), TELVORA_ERROR_UNAVAILABLE);
    EXPECT_THAT(heard, ElementsAre("kept", "failed", "delivered", "awaits", "URL not available"));

    const std::vector<telvora::Value> calls = recorder.calls();
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].view()["operation"].string(), "setSessionInfo");
    EXPECT_TRUE(calls[0].view()["hasAggregationBlock"].boolean());
    EXPECT_EQ(calls[0].view()["userInfo"][kTelvoraUserInfoClientName].string(), "me");
    EXPECT_EQ(calls[1].view()["category"].integer(), 5);
    EXPECT_EQ(calls[1].view()["payload"]["fruit"].string(), "quince");
    EXPECT_EQ(calls[3].view()["path"].string(), "/nowhere");
}

}  // namespace
