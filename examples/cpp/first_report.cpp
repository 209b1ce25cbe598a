// SPDX-License-Identifier: Apache-2.0
//
// The first report, in C++. CMakeLists.txt beside it finds the library.
#include <iostream>
#include <telvora/telvora.hpp>

int main() {
    bool reports = false;  // set by a callback, so that it outlives the session
    telvora::Session session;
    session.setInfo({{kTelvoraSessionInfoClientType, 8},  // selects the configuration
                     {kTelvoraSessionInfoSessionID, 2},
                     {kTelvoraSessionInfoRequireUserInfo, true}},  // else consent is not asked
                    {{kTelvoraUserInfoClientName, "first-report"}});
    session.start([&reports](const telvora::Answer& states) {
        reports = states.ok() && states.value.view() && states.value.view().size() != 0;
        if (!states.ok())
            std::cerr << "Not configured: " << states.message << '\n';
        else if (!states.value.view())
            std::cerr << "The daemon has no configuration for client type 8.\n";
        else if (!reports)
            std::cerr << "No backend reports: 'telvoractl doctor --client-type 8' shows the reason.\n";
        else
            std::cout << states.value.view().size() << " backends report.\n";
    });
    session.send(5, 6, {{"fruit", "quince"}, {"weight", 0.25}});
    session.flush();
    const telvora::Status status = session.wait(std::chrono::seconds(30));
    const bool done = status == TELVORA_OK && reports;
    std::cout << "The report: " << (status == TELVORA_OK && !done ? "not taken" : telvora_status_text(status))
              << '\n';
    return done ? 0 : 1;
}
