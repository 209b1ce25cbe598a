// SPDX-License-Identifier: Apache-2.0
#include "tests/support/daemon_process.h"

#include <unistd.h>

#include <fstream>

#include "plist/property_list_format.h"

namespace telvora::test {
namespace {

// The properties of the device.
const Dictionary kDevice{{"UniqueDeviceID", "0123456789abcdef0123456789abcdef01234567"},
                         {"ProductVersion", "9.1"},
                         {"BuildVersion", "13B143"},
                         {"HWModelStr", "LAB1"},
                         {"SerialNumber", "LAB0000001"},
                         {"DeviceName", "Labdevice"},
                         {"ProductType", "Lab1,1"},
                         {"ReleaseType", "Customer"}};

void writePropertyList(const std::filesystem::path& path, const PropertyList& value) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << serializePropertyList(value, PropertyListFormat::xml).value();
}

void writeConfiguration(const DaemonOptions& options) {
    for (const char* name : {"run", "state", "config", "logs"})
        std::filesystem::create_directories(options.directory / name);
    const std::filesystem::path config = options.directory / "config";
    if (options.entitlement) {
        writePropertyList(
            config / "entitlements.d" / "50-test.plist",
            Dictionary{{"User", static_cast<int64_t>(geteuid())},
                       {"Entitlements", Dictionary{{"com.zandor.private.telvorad", *options.entitlement}}}});
    }
    Dictionary defaults{{"telvora_storebag_url", options.laboratory.bags().baseURL()},
                        {"logLevel", options.logLevel},
                        {"environmentType", 4}};  // release
    defaults.merge(options.defaults);
    writePropertyList(config / "Preferences" / "com.zandor.telvora.plist", defaults);
    writePropertyList(config / "Preferences" / "com.zandor.diagnosticsharing.plist",
                      Dictionary{{"Enabled", true}});
    writePropertyList(config / "device.plist", kDevice);
}

std::string socketIn(const std::filesystem::path& directory) {
    return directory / "run" / "com.zandor.telvorad";
}

std::vector<std::string> socketActivation(const std::string& socket,
                                          const std::map<std::string, std::string>& environment) {
    std::vector<std::string> arguments{"/usr/bin/systemd-socket-activate", "--listen=" + socket,
                                       "--listen=" + socket + ".Status",
                                       "--fdname=com.zandor.telvorad.socket:com.zandor.telvorad.Status"};
    // systemd-socket-activate(1) passes on only the variables that it is given.
    for (const char* name : {"JOURNAL_STREAM", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
        arguments.insert(arguments.end(), {"-E", name});
    for (const auto& [name, value] : environment)
        arguments.insert(arguments.end(), {"-E", name});
    return arguments;
}

ChildProcessOptions childOptions(const DaemonOptions& options) {
    writeConfiguration(options);
    std::map<std::string, std::string> environment{{"RUNTIME_DIRECTORY", options.directory / "run"},
                                                   {"STATE_DIRECTORY", options.directory / "state"},
                                                   {"CONFIGURATION_DIRECTORY", options.directory / "config"},
                                                   {"LOGS_DIRECTORY", options.directory / "logs"},
                                                   {"TELVORA_FRAMEWORK_DIR", options.frameworkDirectory},
                                                   {"SSL_CERT_FILE", options.laboratory.pki().caFile()},
                                                   {"LC_ALL", "en_US.UTF-8"}};
    std::vector<std::string> arguments = options.socketActivation
                                             ? socketActivation(socketIn(options.directory), environment)
                                             : options.launcher;
    arguments.emplace_back(TELVORAD_PATH);
    return {std::move(arguments), std::move(environment), true};
}

}  // namespace

DaemonProcess::DaemonProcess(const DaemonOptions& options)
    : ChildProcess(childOptions(options)), socketPath_(socketIn(options.directory)) {}

}  // namespace telvora::test
