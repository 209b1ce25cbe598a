// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "protocol/client_session_interface.h"

namespace telvora::test {

// Records all calls, and answers as the test has configured.
class FakeSession : public ClientSessionInterface {
  public:
    std::vector<PropertyList> calls;
    // If set, receives the reply instead of answering at once.
    std::function<void(StringReply)> onSendMessage;
    std::vector<std::string> reportingStates{"httpPost", "dashboard"};
    bool answersFlushes = true;

    void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                        std::vector<std::string> frameworks, bool hasAggregationBlock) override {
        Array names(frameworks.begin(), frameworks.end());
        note("setSessionInfo", {sessionInfo, orNothing(userInfo), names, hasAggregationBlock});
    }
    void startConfigWithCompletionHandler(ReportingStatesReply reply) override {
        note("startConfig", {});
        reply(reportingStates);
    }
    void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo, ReportingStatesReply reply) override {
        note("fetchStates", {orNothing(userInfo)});
        reply(std::nullopt);
    }
    void fetchDisplayURL(TextReply reply) override {
        note("fetchDisplayURL", {});
        reply("URL not available");
    }
    void sendMessageWithCategory(uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                 StringReply reply) override {
        note("sendMessageWithCategory", {unsigned{category}, unsigned{type}, orNothing(payload)});
        if (onSendMessage) return onSendMessage(std::move(reply));
        reply(std::nullopt);
    }
    void sendMessageWithDictionary(Dictionary, StringReply) override {}
    void flushMessagesWithCompletion(FlushReply reply) override {
        note("flushMessages", {});
        if (answersFlushes) reply("flushed", makeTelvoraError("no", 503));
    }
    void finishSessionWithReply(StringReply reply) override {
        note("finishSession", {});
        reply("finished");
    }
    void uploadFileAtPath(std::string, std::string, UploadFileReply) override {}
    void uploadLogData(Array, UploadLogDataReply) override {}
    void sendMessageWithSessionInfo(Dictionary, std::optional<Dictionary>, uint16_t, uint16_t,
                                    std::optional<Dictionary>, TextReply) override {}

  private:
    void note(const char* operation, Array arguments) {
        calls.push_back(Dictionary{{operation, std::move(arguments)}});
    }
    static PropertyList orNothing(const std::optional<Dictionary>& value) {
        return value ? PropertyList(*value) : PropertyList("nothing");
    }
};

}  // namespace telvora::test
