// SPDX-License-Identifier: Apache-2.0
#include "peers.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <thread>

#include "attacks.h"
#include "canary.h"
#include "platform/descriptor_limit.h"
#include "soak_client.h"

namespace telvora::bench {

namespace {

// Read at the start: in a mount namespace that is made later, the place may have another name.
const std::filesystem::path kOwnPath = [] {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error);
}();

}  // namespace

std::unique_ptr<test::ChildProcess> startPeer(uid_t user, const std::vector<std::string>& arguments,
                                              Priority priority) {
    const int nice = (priority == Priority::apart ? 19 : 0) - getpriority(PRIO_PROCESS, 0);
    std::vector<std::string> command{"/usr/bin/nice", "-n", std::to_string(nice)};
    if (geteuid() == 0) {
        const std::string id = std::to_string(user);
        command.insert(command.end(),
                       {"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups"});
    }
    if (priority == Priority::apart) {
        const std::string last = std::to_string(std::max(1U, std::thread::hardware_concurrency()) - 1);
        command.insert(command.end(), {"/usr/bin/taskset", "-c", last});
    }
    command.push_back(kOwnPath);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<test::ChildProcess>(test::ChildProcessOptions{std::move(command), {}});
}

std::optional<int> runAsPeer(const std::vector<std::string>& arguments) try {
    const std::string mode = arguments.size() > 1 ? arguments[1] : "";
    const bool attacks = mode == "attack" && arguments.size() == 4;
    const bool isCanary = mode == "canary-client" && arguments.size() == 4;
    const bool soaks = mode == "soak-client" && arguments.size() == 5;
    if (!attacks && !isCanary && !soaks) return std::nullopt;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the change of the user has taken it back
    raiseDescriptorLimit();
    if (isCanary) return runCanary(arguments[2], std::stod(arguments[3]));
    if (soaks) return runSoakClient(arguments[2], std::stoull(arguments[3]), std::stoull(arguments[4]));
    const Attack* const attack = attackNamed(arguments[2]);
    if (attack != nullptr) attack->run(arguments[3]);
    return 1;
} catch (const std::exception& error) {
    std::cerr << "telvora-bench: " << error.what() << '\n';
    return 1;
}

}  // namespace telvora::bench
