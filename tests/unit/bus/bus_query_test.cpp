// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_query.h"

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"
#include "tests/support/unix_socket.h"

namespace telvora {
namespace {

std::string answer(MessageType type, uint32_t replySerial, const std::string& text) {
    MessageView header;
    header.type = type;
    header.serial = 1;
    header.replySerial = replySerial;
    if (type == MessageType::error) header.errorName = "a.b";
    header.signature = text.empty() ? "" : "s";
    std::string bytes;
    WireWriter writer(bytes, header);
    if (!text.empty()) writer.append(text);
    EXPECT_TRUE(writer.finish(1024));
    return bytes;
}

TEST(BusQueryTest, TellsAnAnswerFromEachFailure) {
    const std::string accepted = "DATA\r\nOK " + std::string(32, '0') + "\r\n";
    const std::string closed =
        "the daemon closed the connection: it ends, or this user has too many connections "
        "(maxConnectionsPerUser)";
    const std::string ours = answer(MessageType::methodReturn, 1, "ours");
    using Kind = BusQueryFailure::Kind;
    const struct {
        std::optional<Kind> kind;  // absent: answered
        std::string message, sent;
        std::optional<int> shutDown = {};  // by the daemon, after it has sent that
    } cases[] = {
        {{}, "", accepted + answer(MessageType::methodReturn, 9, "others") + ours},
        {Kind::kRefused, "text", accepted + answer(MessageType::error, 1, "text")},
        {Kind::kRefused, "a.b", accepted + answer(MessageType::error, 1, "")},
        {Kind::kNoAnswer, "no answer in time", accepted + ours.substr(0, ours.size() - 1)},
        {Kind::kUnreachable, closed, accepted, SHUT_WR},
        {Kind::kUnreachable, closed, "", SHUT_RDWR},
        {Kind::kUnreachable, "the server rejects EXTERNAL authentication", "REJECTED\r\n"},
        {Kind::kUnreachable, "a message has an unknown byte order", accepted + std::string(16, 'x')},
        {Kind::kUnreachable, "a header field is missing",
         accepted + answer(MessageType::methodReturn, 0, "")},
    };
    const test::TemporaryDirectory directory;
    const std::string path = directory.path() / "socket";
    const UniqueFd listener = test::boundSocket(path, SOCK_STREAM);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message + c.sent);
        const auto connection = BusQueryConnection::connect(path);
        ASSERT_TRUE(connection);
        const UniqueFd daemon(accept(listener.get(), nullptr, nullptr));
        send(daemon.get(), c.sent.data(), c.sent.size(), MSG_NOSIGNAL);
        if (c.shutDown) shutdown(daemon.get(), *c.shutDown);
        std::string read;
        const auto called =
            (*connection)->call({.timeout = std::chrono::milliseconds(0)}, [&](auto& message) {
                std::string_view text;
                message.reader().read(text);
                read = text;
            });
        EXPECT_EQ(read, called ? "ours" : "");
        ASSERT_EQ(called.has_value(), !c.kind) << called.error().message;
        if (called) continue;
        EXPECT_EQ(called.error().kind, *c.kind);
        EXPECT_EQ(called.error().message, c.message);
    }
}

}  // namespace
}  // namespace telvora
