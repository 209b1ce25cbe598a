// SPDX-License-Identifier: Apache-2.0
#include "profile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "util/unique_fd.h"

namespace telvora::bench {
namespace {

namespace fs = std::filesystem;

using Counts = std::map<std::string, size_t>;

constexpr char kSamplesPerSecond[] = "1999";

std::vector<std::string> run(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), "/usr/bin/env");
    test::Finished finished = test::runToEnd({arguments, {}}, input);
    if (finished.status != 0)
        throw std::runtime_error("can't run " + arguments[1] +
                                 (finished.errors.empty() ? "" : ": " + finished.errors.front()));
    return std::move(finished.output);
}

UniqueFd makeFifo(const fs::path& path) {
    mkfifo(path.c_str(), 0600);
    return UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC));
}

fs::path programOf(pid_t process) {
    return fs::read_symlink("/proc/" + std::to_string(process) + "/exe");
}

// The difference between the addresses in the process and those in its program.
uint64_t loadAddress(pid_t process, const std::string& program) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with(program)) return std::stoull(line, nullptr, 16);
    }
    throw std::runtime_error("the profiled process has ended");
}

// The room of a source file; empty for a file of a library.
std::string roomOf(const std::string& source) {
    constexpr std::string_view kRooms = "/src/";
    const size_t rooms = source.rfind(kRooms);
    if (rooms == std::string::npos) return "";
    const size_t begin = rooms + kRooms.size();
    const size_t end = source.find('/', begin);
    return end == std::string::npos ? "" : source.substr(begin, end - begin);
}

// An inlined function of a library belongs to the room that calls it.
Counts byRoom(const std::string& program, const std::map<uint64_t, size_t>& samples) {
    std::ostringstream addresses;
    addresses << std::hex;
    for (const auto& [address, count] : samples)
        addresses << address << '\n';
    Counts rooms;
    size_t count = 0;
    std::string room;
    const auto finish = [&] {
        if (count != 0) rooms[room.empty() ? "(templates of libraries)" : room] += count;
    };
    for (const std::string& line : run({"addr2line", "-a", "-i", "-e", program}, addresses.str())) {
        if (line.starts_with("0x")) {
            finish();
            count = samples.at(std::stoull(line, nullptr, 16));
            room.clear();
        } else if (room.empty()) {
            room = roomOf(line.substr(0, line.rfind(':')));
        }
    }
    finish();
    return rooms;
}

void writeTable(std::ostream& out, const std::string& title, const Counts& counts, size_t all) {
    std::vector<std::pair<size_t, std::string>> rows;
    for (const auto& [name, count] : counts)
        rows.emplace_back(count, name);
    std::sort(rows.rbegin(), rows.rend());
    out << title << '\n';
    out.precision(1);
    out << std::fixed;
    for (const auto& [count, name] : rows) {
        out.width(7);
        out << 100.0 * static_cast<double>(count) / static_cast<double>(all) << " %  " << name << '\n';
    }
}

}  // namespace

Profile::Profile(pid_t process) : process_(process) {
    if (test::readFile(programOf(process)).find(".debug_line") == std::string::npos)
        throw std::runtime_error("the daemon has no line numbers: build it with CMAKE_CXX_FLAGS=-g1");
    const UniqueFd control = makeFifo(directory_.path() / "control");
    const UniqueFd acknowledged = makeFifo(directory_.path() / "acknowledged");
    const std::string fifos = "fifo:" + (directory_.path() / "control").string() + "," +
                              (directory_.path() / "acknowledged").string();
    perf_ = std::make_unique<test::ChildProcess>(test::ChildProcessOptions{
        {"/usr/bin/env", "perf", "record", "--quiet", "--event", "cpu-clock", "--freq", kSamplesPerSecond,
         "--delay", "-1", "--control", fifos, "--pid", std::to_string(process), "--output", samples()},
        {}});
    constexpr std::string_view kEnable = "enable\n";
    if (::write(control.get(), kEnable.data(), kEnable.size()) < 0) throw std::runtime_error("no FIFO");
    pollfd started{acknowledged.get(), POLLIN, 0};
    while (poll(&started, 1, 50) == 0) {
        const auto status = perf_->waitForExit(std::chrono::milliseconds(0));
        if (status == 127) throw std::runtime_error("--profile needs perf(1), which is not installed");
        if (!status) continue;
        const auto errors = perf_->errors().linesToTheEnd();
        throw std::runtime_error("perf: " + (errors.empty() ? "failed" : errors.front()));
    }
}

void Profile::write(const fs::path& file) {
    perf_->signal(SIGINT);
    if (!perf_->waitForExit(test::kPatience)) throw std::runtime_error("perf does not end");
    const std::string program = programOf(process_);
    const uint64_t base = loadAddress(process_, program);
    Counts libraries;
    std::map<uint64_t, size_t> samplesOfProgram;  // by address in the program
    size_t all = 0;
    // Lines "   address (file)".
    for (const std::string& line : run({"perf", "script", "--input", samples(), "--fields", "ip,dso"})) {
        const size_t name = line.find('(');
        if (name == std::string::npos) continue;
        const std::string library = line.substr(name + 1, line.rfind(')') - name - 1);
        ++all;
        ++libraries[library.starts_with('[') ? library : fs::path(library).filename().string()];
        if (library == program) ++samplesOfProgram[std::stoull(line, nullptr, 16) - base];
    }
    if (all == 0) throw std::runtime_error("perf has taken no sample");
    std::ofstream out(file);
    out << all << " samples, " << kSamplesPerSecond << " a second of processor time\n\n";
    writeTable(out, "by library", libraries, all);
    out << '\n';
    writeTable(out, "within " + fs::path(program).filename().string() + ", by room, of all",
               byRoom(program, samplesOfProgram), all);
    if (!out.flush()) throw std::runtime_error("can't write " + file.string());
}

}  // namespace telvora::bench
