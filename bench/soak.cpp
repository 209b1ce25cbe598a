// SPDX-License-Identifier: Apache-2.0
#include "soak.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "attacks.h"
#include "peers.h"
#include "process_figures.h"
#include "soak_audit.h"
#include "soak_books.h"
#include "soak_client.h"
#include "soak_machine.h"
#include "soak_schedule.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t kFriendlyClients = 4;
constexpr size_t kSamples = 8;  // of the last daemon
constexpr size_t kFewestSamples = 6;
// Sanitizers also keep freed memory, to find its use: 256 MiB.
#ifdef TELVORA_SANITIZED
constexpr int64_t kKeptByTheAllocatorKiB = 512 << 10;
#else
constexpr int64_t kKeptByTheAllocatorKiB = 64 << 10;
#endif
constexpr seconds kQuietPatience{90};
constexpr seconds kRestPatience{15};
// A daemon has met each attack, and the memory of the largest one stays with its heap, after a few minutes.
constexpr std::chrono::minutes kLongRun{4};
// Short enough for the daemon to come to rest.
constexpr int kDrips = 4;
constexpr milliseconds kDripPause{50};

// The bags of the friendly clients. No batch reaches its threshold before its flush.
Dictionary friendlyBag(const std::string& url, uint32_t variant) {
    Dictionary entry = test::openClientEntry(
        {{"post_url", url}, {"realtime_post_url", url}, {"event_threshold", 499 + variant % 3 * 100}});
    if (variant % 4 == 1) entry.set("event_blacklist", Array{kListedCategory});
    if (variant % 4 == 2) entry.set("filters", Array{Dictionary{{"key", "codec"}, {"action", "sha256"}}});
    if (variant % 4 == 3) entry.set("filters", Array{Dictionary{{"key", "codec"}, {"action", "remove"}}});
    return test::bagWithClients({entry});
}

struct Sample {
    int64_t rssKiB = 0;
    size_t descriptors = 0, threads = 0;
};

struct Client {
    uint64_t number;
    std::unique_ptr<test::ChildProcess> process;
};

class Soak {
  public:
    explicit Soak(const SoakOptions& options)
        : options_(options),
          schedule_(options.seed),
          world_(friendlyBag("", 0)),
          books_(world_.laboratory().pki()),
          servers_(world_, kDrips, kDripPause),
          clock_(world_.directory() / "clock") {
        disk_.mountOn({world_.directory() / "logs", world_.directory() / "state"});
        world_.letIn({kFriendlyUsers[0], kFriendlyUsers[1], kAttackingUser});
        useBag(0);
    }

    int run() {
        while (progress() < 0.5)
            passLife(schedule_.nextLife());
        passLastLife();
        // Some attackers give up when the bag server fails meanwhile.
        if (attacksEndedEarly_ > attacks_ / 2) problem("most attackers have ended by themselves");
        printTable();
        for (const std::string& problem : problems_)
            std::cerr << "telvora-bench: " << problem << '\n';
        return problems_.empty() ? 0 : 1;
    }

  private:
    // From 0 to 1.
    double progress() const {
        if (options_.reports > 0) {
            return static_cast<double>(books_.receivedCount()) / static_cast<double>(options_.reports);
        }
        return std::chrono::duration<double>(Clock::now() - begin_).count() / options_.seconds;
    }
    void problem(const std::string& text) {
        problems_.push_back(fmt::format("daemon {}: {}", daemons_, text));
        tell(text);
    }

    void startDaemon() {
        ++daemons_;
        life_ = {};
        books_.beginPage();
        daemon_ = world_.start([this](test::DaemonOptions& options) {
            options.defaults = {};
            options.launcher = clock_.launcher();
        });
        startClients();
    }
    void startClients() {
        while (clients_.size() < kFriendlyClients) {
            const uint64_t number = nextClient_++;
            const uid_t user = kFriendlyUsers[number % std::size(kFriendlyUsers)];
            clients_.push_back(
                {number, startPeer(user, {"soak-client", daemon_->socketPath(), std::to_string(number),
                                          std::to_string(options_.seed + number)})});
        }
    }
    // A client that ends by itself sends nothing, and nothing can be missed of it.
    void expectAlive(const Client& client) {
        if (const auto status = client.process->waitForExit(milliseconds(0)))
            problem(fmt::format("a client has ended with status {}", *status));
    }
    void endClient(Client& client, int signal) {
        client.process->signal(signal);
        if (!client.process->waitForExit(kQuietPatience)) problem("a client does not end");
        life_.clients.push_back(clientBook(client.number, client.process->output().linesToTheEnd()));
    }
    void endClients() {
        for (const Client& client : clients_) {
            expectAlive(client);
            client.process->signal(SIGTERM);
        }
        for (Client& client : clients_)
            endClient(client, SIGTERM);
        clients_.clear();
    }

    void useBag(uint32_t variant) {
        world_.laboratory().setBag("dravik", friendlyBag(books_.url(), variant));
    }
    // A line of the run's course, for --verbose.
    void tell(const std::string& text) const {
        if (!options_.verbose) return;
        std::cerr << fmt::format("{:8.3f} daemon {}: {}\n",
                                 std::chrono::duration<double>(Clock::now() - begin_).count(), daemons_,
                                 text);
    }
    void passStep() {
        const Step step = schedule_.nextStep();
        tell(fmt::format("{} {}, {} for {} ms", nameOf(step.disturbance), step.detail, step.attack->name,
                         step.duration.count()));
        ++disturbances_[static_cast<size_t>(step.disturbance)];
        servers_.letBagsHang(true);
        const auto attacker = startPeer(step.attack->entitled ? kAttackingUser : kUnentitledUser,
                                        {"attack", step.attack->name, daemon_->socketPath()});
        disturb(step);
        std::this_thread::sleep_for(step.duration);
        ++attacks_;
        attacksEndedEarly_ += attacker->waitForExit(milliseconds(0)).has_value();
        calm(step);
        servers_.letBagsHang(false);
    }
    void disturb(const Step& step) {
        lab::BagServer& bags = world_.laboratory().bags();
        static constexpr lab::BagFault kBagFaults[] = {lab::BagFault::noAnswer,    lab::BagFault::notFound,
                                                       lab::BagFault::truncated,   lab::BagFault::flippedBit,
                                                       lab::BagFault::unsignedBag, lab::BagFault::hold};
        static constexpr seconds kJumps[] = {seconds(700), seconds(-700), seconds(86400), seconds(-86400)};
        switch (step.disturbance) {
            case Disturbance::serverFault:
                return books_.setFault(kServerFaults[step.detail % std::size(kServerFaults)]);
            case Disturbance::refusal:
                return books_.refuse();
            case Disturbance::clientKill: {
                Client& victim = clients_[step.detail % clients_.size()];
                expectAlive(victim);
                endClient(victim, SIGKILL);
                clients_.erase(clients_.begin() + (&victim - clients_.data()));
                return startClients();
            }
            case Disturbance::fullDisk:
                return disk_.fill(daemon_->pid());
            case Disturbance::clockJump:
                return clock_.shiftBy(kJumps[step.detail % std::size(kJumps)]);
            case Disturbance::newBag:
                useBag(step.detail);
                return clock_.shiftBy(seconds(700));  // past the age of the bag before
            case Disturbance::bagFault:
                bags.setFault("dravik", kBagFaults[step.detail % std::size(kBagFaults)]);
                return clock_.shiftBy(seconds(700));
            case Disturbance::reload:
                return daemon_->signal(SIGHUP);
        }
    }
    void calm(const Step& step) {
        if (step.disturbance == Disturbance::serverFault) books_.setFault(ServerFault::none);
        if (step.disturbance == Disturbance::refusal) books_.accept();
        if (step.disturbance == Disturbance::fullDisk) disk_.empty(daemon_->pid());
        if (step.disturbance == Disturbance::bagFault) {
            world_.laboratory().bags().setFault("dravik", lab::BagFault::none);
            world_.laboratory().bags().releaseHeld();
        }
    }

    void passLife(const Schedule::Life& planned) {
        startDaemon();
        for (size_t i = 0; i < planned.steps && daemonLives(); ++i)
            passStep();
        ++endings_[static_cast<size_t>(planned.ending)];
        if (planned.ending == Ending::quiet) endQuietly();
        if (planned.ending == Ending::busy) endUnderLoad();
        if (planned.ending == Ending::killed) kill();
    }
    bool daemonLives() {
        const auto status = daemon_->waitForExit(milliseconds(0));
        if (status) problem(fmt::format("it has ended with status {}", *status));
        return !status;
    }

    // Waits until the daemon has no client and no report that is under way, and compares all books.
    void reconcile() {
        tell("the clients end");
        endClients();
        tell("the daemon comes to rest");
        const auto deadline = Clock::now() + kQuietPatience;
        for (bool quiet = false; !quiet && Clock::now() < deadline;
             std::this_thread::sleep_for(milliseconds(20))) {
            const auto state = stateOf(daemon_->socketPath());
            if (!state) break;
            life_.ledger = state->ledger;
            quiet = state->sessions == 0 && state->httpPending == 0 &&
                    state->ledger.inFlight + state->ledger.held == 0;
        }
        life_.page = books_.page();
        note(auditQuietEnd(life_, books_));
    }
    // The attackers' descriptors are closed, and idle threads end, a while after the clients have left.
    Sample sampleAtRest() const {
        const auto sample = [pid = daemon_->pid()] {
            return Sample{memoryOf(pid).rssKiB, descriptorsOf(pid), threadsOf(pid)};
        };
        Sample last = sample();
        const auto deadline = Clock::now() + kRestPatience;
        const auto unchanged = std::chrono::duration<double>(std::clamp(options_.seconds / 100, 1.0, 6.0));
        for (auto changed = Clock::now();
             Clock::now() <
             std::min<Clock::time_point>(changed + std::chrono::duration_cast<Clock::duration>(unchanged),
                                         deadline);) {
            std::this_thread::sleep_for(milliseconds(50));
            const Sample now = sample();
            if (now.descriptors != last.descriptors || now.threads != last.threads) changed = Clock::now();
            last = now;
        }
        tell(fmt::format("RSS {} KiB, {} descriptors, {} threads", last.rssKiB, last.descriptors,
                         last.threads));
        return last;
    }
    void note(const std::vector<std::string>& found) {
        for (const std::string& text : found)
            problem(text);
    }
    void endQuietly() {
        reconcile();
        addToTotals();
        stopDaemon();
    }
    void stopDaemon() {
        if (const auto status = daemon_->stop(); status != 0)
            problem(fmt::format("it ends with status {}", status.value_or(-1)));
    }
    void endUnderLoad() {
        tell("SIGTERM under load");
        stopDaemon();
        endClients();
        life_.page = books_.page();
        constexpr std::string_view kLine = "<4>main: ";
        for (const std::string& line : daemon_->errors().linesToTheEnd()) {
            uint64_t lost = 0;
            if (line.starts_with(kLine) && line.find(" reports lost of ") != std::string::npos &&
                std::from_chars(line.data() + kLine.size(), line.data() + line.size(), lost).ec ==
                    std::errc())
                life_.lostInOrder = lost;
        }
        note(auditBusyEnd(life_, books_));
        addToTotals();
    }
    void kill() {
        tell("SIGKILL");
        if (const auto state = stateOf(daemon_->socketPath())) life_.ledger = state->ledger;
        daemon_->signal(SIGKILL);
        daemon_->waitForExit();
        endClients();
        life_.page = books_.page();
        note(auditKill(life_, books_));
        addToTotals();
    }
    // The last daemon lives through half of the run, and is examined whenever it has come to rest.
    void passLastLife() {
        startDaemon();
        while ((progress() < 1 || samples_.size() < kFewestSamples) && daemonLives()) {
            passStep();
            if (progress() < 0.5 + 0.5 * static_cast<double>(samples_.size() + 1) / kSamples) continue;
            reconcile();
            samples_.push_back(sampleAtRest());
            startClients();
        }
        endQuietly();
        if (books_.repeatedCount() > 0)
            problem(fmt::format("{} reports arrived again", books_.repeatedCount()));
        for (const std::string& text : books_.problems())
            problem(text);
    }
    void addToTotals() {
        for (const ClientBook& book : life_.clients) {
            sent_ += book.sent;
            acknowledged_ += book.acknowledged;
        }
        if (!life_.ledger || life_.lostInOrder) return;
        accepted_ += life_.ledger->accepted;
        delivered_ += life_.ledger->delivered;
        answered_ += life_.page.delivered;
        for (const auto& [cause, count] : life_.ledger->lost)
            lost_[cause] += count;
    }

    // Prints the least figure of each half of the samples: memory that an attack took is kept for a while.
    // The second may exceed the first by a tenth and `slack`, in a run that is long enough for all attacks.
    template <typename T>
    void compareHalves(const char* name, T Sample::*figure, T slack) {
        const auto half = samples_.begin() + static_cast<std::ptrdiff_t>(samples_.size() / 2);
        if (half == samples_.begin()) return problem("too few samples");
        const auto less = [figure](const Sample& a, const Sample& b) { return a.*figure < b.*figure; };
        const T before = (*std::min_element(samples_.begin(), half, less)).*figure;
        const T after = (*std::min_element(half, samples_.end(), less)).*figure;
        std::cout << fmt::format("{:<36} {:>12} {:>12}\n", name, before, after);
        if (Clock::now() - begin_ >= kLongRun && after > before + before / 10 + slack)
            problem(fmt::format("{} has grown from {} to {}", name, before, after));
    }
    void printTable() {
        const auto row = [](const std::string& name, uint64_t number) {
            std::cout << fmt::format("{:<36} {:>12}\n", name, number);
        };
        std::cout << fmt::format("seed {}, {:.0f} s, clock {}, full disk by {}\n", options_.seed,
                                 std::chrono::duration<double>(Clock::now() - begin_).count(),
                                 clock_.isShifted() ? "shifted" : "untouched", disk_.description());
        row("reports begun by clients", sent_);
        row("acknowledged, at least", acknowledged_);
        row("arrived", books_.receivedCount());
        row("arrived again", books_.repeatedCount());
        std::cout << "ledger of the daemons that answered last\n";
        row("accepted", accepted_);
        row("delivered", delivered_);
        row("  the server's book", answered_);
        for (const auto& [cause, count] : lost_)
            row("lost: " + cause, count);
        row("daemons", daemons_);
        for (size_t i = 0; i < kEndings; ++i)
            row(std::string("  ended ") + nameOf(static_cast<Ending>(i)), endings_[i]);
        for (size_t i = 0; i < kDisturbances; ++i)
            row(nameOf(static_cast<Disturbance>(i)), disturbances_[i]);
        row("attacks", attacks_);
        row("  whose attacker gave up", attacksEndedEarly_);
        std::cout << fmt::format("{:<36} {:>12} {:>12}\n", "the last daemon at rest, least", "first half",
                                 "last half");
        // What one attacker's unread input may leave in the allocator, and threads that end after 5 s without
        // work.
        compareHalves<int64_t>("RSS, KiB", &Sample::rssKiB, kKeptByTheAllocatorKiB);
        compareHalves<size_t>("descriptors", &Sample::descriptors, 8);
        compareHalves<size_t>("threads", &Sample::threads, 32);
        std::cout << (problems_.empty() ? "all agrees" : "DISAGREEMENTS, see standard error") << std::endl;
    }

    const SoakOptions options_;
    const Clock::time_point begin_ = Clock::now();
    SmallDisk disk_;  // before all that has threads
    Schedule schedule_;
    World world_;
    Books books_;
    AttackersServers servers_;
    ShiftedClock clock_;
    std::unique_ptr<test::DaemonProcess> daemon_;
    std::vector<Client> clients_;
    uint64_t nextClient_ = 1;
    Life life_;
    std::vector<Sample> samples_;
    std::vector<std::string> problems_;

    size_t daemons_ = 0;
    size_t endings_[kEndings] = {};
    size_t disturbances_[kDisturbances] = {};
    size_t attacks_ = 0;
    size_t attacksEndedEarly_ = 0;
    uint64_t sent_ = 0, acknowledged_ = 0, accepted_ = 0, delivered_ = 0, answered_ = 0;
    std::map<std::string, uint64_t> lost_;
};

}  // namespace

int soak(const SoakOptions& options) {
    return Soak(options).run();
}

}  // namespace telvora::bench
