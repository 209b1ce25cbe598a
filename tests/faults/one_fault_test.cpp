// SPDX-License-Identifier: Apache-2.0
//
// The daemon after one failed allocation or system call, for every place on the way of a report from the
// connection to the server's answer. It lives and serves the next report, and its books add up with those of
// the server. TELVORA_FAULT_SEED chooses the places, otherwise chosen at random; TELVORA_EVERY_FAULT=1 tries
// all.
#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <random>

#include "plist/json_writer.h"
#include "tests/faults/fault_page.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

constexpr char kNumber[] = "number";

struct Fault {
    const char* name;
    FaultyCall call;
    std::vector<int> errors;
    int64_t step = 1;   // from place to place, if not each is tried
    int64_t count = 1;  // of failures in a row
};

const Fault kSystemCalls[] = {
    {"accept", FaultyCall::accept, {EMFILE, ENFILE, ENOMEM, EINTR, EAGAIN}},
    {"recvmsg", FaultyCall::recvmsg, {ENOMEM, ECONNRESET, EINTR, EAGAIN}, 2},
    {"sendmsg", FaultyCall::sendmsg, {ENOMEM, ENOBUFS, EPIPE, ECONNRESET, EINTR, EAGAIN}, 2},
    {"recv", FaultyCall::recv, {ENOMEM, ECONNRESET, EINTR, EAGAIN}, 2},
    {"send", FaultyCall::send, {ENOMEM, EPIPE, ECONNRESET, EINTR, EAGAIN}, 2},
    {"read", FaultyCall::read, {EIO, EINTR}, 4},
    {"write", FaultyCall::write, {ENOSPC, EIO, EINTR, EPIPE}, 4},
    {"open", FaultyCall::open, {EMFILE, ENFILE, ENOMEM, ENOSPC, EINTR}, 4},
    {"stat", FaultyCall::status, {ENOMEM}, 4},
    {"socket", FaultyCall::socket, {EMFILE, ENFILE, ENOBUFS, ENOMEM}},
    {"connect", FaultyCall::connect, {EAGAIN, ECONNREFUSED, ECONNRESET, EINTR}},
    {"epoll_ctl", FaultyCall::epollAdd, {ENOMEM, ENOSPC}},
    {"epoll_wait", FaultyCall::epollWait, {EINTR}, 8},
    {"poll", FaultyCall::poll, {ENOMEM, EINTR}, 8},
    {"socket option", FaultyCall::socketOption, {ENOBUFS, ENOMEM}, 2},
    {"getsockname", FaultyCall::socketName, {ENOBUFS}},
};
const Fault kAllocations[] = {
    {"allocation", FaultyCall::allocation, {ENOMEM}, 37},
    {"five allocations in a row", FaultyCall::allocation, {ENOMEM}, 73, 5},
};

struct Books {
    int64_t delivered = 0;
    std::map<std::string, int64_t> lost;  // by cause, without the lists' exclusions

    int64_t lostBy(const char* cause) const {
        const auto found = lost.find(cause);
        return found != lost.end() ? found->second : 0;
    }
    int64_t allLost() const {
        int64_t sum = 0;
        for (const auto& [cause, reports] : lost)
            sum += reports;
        return sum;
    }
};

class OneFault : public DaemonFixture {
  protected:
    OneFault() {
        const auto path = directory().write("page", std::string(sizeof(FaultPage), '\0'));
        const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        page_ = new (mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0))
            FaultPage;
    }
    ~OneFault() override { munmap(page_, sizeof *page_); }

    // Starts a daemon whose books have the numbered reports alone: its own reports about sessions are
    // excluded. Each session asks the bag server, and each post makes a connection of its own.
    void start() {
        answered_ = 0;
        server_.emplace(laboratory().pki(),
                        lab::ReportingServerOptions{.countByKey = kNumber, .requestsPerConnection = 1});
        Dictionary bag = bagWithClients({openClientEntry({{"post_url", server_->eventsURL()},
                                                          {"realtime_post_url", server_->realtimeURL()},
                                                          {"event_blacklist", Array{0}}})});
        bag.set("refresh_cycle", 0);
        laboratory().setBag("dravik", bag);
        startDaemon([this](DaemonOptions& options) {
            options.logLevel = 6;
            options.defaults = {{"messageLogBytes", int64_t{1} << 30}};
            options.launcher = {
                "/usr/bin/env", "LD_PRELOAD=" TELVORA_FAULT_INJECTOR,
                std::string(kFaultPageVariable) + "=" + (directory().path() / "page").string()};
        });
    }

    // A report that is held, one that is posted at once, and one that waits for a flush, on one connection.
    void report() {
        try {
            BlockingSession session(daemon().socketPath());
            session.startConfig();
            for (const int64_t flag : {0, 1, 0}) {
                const Dictionary payload{{kNumber, ++number_}, {"text", std::string(3000, 'x')}};
                try {
                    session.send(4, 1, payload, flag);
                    ++answered_;
                } catch (const std::runtime_error& error) {
                    EXPECT_STRNE(error.what(), "no answer came");
                }
            }
            session.flush();
        } catch (const std::runtime_error& error) {
            EXPECT_STRNE(error.what(), "no answer came");
        }
    }

    // The books once all reports have an outcome, all sessions have ended and nothing is charged to a user.
    Books settledBooks() {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        for (;;) {
            const Dictionary now = status();
            Books books;
            auto open = static_cast<int64_t>(now.array("sessions")->size());
            open += now.integer("httpPending").value_or(0);
            for (const auto& [name, value] : *now.dictionary("totals")) {
                const Dictionary& account = *value.getIf<Dictionary>();
                const auto number = [&](const char* key) { return account.integer(key).value_or(0); };
                const int64_t inHand = number("inFlight") + number("held");
                int64_t lost = 0;
                for (const auto& [cause, reports] : *account.dictionary("lost")) {
                    lost += *reports.integerValue();
                    if (cause != "blacklisted") books.lost[cause] += *reports.integerValue();
                }
                EXPECT_EQ(number("accepted"), inHand + number("delivered") + lost) << name;
                open += inHand;
                books.delivered += number("delivered");
            }
            for (const PropertyList& user : *now.array("users")) {
                for (const auto& [name, use] : *user.getIf<Dictionary>()->dictionary("quotas")) {
                    if (name != "connections" && name != "logLines")
                        open += *use.getIf<Dictionary>()->integer("held");
                }
            }
            if (open == 0) return books;
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error("unsettled: " + jsonText(now, JsonLayout::pretty));
        }
    }

    // Each report that was answered arrived once or is lost by a cause.
    Books expectAgreement() {
        const Books books = settledBooks();
        const auto arrived = static_cast<int64_t>(server_->distinctCount());
        EXPECT_LE(books.delivered, arrived);
        EXPECT_GE(books.delivered + books.lostBy("noAnswer"), arrived);
        EXPECT_LE(answered_, arrived + books.allLost()) << testing::PrintToString(books.lost);
        EXPECT_EQ(server_->duplicateCount(), 0u);
        return books;
    }

    // Lets calls fail from the n-th on while a client reports and its session ends. Then fetches the bag
    // again, since the fetch may have failed, and lets the next client report. Returns whether a call failed.
    bool tryFault(const Fault& fault, int error, int64_t place) {
        page_->arm(fault.call, error, place, fault.count);
        report();
        queryStatus(kGetStatus, statusSocketBeside(daemon().socketPath()), kPatience);
        const bool failed = page_->disarm() > 0;
        const Books before = expectAgreement();
        const auto refreshed =
            queryStatus(kRefreshBags, statusSocketBeside(daemon().socketPath()), kPatience);
        EXPECT_TRUE(refreshed) << refreshed.error().message;
        const int64_t answered = answered_;
        report();
        EXPECT_EQ(answered_, answered + 3);
        const Books after = expectAgreement();
        EXPECT_EQ(after.lost, before.lost);
        EXPECT_EQ(after.delivered, before.delivered + 3);
        return failed;
    }

    std::string framesOfFault() const {
        std::ostringstream frames;
        for (const auto& [file, offset] : page_->frames)
            if (file[0] != '\0') frames << "  " << file << " 0x" << std::hex << offset << '\n';
        return frames.str();
    }

    void tryPlaces(const Fault& fault, std::minstd_rand& random) {
        const bool every = std::getenv("TELVORA_EVERY_FAULT") != nullptr;
        const int64_t step = every ? 1 : fault.step;
        int64_t tries = 0, place = 1 + static_cast<int64_t>(random() % static_cast<size_t>(step));
        for (bool failed = true; failed; place += step) {
            for (size_t i = every ? 0 : random() % fault.errors.size(); failed && i < fault.errors.size();
                 ++i) {
                SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(place) + ": " +
                             strerror(fault.errors[i]));
                try {
                    failed = tryFault(fault, fault.errors[i], place);
                } catch (const std::runtime_error& unsettled) {
                    ADD_FAILURE() << unsettled.what();
                }
                tries += failed;
                if (HasFailure()) FAIL() << framesOfFault();
                if (!every) break;
            }
        }
        std::cout << fault.name << ": " << tries << " of " << place - step << '\n';
    }

    template <size_t size>
    void tryAll(const Fault (&faults)[size]) {
        const char* const given = std::getenv("TELVORA_FAULT_SEED");
        const auto seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
        std::cout << "TELVORA_FAULT_SEED=" << seed << '\n';
        std::minstd_rand random(seed);
        start();
        report();  // which loads and initialises the libraries
        ASSERT_EQ(answered_, 3);
        settledBooks();
        for (const Fault& fault : faults) {
            tryPlaces(fault, random);
            if (HasFatalFailure()) return;
        }
    }

    FaultPage* page_ = nullptr;
    int64_t number_ = -1;
    int64_t answered_ = 0;
    std::optional<lab::ReportingServer> server_;
};

TEST_F(OneFault, OfAnAllocationLosesNoMoreThanItsReports) {
    tryAll(kAllocations);
}

TEST_F(OneFault, OfASystemCallLosesNoMoreThanItsReports) {
    tryAll(kSystemCalls);
}

// A daemon that has served has its threads.
TEST_F(OneFault, OfAThreadsStartLosesNoMoreThanItsReports) {
    const Fault fault{"pthread_create", FaultyCall::threadStart, {EAGAIN}};
    bool failed = true;
    for (int64_t place = 1; failed && !HasFailure(); ++place) {
        SCOPED_TRACE(place);
        start();
        failed = tryFault(fault, EAGAIN, place);
        if (HasFailure()) ADD_FAILURE() << framesOfFault();
        stopDaemon();
        if (!failed) std::cout << fault.name << ": " << place - 1 << '\n';
    }
}

}  // namespace
}  // namespace telvora::test
