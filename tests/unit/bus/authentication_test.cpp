// SPDX-License-Identifier: Apache-2.0
#include "bus/authentication.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

using namespace std::string_view_literals;

TEST(AuthenticationTest, HoldsEachConversation) {
    const std::string ok = "OK 0123\r\n", rejected = "REJECTED EXTERNAL\r\n";
    const struct {
        std::string_view said;
        std::string answered;
        AuthenticationState state;
    } cases[] = {
        {"\0AUTH EXTERNAL 37\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\nl"sv, ok + "AGREE_UNIX_FD\r\n",
         AuthenticationState::done},
        {"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\nl"sv, "DATA\r\n" + ok, AuthenticationState::done},
        {"\0AUTH\r\nAUTH ANONYMOUS\r\nAUTH EXTERNAL 38\r\nAUTH EXTERNAL 37\r\nBEGIN\r\nl"sv,
         rejected + rejected + rejected + ok, AuthenticationState::done},
        {"\0AUTH EXTERNAL\r\nCANCEL\r\nAUTH EXTERNAL 3\r\nERROR\r\nNONSENSE\r\nAUTH EXTE"sv,
         "DATA\r\n" + rejected + rejected + rejected + "ERROR\r\n", AuthenticationState::running},
        {"\0AUTH EXTERNAL 38\r\nBEGIN\r\n"sv, rejected, AuthenticationState::failed},
        {"\0BEGIN\r\n"sv, "", AuthenticationState::failed},
        {"AUTH EXTERNAL 37\r\n"sv, "", AuthenticationState::failed},
    };
    for (const auto& c : cases) {
        ServerAuthentication server(7, "0123");
        std::string_view input = c.said;
        std::string output;
        EXPECT_EQ(server.advance(input, output), c.state) << c.said.substr(1);
        EXPECT_EQ(output, c.answered);
        EXPECT_EQ(c.state == AuthenticationState::done, input == "l");
    }
    ServerAuthentication server(7, "0123");
    ClientAuthentication client;
    std::string_view greeting = ClientAuthentication::greeting();
    std::string answers;
    EXPECT_EQ(server.advance(greeting, answers), AuthenticationState::done);
    std::string_view input = answers;
    EXPECT_EQ(client.advance(input), AuthenticationState::done);
    EXPECT_TRUE(client.passesDescriptors() && server.passesDescriptors());
    const std::string endless = '\0' + std::string(kMaxAuthenticationSize + 1, 'A');
    for (const std::string_view said : {"REJECTED EXTERNAL\r\n"sv, "DATA\r\nREJECTED EXTERNAL\r\nERROR\r\n"sv,
                                        "DATA\r\nOK 0123\r\nOK\r\n"sv, std::string_view(endless)}) {
        input = said;
        EXPECT_EQ(ClientAuthentication().advance(input), AuthenticationState::failed) << said.substr(0, 40);
    }
    input = endless;
    EXPECT_EQ(ServerAuthentication(7, "").advance(input, answers), AuthenticationState::failed);
}

}  // namespace
}  // namespace telvora
