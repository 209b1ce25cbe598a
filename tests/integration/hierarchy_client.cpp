// SPDX-License-Identifier: Apache-2.0
//
// A client process for the tests of hierarchies.
//
//   hierarchy_client SOCKET TOKEN churn SESSIONS ROUNDS
//     In every round: sessions join the hierarchy at all its levels, all at once, report, and leave without
//     goodbye. Exits with status 0 when every call was answered.
//   hierarchy_client SOCKET TOKEN flood LEVEL
//     One session that keeps reports under way until it is killed. Prints "flooding" once they flow.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <latch>
#include <string>
#include <vector>

#include "client/client_session.h"
#include "telvora/keys.h"

namespace telvora::test {
namespace {

constexpr int kLevels = 4;
constexpr int kAggregatesEvery = 10;
constexpr int kReports = 3;
constexpr int kWindow = 64;

struct Target {
    std::string socketPath;
    std::string token;
};

std::unique_ptr<ClientSession> join(ClientRuntime& runtime, const Target& target, int64_t sessionID,
                                    int64_t level, bool aggregates, const Completion<void>& done) {
    ClientSession::Handlers handlers;
    if (aggregates) handlers.aggregationBlock = [](const AggregatedMessage&) {};
    auto session = ClientSession::connect(runtime, target.socketPath, std::move(handlers));
    if (!session) {
        std::cerr << session.error() << std::endl;
        std::exit(1);
    }
    const Dictionary sessionInfo{
        {kTelvoraSessionInfoSessionID, sessionID},
        {kTelvoraSessionInfoClientType, 8},
        {kTelvoraSessionInfoRequireUserInfo, true},
        {kTelvoraSessionInfoBatchEvent, true},
        {kTelvoraSessionInfoHierarchyToken,
         Dictionary{{kTelvoraHierarchyTokenTokenID, target.token}, {kTelvoraHierarchyTokenLevel, level}}}};
    const Dictionary userInfo{{kTelvoraUserInfoClientName, "hierarchy"},
                              {kTelvoraUserInfoServiceName, "integration"}};
    (*session)->setSessionInfo(sessionInfo, userInfo, {}, done);
    return std::move(*session);
}

int churn(const Target& target, int sessions, int rounds) {
    std::atomic<int> failures = 0;
    ClientRuntime runtime;
    for (int round = 0; round < rounds; ++round) {
        const auto answers = std::make_shared<std::latch>(sessions * (2 + kReports));
        const auto answered = [&failures, answers](const auto& answer) {
            if (!answer && ++failures == 1) std::cerr << answer.error().message << std::endl;
            answers->count_down();
        };
        std::vector<std::unique_ptr<ClientSession>> joined;
        for (int i = 0; i < sessions; ++i) {
            joined.push_back(join(runtime, target, i, i % kLevels, i % kAggregatesEvery == 0, answered));
            joined.back()->startConfig(answered);
            for (uint16_t report = 0; report < kReports; ++report)
                joined.back()->sendMessage(4, report, Dictionary{{"n", i}}, answered);
        }
        answers->wait();
    }
    return failures == 0 ? 0 : 1;
}

class Flood {
  public:
    Flood(const Target& target, int64_t level)
        : session_(join(runtime_, target, 1000, level, false, nullptr)) {}

    [[noreturn]] void run() {
        session_->startConfig([this](const auto&) {
            for (int i = 0; i < kWindow; ++i)
                sendNext();
        });
        std::promise<void>().get_future().wait();
        std::abort();
    }

  private:
    void sendNext() {
        session_->sendMessage(4, 1, Dictionary{{"text", std::string(500, 'x')}}, [this](const auto& answer) {
            if (!answer) return;
            if (++answers_ == kWindow) std::cout << "flooding" << std::endl;
            sendNext();
        });
    }

    int answers_ = 0;  // on the runtime's thread
    ClientRuntime runtime_;
    std::unique_ptr<ClientSession> session_;
};

int run(const std::vector<std::string>& arguments) {
    if (arguments.size() < 4) return 2;
    const Target target{arguments[0], arguments[1]};
    if (arguments[2] == "churn" && arguments.size() == 5) {
        return churn(target, std::stoi(arguments[3]), std::stoi(arguments[4]));
    }
    if (arguments[2] == "flood") Flood(target, std::stoi(arguments[3])).run();
    return 2;
}

}  // namespace
}  // namespace telvora::test

int main(int argc, char** argv) {
    return telvora::test::run({argv + 1, argv + argc});
}
