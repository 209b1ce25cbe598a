// SPDX-License-Identifier: Apache-2.0
//
// telvorad: sets the process up. It is confined before it listens, and has one thread until it is confined.
#include <csignal>

#include "daemon/command_line.h"
#include "daemon/daemon.h"
#include "daemon/process_setup.h"
#include "platform/descriptor_limit.h"
#include "platform/system_log.h"
#include "util/log.h"

namespace telvora {

namespace {

// The name of the service is also that of its sandbox profile and of its socket.
constexpr auto& kServiceName = kTelvoradSocketName;

int fail(const std::string& reason) {
    TELVORA_LOG(kLogError, "main: sandbox_init() fails: %s\n", reason.c_str());
    return -1;
}

// The daemon runs without a framework folder. A folder that it may not read is a mistake of the
// configuration.
bool canRead(const std::filesystem::path& framework) {
    std::error_code error;
    std::filesystem::directory_iterator entries(framework, error);
    if (!error || error == std::errc::no_such_file_or_directory) return true;
    TELVORA_LOG(kLogError, "main: can't read the framework folder %s: %s", framework.c_str(),
                error.message().c_str());
    return false;
}

int run() {
    setUtilityQualityOfService();
    startLogging("telvorad");
    raiseDescriptorLimit();
    avoidHugePages();
    returnLargeBuffers();
    leaveGnuTlsUnused();

    const Directories directories = Directories::fromEnvironment();
    explainOnTerminal(directories.runtime);
    UserDefaults defaults(directories.configuration, directories.state);
    readLogLevel(defaults);
    warnOfUnknownSettings(defaults);
    const Settings settings = readSettings(defaults);
    MessageLog messageLog(directories.logs);
    messageLog.maxBytes = settings.messageLogBytes;
    TelvoradUtil::makeLogDirectory(messageLog);

    SandboxPaths paths = SandboxPaths::fromDirectories(directories);
    paths.readAndRemove = settings.uploadDirectories;
    // A path that names a directory must not open all that is beneath it.
    for (const std::string& file : {settings.vodexAdaptorPath, settings.link.caFile,
                                    settings.link.clientCertificate, settings.link.clientKey}) {
        if (std::error_code error; std::filesystem::is_regular_file(file, error))
            paths.readOnly.emplace_back(file);
    }
    const auto confined = enterSandbox(kServiceName, paths);
    if (!confined) return fail(confined.error());
    if (!canRead(directories.framework)) return 1;
    auto sockets = openSockets(directories.runtime);
    if (!sockets) {
        TELVORA_LOG(kLogError, "main: can't listen: %s", sockets.error().c_str());
        return 1;
    }
    // No other socket has to listen.
    if (const auto tightened = tightenSandbox(kServiceName); !tightened) return fail(tightened.error());
    allowLogThread();
    const ProcessContext process{directories, defaults, messageLog, settings, *confined};
    Daemon(process, std::move(*sockets)).run();
    stopLogging();
    return 0;
}

}  // namespace

}  // namespace telvora

int main(int argc, char** argv) {
    if (const auto status = telvora::answerArguments(argc, argv)) return *status;
    std::signal(SIGPIPE, SIG_IGN);
    return telvora::run();
}
