// SPDX-License-Identifier: Apache-2.0
//
// Compares the tables of methods with the contracts as published to authors of clients.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "protocol/client_session_methods.h"
#include "protocol/method_export.h"
#include "protocol/status_interface.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

// The interface as a contract writes it.
std::string contractOf(const BusInterface& interface) {
    std::string xml = "<interface name=\"" + interface.name() + "\">";
    for (const BusMethod& method : interface.methods()) {
        xml += "<method name=\"" + method.name + "\">";
        for (const auto& [arguments, direction] : {std::pair(method.in, "in"), {method.out, "out"}}) {
            for (const BusArgument& argument : arguments) {
                xml += "<arg name=\"" + argument.name + "\" type=\"" + argument.type + "\" direction=\"" +
                       direction + "\"/>";
            }
        }
        xml += "</method>";
    }
    return xml + "</interface>";
}

TEST(WireContractTest, EqualsTheTables) {
    const std::pair<const char*, std::vector<const BusInterface*>> contracts[] = {
        {"com.zandor.telvorad.xml",
         {&busInterface<kClientSessionMethods>(), &busInterface<kSandboxExtensionMethods>(),
          &busInterface<kClientMessageMethods>()}},
        {"com.zandor.telvorad.Status.xml", {&busInterface<kStatusMethods>()}}};
    const std::regex layout("<!DOCTYPE[^>]*>|<!--[^]*?-->|\\s*\n\\s*");
    for (const auto& [name, interfaces] : contracts) {
        std::string expected = "<node name=\"/com/zandor/telvorad\">";
        for (const BusInterface* interface : interfaces)
            expected += contractOf(*interface);
        const std::string xml = test::readFile(std::filesystem::path(TELVORA_WIRE_CONTRACTS) / name);
        EXPECT_EQ(std::regex_replace(xml, layout, ""), expected + "</node>");
    }
}

}  // namespace
}  // namespace telvora
