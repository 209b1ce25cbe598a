// SPDX-License-Identifier: Apache-2.0
#include "world.h"

#include <limits>
#include <stdexcept>

#include "access/user_quotas.h"
#include "telvora/keys.h"
#include "tests/support/await.h"

namespace telvora::bench {

namespace {

// User defaults that let one user use all of the daemon's capacity.
Dictionary withoutQuotas() {
    Dictionary defaults;
    for (size_t i = 0; i < kQuotas; ++i)
        defaults.set(std::string(ruleOf(static_cast<Quota>(i)).setting.key),
                     std::numeric_limits<int64_t>::max());
    // The most that the setting takes; one user's records get an eighth of it in an hour.
    defaults.set("messageLogBytes", 1 << 30);
    return defaults;
}

}  // namespace

World::World(const Dictionary& bag) {
    auto made = lab::Laboratory::make(directory_.path() / "lab", {.reporting = {.countByKey = kNumberKey}});
    if (!made) throw std::runtime_error(made.error());
    laboratory_ = std::move(*made);
    laboratory_->setBag("dravik", bag);
}

void World::letIn(std::initializer_list<uid_t> users) const {
    std::filesystem::create_directories(directory() / "run");
    for (const auto& path : {directory(), directory() / "run"})
        std::filesystem::permissions(path, std::filesystem::perms(0755));
    for (const uid_t user : users) {
        const std::string id = std::to_string(user);
        directory_.write("config/entitlements.d/" + id + ".plist",
                         "<plist version=\"1.0\"><dict><key>User</key><integer>" + id +
                             "</integer><key>Entitlements</key><dict><key>com.zandor.private.telvorad</key>"
                             "<true/></dict></dict></plist>");
    }
}

std::unique_ptr<test::DaemonProcess> World::launch(
    const std::function<void(test::DaemonOptions&)>& change) const {
    test::DaemonOptions options{directory_.path(), *laboratory_};
    options.logLevel = 6;
    options.defaults = withoutQuotas();
    if (change) change(options);
    return std::make_unique<test::DaemonProcess>(options);
}

std::unique_ptr<test::DaemonProcess> World::start(
    const std::function<void(test::DaemonOptions&)>& change) const {
    auto daemon = launch(change);
    if (!daemon->waitUntilListening()) throw std::runtime_error("the daemon does not start");
    return daemon;
}

std::unique_ptr<ClientSession> openSession(ClientRuntime& runtime, const std::string& socketPath,
                                           Dictionary info, ClientSession::Handlers handlers) {
    auto session = ClientSession::connect(runtime, socketPath, std::move(handlers));
    if (!session) throw std::runtime_error(session.error());
    info.merge({{kTelvoraSessionInfoClientType, kClientType},
                {kTelvoraSessionInfoRequireUserInfo, true},
                {kTelvoraSessionInfoBatchEvent, true}});
    const Dictionary user{{kTelvoraUserInfoClientName, "bench"}, {kTelvoraUserInfoServiceName, "load"}};
    test::await<void>([&](auto done) { (*session)->setSessionInfo(info, user, {}, std::move(done)); });
    const auto states =
        test::await<ReportingStates>([&](auto done) { (*session)->startConfig(std::move(done)); });
    if (!states || states->empty()) throw std::runtime_error("a session has no backend that reports");
    return std::move(*session);
}

}  // namespace telvora::bench
