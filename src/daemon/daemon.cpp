// SPDX-License-Identifier: Apache-2.0
#include "daemon/daemon.h"

#include <algorithm>
#include <asio/post.hpp>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>

#include "config/device_description.h"
#include "daemon/process_setup.h"
#include "diagnosis/findings.h"
#include "diagnosis/last_totals.h"
#include "diagnosis/server_status.h"
#include "platform/locale.h"
#include "platform/system_log.h"
#include "platform/uuid.h"
#include "protocol/status_keys.h"
#include "session/session_status.h"
#include "util/attempt.h"
#include "util/log.h"

namespace telvora {

static_assert(std::string_view(StoredOutbox::kAccount) == status::kOutbox);

Daemon::Daemon(const ProcessContext& process, Sockets sockets)
    : process_(process),
      start_{TelvoradUtil::secondsFromTimeValue(timeOfDay())},
      shutdown_(runLoop_,
                {.stopAccepting = [this] { stopAccepting(); },
                 .endSessions = [this] { endSessions(); },
                 .giveUp =
                     [this] {
                         if (outbox_) http_.stop();
                         return outbox_ != nullptr;
                     },
                 .isIdle = [this] { return isIdle(); }},
                process.settings.shutdownTime),
      properties_(process.directories.configuration, process.defaults),
      identity_(properties_, process.defaults),
      environment_(process.defaults, identity_),
      framework_(process.directories.framework, process.directories.configuration),
      entitlements_(process.directories.configuration),
      quotas_(process.defaults, std::chrono::steady_clock::now, process.directories.state / "dailyUse.plist"),
      curl_(makeCurlHttpClient({.link = process.settings.link})),
      pool_(std::clamp(std::thread::hardware_concurrency(), 2U, 4U)),
      powerLog_(makeJournalPowerLog()),
      tappedHttp_(*curl_, outgoing_),
      http_(tappedHttp_, timeOfDay, [this] { shutdown_.check(); }),
      outbox_(openOutbox()),
      link_(watchLink()),
      backendServices_(makeBackendServices()),
      sessionServices_{.backendServices = backendServices_,
                       .framework = framework_,
                       .messageLog = process.messageLog,
                       .uploadAdmission = uploads_,
                       .ledger = ledger_,
                       .uploadDirectories = process.settings.uploadDirectories},
      fetcher_({.http = http_,
                .environment = environment_,
                .framework = framework_,
                .perform = [this](auto work) { asio::post(pool_.makeStrand(), std::move(work)); }}),
      keptBags_(process.directories.state / "Bags"),
      keepAlive_(runLoop_, {.launchedOnDemand = sockets.clients.fromServiceManager,
                            .inFlight = [this] { return isNeeded(); },
                            .onIdle = [this] { shutdown_.begin(); },
                            .idleTime = process.settings.idleTime}),
      agent_({.entitlements = entitlements_,
              .storebagFetcher = fetcher_,
              .sessionServices = sessionServices_,
              .quotas = quotas_,
              .keepAlive = keepAlive_,
              .clock = timeOfDay,
              .noSessionsLeft = [this] { shutdown_.check(); },
              .keptBags = process.settings.keepBags ? &keptBags_ : nullptr}),
      status_(*this, quotas_, outgoing_),
      listener_(
          runLoop_, std::move(sockets.clients.socket), closers_,
          [this](UniqueFd socket, const Peer& peer) { serveClient(std::move(socket), peer); },
          [this](uid_t user) { return agent_.mayWait(user); }),
      reload_(runLoop_, SIGHUP) {
    if (!process.settings.keepBags) keptBags_.removeAll();
    if (!sockets.status) return;
    statusListener_.emplace(
        runLoop_, std::move(sockets.status->socket), closers_,
        [this](UniqueFd socket, const Peer& peer) {
            status_.accept(pool_.makeStrand(), std::move(socket), peer);
        },
        [this](uid_t user) { return quotas_.of(user).take(Quota::connections, 1); });
}

BackendServices Daemon::makeBackendServices() {
    return {.http = http_,
            .identity = identity_,
            .environment = environment_,
            .defaults = process_.defaults,
            .clock = timeOfDay,
            .countryCode = [this] { return identity_.countryCode(); },
            .timeZoneOffsetSeconds = timeZoneOffsetSeconds,
            .random = uniformRandom48,
            .makeNetworkQueue = [this] { return tapped(makeNetworkQueue(pool_), outgoing_); },
            .vodexAdaptorPath = process_.settings.vodexAdaptorPath,
            .powerLog = powerLog_.get(),
            .outbox = outbox_.get(),
            .outgoing = &outgoing_};
}

std::unique_ptr<StoredOutbox> Daemon::openOutbox() {
    const std::filesystem::path path = process_.directories.state / "outbox.db";
    const OutboxLimits& limits = process_.settings.outbox;
    if (limits.bytes == 0) {
        if (OutboxStore::removeFiles(path))
            TELVORA_LOG(kLogWarning, "main: The outbox is off; the messages in it are removed");
        return nullptr;
    }
    auto outbox =
        StoredOutbox::open(path, limits,
                           {.http = http_,
                            .ledger = ledger_,
                            .queue = makeNetworkQueue(pool_),
                            .moment = currentMoment,
                            .random = uniformRandom48,
                            .consent = [this] { return identity_.diagnosticsConsent(); },
                            .identifier = [this] { return identity_.getPersistentIdentifierForDNU(true); },
                            .stored = [this] { shutdown_.check(); },
                            .sparesLink = process_.settings.spared != LinkState()});
    if (outbox) return std::move(*outbox);
    TELVORA_LOG(kLogError, "main: There is no outbox: %s: %s", path.c_str(), outbox.error().text.c_str());
    return nullptr;
}

std::shared_ptr<LinkWatch> Daemon::watchLink() {
    const LinkState& spared = process_.settings.spared;
    if (spared == LinkState()) return nullptr;
    if (!outbox_) {
        TELVORA_LOG(kLogWarning, "main: No report is held for the link: there is no outbox (outboxBytes)");
        return nullptr;
    }
    return LinkWatch::start(
        pool_.makeStrand(), {.watched = spared}, [this, held = false](const LinkState& state) mutable {
            const bool wasHeld = std::exchange(held, state != LinkState());
            if (held) TELVORA_LOG(kLogInfo, "main: Reports are held: %s", describe(state).c_str());
            if (wasHeld && !held) TELVORA_LOG(kLogInfo, "main: Reports are held no longer");
            outbox_->setSparesLink(held);
        });
}

void Daemon::serveClient(UniqueFd socket, const Peer& peer) {
    const std::string description = "#" + std::to_string(++connections_) + " from " + peer.description();
    const auto connection = ClientConnection::make(pool_.makeStrand(), std::move(socket), description);
    if (!agent_.listener(connection, peer)) connection->invalidate();
}

void Daemon::warnWithoutPublicKey() const {
    const std::vector<PublicKeyFile> keys = framework_.publicKeyFiles();
    const auto isUsed = [](const PublicKeyFile& key) { return !key.problem; };
    if (std::any_of(keys.begin(), keys.end(), isUsed)) return;
    for (const PublicKeyFile& key : keys)
        TELVORA_LOG(kLogWarning, "main: %s verifies no bag: %s", key.file.c_str(), key.problem->c_str());
    if (!keys.empty()) return;
    TELVORA_LOG(kLogWarning, "main: No bag can be verified: there is no public key publicKey.der in %s or %s",
                process_.directories.framework.c_str(), process_.directories.configuration.c_str());
}

void Daemon::warnOfUnreadableFiles() const {
    for (const PropertyList& fault : unreadableFiles(process_.defaults)) {
        const auto& found = *fault.getIf<Dictionary>();
        TELVORA_LOG(kLogWarning, "Settings: %s %s", found.string(status::kKey)->c_str(),
                    found.string(status::kReason)->c_str());
    }
}

void Daemon::run() {
    warnWithoutPublicKey();
    warnOfUnreadableFiles();
    reloadOnSignal();
    shutdown_.onSignals();
    listener_.resume();
    if (statusListener_) statusListener_->resume();
    TELVORA_LOG(kLogInfo, "main: Listener resumes with sandbox, start loop.");
    releaseFreeMemory();  // that the confinement used
    notifyServiceManager("READY=1");
    // A handler that there is no memory for is lost, not the process.
    while (!attempt("main", [this] { runLoop_.run(); })) {
    }

    logLosses();
    quotas_.logRefusals();
    quotas_.keepDailyUse();
    keepLastTotals(process_.directories.state, {.totals = describe(ledger_.totals()),
                                                .clientTypes = describe(ledger_.totalsByClientType()),
                                                .startTime = start_.timeOfDay,
                                                .endTime = TelvoradUtil::secondsFromTimeValue(timeOfDay())});
    if (agent_.sessionsAlive() > 0) {
        // Their deadline has passed; the server or the adaptor that they wait for may never answer.
        stopLogging();
        std::_Exit(0);
    }
    // Work that still runs uses the members: it ends before they do, and waits for no server any more.
    uploads_.close();
    http_.stop();
    pool_.stop();
    curl_.reset();
    if (outbox_) outbox_->close();
}

bool Daemon::isNeeded() const {
    return listener_.hasWaiting() || (statusListener_ && statusListener_->hasWaiting()) ||
           http_.inFlight() > 0 || outgoing_.watched() || (outbox_ && outbox_->isWaiting());
}

void Daemon::stopAccepting() {
    notifyServiceManager("STOPPING=1");
    listener_.close();
    if (statusListener_) statusListener_->close();
}

void Daemon::endSessions() {
    if (outbox_) outbox_->stopSending();
    agent_.invalidateAllConnections();
}

bool Daemon::isIdle() const {
    return agent_.sessionsAlive() == 0 && http_.inFlight() == 0 && !(outbox_ && outbox_->isStoring());
}

void Daemon::reloadOnSignal() {
    reload_.async_wait([this](asio::error_code error, int) {
        if (error) return;
        const int level = readLogLevel(process_.defaults);
        TELVORA_LOG(kLogInfo, "main: Logging up to level %d", level);
        reloadOnSignal();
    });
}

void Daemon::logLosses() const {
    uint64_t accepted = 0;
    uint64_t lost = 0;
    for (const auto& [name, tally] : ledger_.totals()) {
        // Copies of reports that other accounts count, and reports that stay.
        if (name == ClientAccounts::kAggregator || name == StoredOutbox::kAccount) continue;
        accepted += tally.accepted;
        lost += failedOrPending(tally);
    }
    if (lost == 0) return;
    TELVORA_LOG(kLogWarning, "main: %llu reports lost of %llu accepted",
                static_cast<unsigned long long>(lost), static_cast<unsigned long long>(accepted));
}

Dictionary Daemon::getStatus() {
    Dictionary answer{{status::kDaemon, daemonStatus(start_)},
                      {status::kSandbox, sandboxStatus(process_.sandbox)},
                      {status::kSessions, agent_.sessionStatus()},
                      {status::kUsers, userStatus(quotas_)},
                      {status::kBags, agent_.storebagStatus()},
                      {status::kTotals, describe(ledger_.totals())},
                      {status::kClientTypes, describe(ledger_.totalsByClientType())},
                      {status::kHttpPending, static_cast<long long>(http_.inFlight())},
                      {status::kServers, serverStatus(http_.outcomes())},
                      {status::kRefusals, agent_.refusalStatus()},
                      {status::kBefore, readLastTotals(process_.directories.state)},
                      {status::kPublicKeys, publicKeyStatus(framework_)}};
    if (link_) answer.set(status::kLink, linkStatus(link_->watched(), link_->state()));
    return answer;
}

void Daemon::diagnose(Dictionary query, FindingsReply reply) {
    Dictionary findings = configurationFindings({.directories = process_.directories,
                                                 .defaults = process_.defaults,
                                                 .properties = properties_,
                                                 .identity = identity_,
                                                 .environment = environment_,
                                                 .framework = framework_,
                                                 .entitlements = entitlements_},
                                                peerIn(query));
    const auto clientType = query.integer(status::kClientType);
    if (!clientType) return reply(std::move(findings));
    agent_.storebag(static_cast<uint32_t>(*clientType),
                    [findings = std::move(findings), reply = std::move(reply)](const auto& section) mutable {
                        if (section) findings.set(status::kSection, *section);
                        reply(std::move(findings));
                    });
}

Dictionary Daemon::getDevice() {
    return describeDevice(properties_, identity_, environment_, framework_);
}

void Daemon::refreshBags(std::function<void(Dictionary bags)> reply) {
    agent_.refreshStorebags([this, reply = std::move(reply)] {
        reply({{status::kBags, agent_.storebagStatus()}});
    });
}

}  // namespace telvora
