// SPDX-License-Identifier: Apache-2.0
#include "soak_client.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "soak_books.h"
#include "telvora/keys.h"
#include "tests/support/await.h"
#include "world.h"

namespace telvora::bench {
namespace {

// The lowest event threshold of the bags is above this number of a category.
constexpr uint64_t kMostReports = 400;

std::atomic<bool> stopped = false;

void say(const std::string& line) {
    if (write(STDOUT_FILENO, (line + '\n').data(), line.size() + 1) < 0) _exit(1);
}

class Rounds {
  public:
    Rounds(uint64_t client, uint64_t seed) : next_(client << kClientShift), random_(seed) {}

    // One batch with its flush, or some realtime reports. False if the session is of no more use.
    bool report(ClientSession& session) {
        const bool realtime = random_() % 8 == 0;
        const uint64_t count = 1 + random_() % (realtime ? 8 : kMostReports);
        say("begin " + std::to_string(count));
        const auto answers = std::make_shared<Answers>();
        for (uint64_t i = 0; i < count; ++i)
            send(session, next_++, realtime, answers);
        std::unique_lock lock(answers->lock);
        const bool all = answers->changed.wait_for(lock, test::kPatience,
                                                   [&] { return answers->good + answers->bad == count; });
        const bool good = all && answers->bad == 0;
        const uint64_t acknowledged = answers->unlisted;
        lock.unlock();
        const bool confirmed = good && !realtime && flush(session);
        say("end " + std::to_string(acknowledged) + (confirmed ? " 1" : " 0"));
        return realtime ? good : confirmed;
    }

  private:
    struct Answers {
        std::mutex lock;
        std::condition_variable changed;
        uint64_t good = 0, bad = 0, unlisted = 0;
    };

    static void send(ClientSession& session, uint64_t number, bool realtime,
                     const std::shared_ptr<Answers>& answers) {
        const Dictionary message{{kTelvoraMessageParametersCategory, categoryOf(number)},
                                 {kTelvoraMessageParametersType, 1},
                                 {kTelvoraMessageParametersFlag, realtime ? 1 : 0},
                                 {kTelvoraMessageParametersPayload,
                                  Dictionary{{kNumberKey, number}, {"codec", "av1"}, {"bitrate", 4200}}}};
        session.sendMessage(message, [number, answers](const auto& answer) {
            const std::lock_guard lock(answers->lock);
            ++(answer ? answers->good : answers->bad);
            if (answer && categoryOf(number) != kListedCategory) ++answers->unlisted;
            answers->changed.notify_one();
        });
    }
    static bool flush(ClientSession& session) try {
        return !test::await<FlushAnswer>([&](auto done) { session.flushMessages(std::move(done)); }).error;
    } catch (const std::runtime_error&) {
        return false;
    }

    uint64_t next_;
    std::mt19937_64 random_;
};

}  // namespace

int runSoakClient(const std::string& socketPath, uint64_t client, uint64_t seed) {
    std::signal(SIGTERM, [](int) { stopped = true; });
    ClientRuntime runtime;
    Rounds rounds(client, seed);
    while (!stopped) {
        try {
            say("open");
            const auto session =
                openSession(runtime, socketPath, {{kTelvoraSessionInfoSessionID, client & UINT32_MAX}});
            while (!stopped && rounds.report(*session)) {
            }
        } catch (const std::runtime_error&) {  // there is no daemon, or no bag
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    return 0;
}

ClientBook clientBook(uint64_t client, const std::vector<std::string>& lines) {
    ClientBook book;
    uint64_t next = client << kClientShift;
    uint64_t first = next;
    for (const std::string& line : lines) {
        std::istringstream words(line);
        std::string word;
        uint64_t count = 0;
        bool confirmed = false;
        words >> word >> count >> confirmed;
        if (word == "open") ++book.sessions;
        if (word == "begin") {
            first = next;
            next += count;
            book.sent += count;
        }
        if (word == "end") {
            book.acknowledged += count;
            if (confirmed) book.confirmed.emplace_back(first, next - first);
        }
    }
    return book;
}

}  // namespace telvora::bench
