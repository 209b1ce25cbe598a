// SPDX-License-Identifier: Apache-2.0
//
// The bus's reader: a stream in pieces, with descriptors. The messages are those of the stream as a whole,
// what waits is bounded, every descriptor is closed, and a message that is written again is the same.
#include "bus/bus_input.h"

#include <fcntl.h>

#include <string>
#include <vector>

#include "fuzz/target.h"
#include "fuzz/wire_copy.h"
#include "tests/support/hostile_descriptors.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

constexpr size_t kMessageLimit = 4096;
constexpr size_t kReadSize = size_t{64} << 10;

struct CountingCloser : FdCloser, std::enable_shared_from_this<CountingCloser> {
    void addOne() override { ++open; }
    void releaseOne() override { --open; }
    void close(int fd) override {
        --open;
        ::close(fd);
    }
    std::shared_ptr<FdCloser> ofReceived() override { return shared_from_this(); }
    bool hasRoom() const override { return true; }
    int open = 0;
};

void rewrite(const MessageView& view) {
    std::string written, again;
    if (!copyMessage(view, written)) return;
    const auto parsed = parseMessage(written, view.descriptors);
    require(parsed && *parsed, "a written message is valid");
    require(view.order != kNativeByteOrder || (*parsed)->body == view.body, "a body has one form");
    require(copyMessage(**parsed, again) && written == again, "a message read again is equal");
}

std::vector<std::string> messagesOf(std::string_view stream) {
    std::vector<std::string> messages;
    while (stream.size() >= kFixedHeaderSize) {
        const auto size = messageSize(stream, kMessageLimit);
        if (!size) return messages;
        require(*size >= kFixedHeaderSize && *size <= kMessageLimit, "a message's size is in its bounds");
        if (*size > stream.size()) return messages;
        messages.emplace_back(stream.substr(0, *size));
        stream.remove_prefix(*size);
    }
    return messages;
}

}  // namespace

void tryInput(std::string_view bytes) {
    Input input(bytes);
    const size_t pieceSize = 1 + input.byte();
    const uint8_t withDescriptor = input.byte();
    const std::vector<std::string> expected = messagesOf(input.rest());
    std::vector<std::string> messages;
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    const UniqueFd ours(ends[0]), theirs(ends[1]);
    const UniqueFd passed(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const auto closer = std::make_shared<CountingCloser>();
    {
        BusInput reader(kMessageLimit, closer);
        bool failed = false;
        for (unsigned piece = 0; !failed && !input.empty(); ++piece) {
            const std::string_view sent = input.take(pieceSize);
            const bool withOne = (withDescriptor >> piece % 8 & 1) != 0;
            require(withOne ? test::sendWith(theirs.get(), sent, {passed.get()})
                            : send(theirs.get(), sent.data(), sent.size(), 0) > 0,
                    "the stream is sent");
            failed = !reader.receive(ours.get());
            std::optional<MessageView> previous;
            while (!failed) {
                const auto message = reader.nextMessage();
                failed = !message;
                if (failed || !*message) break;
                messages.emplace_back(**message);
                const auto most = static_cast<uint32_t>(std::min<size_t>(reader.waitingDescriptors(), 64));
                const auto view = parseMessage(**message, most);
                require(parseMessage(**message, most, previous ? &*previous : nullptr) == view,
                        "the message before changes nothing");
                if (!view || !*view) continue;
                previous = *view;
                const size_t waiting = reader.waitingDescriptors();
                const auto taken = reader.takeDescriptors((*view)->descriptors);
                require(taken.size() == (*view)->descriptors &&
                            waiting - taken.size() == reader.waitingDescriptors(),
                        "a message has its descriptors");
                rewrite(**view);
            }
            require(reader.bytes().size() <= kMessageLimit + kReadSize, "waiting bytes are bounded");
            failed = !reader.keepRest() || failed;
        }
        // Too many descriptors end a stream earlier.
        require(messages.size() <= expected.size() &&
                    std::equal(messages.begin(), messages.end(), expected.begin()),
                "pieces change no message");
        require(withDescriptor != 0 || messages == expected, "pieces lose no message");
    }
    require(closer->open == 0, "every descriptor is closed");
}

}  // namespace telvora::fuzz
