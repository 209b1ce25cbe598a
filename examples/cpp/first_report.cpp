// SPDX-License-Identifier: Apache-2.0
//
// The first report, in C++. CMakeLists.txt beside it finds the library.
#include <iostream>
#include <telvora/telvora.hpp>

int main() {
    telvora::Session session;
    session.setInfo({{kTelvoraSessionInfoClientType, 8},  // selects the configuration
                     {kTelvoraSessionInfoSessionID, 2},
                     {kTelvoraSessionInfoRequireUserInfo, true}},  // else consent is not asked
                    {{kTelvoraUserInfoClientName, "first-report"}});
    session.start([](const telvora::Answer& states) {
        if (!states.ok())
            std::cerr << "Not configured: " << states.message << '\n';
        else if (!states.value.view())
            std::cerr << "The daemon has no configuration for client type 8.\n";
        else if (states.value.view().size() == 0)
            std::cerr << "No backend reports: 'telvoractl doctor --client-type 8' shows the reason.\n";
        else
            std::cout << states.value.view().size() << " backends report.\n";
    });
    session.send(5, 6, {{"fruit", "quince"}, {"weight", 0.25}});
    session.flush();
    const telvora::Status status = session.wait(std::chrono::seconds(30));
    std::cout << "The report: " << telvora_status_text(status) << '\n';
    return status == TELVORA_OK ? 0 : 1;
}
