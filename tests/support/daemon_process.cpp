// SPDX-License-Identifier: Apache-2.0
#include "tests/support/daemon_process.h"

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "plist/property_list_format.h"

namespace telvora::test {
namespace {

constexpr std::string_view kListening = "<6>main: Listener resumes with sandbox, start loop.";
constexpr std::string_view kSanitizerMarks[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                                "WARNING: ThreadSanitizer", "runtime error:"};

constexpr int kRelease = 4;  // an environment type

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
    const auto document = serializePropertyList(value, PropertyListFormat::xml);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (document) file << *document;
    file.close();
    if (!document || !file.good()) throw std::runtime_error(path.string() + ": can't be written");
}

void writeConfiguration(const DaemonOptions& options) {
    for (const char* name : {"run", "state", "config", "logs"}) {
        std::filesystem::create_directories(options.directory / name);
    }
    const std::filesystem::path config = options.directory / "config";
    if (options.entitlement) {
        writePropertyList(
            config / "entitlements.d" / "50-test.plist",
            Dictionary{{"User", static_cast<int64_t>(geteuid())},
                       {"Entitlements", Dictionary{{"com.zandor.private.telvorad", *options.entitlement}}}});
    }
    Dictionary defaults{{"telvora_storebag_url", options.storebagURL},
                        {"logLevel", options.logLevel},
                        {"environmentType", kRelease}};
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
                                                   {"SSL_CERT_FILE", options.caFile},
                                                   {"LC_ALL", "en_US.UTF-8"}};
    std::vector<std::string> arguments = options.socketActivation
                                             ? socketActivation(socketIn(options.directory), environment)
                                             : options.launcher;
    arguments.emplace_back(TELVORAD_PATH);
    return {std::move(arguments), std::move(environment), true};
}

}  // namespace

DaemonOptions DaemonOptions::forLaboratory(const std::filesystem::path& directory, const lab::LabPki& pki,
                                           const std::string& storebagURL) {
    DaemonOptions options;
    options.directory = directory;
    options.frameworkDirectory = pki.frameworkDirectory();
    options.caFile = pki.caFile();
    options.storebagURL = storebagURL;
    return options;
}

DaemonProcess::DaemonProcess(DaemonOptions options)
    : directory_(options.directory), process_(childOptions(options)) {}

bool DaemonProcess::waitUntilListening() const {
    return waitForLine(kListening);
}

bool DaemonProcess::waitUntilActivatable() const {
    return waitForLine("Listening on " + socketPath() + ".Status as 4.");
}

std::string DaemonProcess::socketPath() const {
    return socketIn(directory_);
}

bool DaemonProcess::waitForLine(std::string_view line, size_t from) const {
    return process_.errors()
        .waitFor([line](std::string_view candidate) { return candidate == line; }, kPatience, from)
        .has_value();
}

bool DaemonProcess::waitForLineBeginning(std::string_view beginning, size_t from) const {
    return process_.errors()
        .waitFor([beginning](std::string_view candidate) { return candidate.starts_with(beginning); },
                 kPatience, from)
        .has_value();
}

std::optional<int> DaemonProcess::stop() {
    process_.signal(SIGTERM);
    return process_.waitForExit(kPatience);
}

std::vector<std::string> DaemonProcess::sanitizerReports() const {
    std::vector<std::string> reports;
    for (const std::string& line : logLines()) {
        for (const std::string_view mark : kSanitizerMarks) {
            if (line.find(mark) != std::string::npos) reports.push_back(line);
        }
    }
    return reports;
}

}  // namespace telvora::test
