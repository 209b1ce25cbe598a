// SPDX-License-Identifier: Apache-2.0
#include "process_figures.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace telvora::bench {
namespace {

std::filesystem::path folder(pid_t pid) {
    return std::filesystem::path("/proc") / std::to_string(pid);
}

// The number after `name` in a file of lines "Name:   number unit"; 0 if there is no such line.
int64_t field(const std::filesystem::path& file, const std::string& name) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + ":")) return std::stoll(line.substr(name.size() + 1));
    }
    return 0;
}

size_t entriesOf(const std::filesystem::path& directory) {
    std::error_code ignored;
    const std::filesystem::directory_iterator entries(directory, ignored);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

double cpuSeconds(pid_t pid) {
    std::ifstream file(folder(pid) / "stat");
    std::string line;
    std::getline(file, line);
    const size_t nameEnd = line.rfind(')');  // the name may contain parentheses
    if (nameEnd == std::string::npos) return 0;
    std::istringstream fields(line.substr(nameEnd + 1));
    std::string skipped;
    for (int i = 3; i < 14; ++i)
        fields >> skipped;
    int64_t user = 0;
    int64_t system = 0;
    fields >> user >> system;
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

Memory memoryOf(pid_t pid) {
    return {field(folder(pid) / "status", "VmRSS"), field(folder(pid) / "status", "VmHWM"),
            field(folder(pid) / "smaps_rollup", "Pss")};
}

size_t descriptorsOf(pid_t pid) {
    return entriesOf(folder(pid) / "fd");
}

size_t threadsOf(pid_t pid) {
    return entriesOf(folder(pid) / "task");
}

Wakeups wakeupsOf(pid_t pid) {
    Wakeups wakeups;
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator(folder(pid) / "task", ignored))
        wakeups[task.path().filename()] = field(task.path() / "status", "voluntary_ctxt_switches");
    return wakeups;
}

int64_t wakeupsSince(const Wakeups& before, const Wakeups& now) {
    int64_t sum = 0;
    for (const auto& [thread, count] : now) {
        const auto earlier = before.find(thread);
        sum += count - (earlier == before.end() ? 0 : earlier->second);
    }
    return sum + std::count_if(before.begin(), before.end(),
                               [&](const auto& thread) { return !now.contains(thread.first); });
}

}  // namespace telvora::bench
