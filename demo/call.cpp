// SPDX-License-Identifier: Apache-2.0
#include "call.h"

#include <chrono>
#include <set>
#include <utility>

#include "demo_session.h"
#include "telvora-lab/event_json.h"
#include "telvora/keys.h"
#include "tests/support/daemon_process.h"

namespace telvora::demo {
namespace {

constexpr uint32_t kCall = 3;
constexpr uint32_t kAudio = 4;
constexpr uint32_t kVideo = 5;

// The expected calls of the aggregation block for a client: its reports in order, with the user info in each
// payload.
std::vector<std::string> expectedOf(const std::string& client, size_t leaveOut) {
    std::vector<std::string> expected;
    const std::vector<Report> reports = reportsOf(client);
    for (size_t i = 0; i + leaveOut < reports.size(); ++i) {
        std::string line = std::to_string(reports[i].category) + "/" + std::to_string(reports[i].type);
        if (reports[i].category != 0) {
            Dictionary payload = reports[i].payload;
            payload.merge({{kTelvoraUserInfoClientName, client}, {kTelvoraUserInfoServiceName, "demo"}});
            line += " " + lab::toJson(payload, false);
        }
        expected.push_back(std::move(line));
    }
    return expected;
}

std::string describe(const AggregatedMessage& message) {
    std::string line = std::to_string(message.category) + "/" + std::to_string(message.type);
    if (message.category != 0 && message.payload) line += " " + lab::toJson(*message.payload, false);
    return line;
}

std::set<std::string> idsOf(const std::vector<Dictionary>& events, const std::string& client) {
    std::set<std::string> ids;
    for (const Dictionary& event : events) {
        const std::string* name = event.string(kTelvoraUserInfoClientName);
        const std::string* id = event.string("_sessionID");
        if (name && *name == client && id) ids.insert(*id);
    }
    return ids;
}

}  // namespace

std::vector<std::string> Call::hold(ClientRuntime& runtime, const std::string& socketPath) {
    const auto play = [](DemoSession& session, const char* client) {
        const std::vector<Report> reports = reportsOf(client);
        session.sendAll(reports, kFirstOwn, reports.size() - kLastOfDaemon);
        session.flush();
    };
    DemoSession call(runtime, socketPath, kCall, "call", "demo-call",
                     [this](AggregatedMessage message) { take(std::move(message)); });
    DemoSession audio = call.child(kAudio, "audio");
    DemoSession video = call.child(kVideo, "video");
    play(call, "call");
    play(audio, "audio");
    play(video, "video");
    audio.finishAndClose();
    video.finishAndClose();
    call.finish();
    // The block runs asynchronously: it receives the end messages of the two sessions after their connections
    // have ended, and the call's finish message possibly after finish() has returned. The call may end only
    // then.
    const size_t below = expectedOf("audio", 0).size() + expectedOf("video", 0).size();
    std::vector<std::string> wrong;
    if (!waitFor(below + expectedOf("call", 1).size())) {
        wrong.emplace_back("the aggregation block missed reports");
    }
    for (std::string& fault : faults())
        wrong.push_back(std::move(fault));
    return wrong;
}

void Call::take(AggregatedMessage message) {
    const MutexLock lock(mutex_);
    messages_.push_back(std::move(message));
    changed_.notify_all();
}

bool Call::waitFor(size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
    const MutexLock lock(mutex_);
    while (messages_.size() < count) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) return false;
    }
    return true;
}

std::vector<std::string> Call::faults() const {
    const std::pair<const char*, uint32_t> clients[] = {
        {"call", kCall}, {"audio", kAudio}, {"video", kVideo}};
    std::vector<std::string> wrong;
    const MutexLock lock(mutex_);
    for (const auto& [client, sessionID] : clients) {
        std::vector<std::string> got;
        for (const AggregatedMessage& message : messages_) {
            if (message.sessionInfo &&
                message.sessionInfo->integer(kTelvoraSessionInfoSessionID) == sessionID) {
                got.push_back(describe(message));
            }
        }
        // the connection of the call has ended before its own end message
        const size_t leaveOut = sessionID == kCall ? 1 : 0;
        if (got == expectedOf(client, leaveOut)) continue;
        wrong.push_back(std::string("the aggregation block was given other reports of ") + client + ":");
        wrong.insert(wrong.end(), got.begin(), got.end());
    }
    return wrong;
}

std::vector<std::string> placesInCall(const std::vector<Dictionary>& events) {
    const std::set<std::string> call = idsOf(events, "call");
    if (call.size() != 1 || call.begin()->find('.') != std::string::npos) {
        return {"the call did not report under one ID of its own"};
    }
    std::vector<std::string> wrong;
    for (const char* client : {"audio", "video"}) {
        const std::set<std::string> ids = idsOf(events, client);
        const std::string above = *call.begin() + ".";
        if (ids.size() != 1 || !ids.begin()->starts_with(above) ||
            ids.begin()->find('.', above.size()) != std::string::npos) {
            wrong.push_back(std::string(client) + " did not report under one ID below the call's");
        }
    }
    return wrong;
}

}  // namespace telvora::demo
