// SPDX-License-Identifier: Apache-2.0
//
// A client that exits with an unanswered report, for libtelvora_test.cpp.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <telvora/telvora.hpp>

namespace {

// Constructed before the library's first use, so that it is destroyed after the library's objects.
struct Last {
    std::optional<telvora::Session> session;
    ~Last() { std::cout << "static: " << session->send(1, 2) << std::endl; }
} last;

}  // namespace

int main() {
    std::atexit([] { std::cout << "atexit: " << last.session->send(1, 1) << std::endl; });
    last.session.emplace();
    const std::filesystem::directory_iterator threads("/proc/self/task");
    std::cout << "threads " << std::distance(begin(threads), end(threads)) << std::endl;
    last.session->setInfo({{kTelvoraSessionInfoClientType, 8}, {kTelvoraSessionInfoSessionID, 9}});
    last.session->start();
    last.session->wait(std::chrono::minutes(1));
    std::cout << last.session->send(5, 6, {{"fruit", "quince"}}) << std::endl;
    return 0;
}
