// SPDX-License-Identifier: Apache-2.0
//
//     telvora-fuzz-wire [SECONDS [SEED]]
//
// Gives the same messages, valid ones and damaged ones, to sd-bus and to WireReader. Prints each message that
// one of them accepts and the other rejects, and ends with 1 if there was one that no known difference
// explains.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "wire/wire_message.h"

namespace telvora {
namespace {

using Random = std::mt19937_64;

unsigned below(Random& random, unsigned limit) {
    return static_cast<unsigned>(random() % limit);
}

std::string randomSignature(Random& random, unsigned depth) {
    static constexpr std::string_view kBasic = "ybnqiuxtdsog";
    const unsigned choice = below(random, depth == 0 ? 12 : 18);
    if (choice < 12) return {kBasic[choice]};
    if (choice < 14) return "a" + randomSignature(random, depth - 1);
    if (choice == 14)
        return "a{" + std::string{kBasic[below(random, 12)]} + randomSignature(random, depth - 1) + "}";
    if (choice < 17) return "v";
    std::string text = "(";
    for (unsigned i = 0; i <= below(random, 3); ++i)
        text += randomSignature(random, depth - 1);
    return text + ")";
}

// Writes random values of a signature, without the code under test.
class Encoder {
  public:
    Encoder(Random& random, bool big) : random_(random), big_(big) {}

    std::string bytes;

    void align(size_t alignment) {
        while (bytes.size() % alignment != 0)
            bytes.push_back('\0');
    }
    void number(uint64_t value, size_t size) {
        align(size);
        for (size_t i = 0; i < size; ++i)
            bytes.push_back(static_cast<char>(value >> 8 * (big_ ? size - 1 - i : i)));
    }
    void setNumber(size_t position, uint32_t value) {
        for (size_t i = 0; i < 4; ++i)
            bytes[position + i] = static_cast<char>(value >> 8 * (big_ ? 3 - i : i));
    }
    void text(std::string_view value) {
        number(value.size(), 4);
        bytes.append(value).push_back('\0');
    }
    void signature(std::string_view value) {
        bytes.push_back(static_cast<char>(value.size()));
        bytes.append(value).push_back('\0');
    }
    void values(std::string_view types, unsigned depth) {
        while (!types.empty()) {
            const size_t length = completeTypeLength(types);
            value(types.substr(0, length), depth);
            types.remove_prefix(length);
        }
    }

  private:
    void value(std::string_view type, unsigned depth) {
        static constexpr std::string_view kTexts[] = {
            "", "a", "ten letters", "\xc3\xa4", "\xf0\x9f\x98\x80", "twenty-three letters..."};
        static constexpr std::string_view kPaths[] = {"/", "/a", "/com/zandor/_1"};
        switch (type.front()) {
            case 's':
                return text(kTexts[below(random_, 6)]);
            case 'o':
                return text(kPaths[below(random_, 3)]);
            case 'g':
                return signature(randomSignature(random_, 2));
            case 'b':
                return number(below(random_, 2), 4);
            case 'v': {
                const std::string content = randomSignature(random_, depth > 0 ? 1 : 0);
                signature(content);
                return value(content, depth > 0 ? depth - 1 : 0);
            }
            case 'a': {
                number(0, 4);
                const size_t length = bytes.size() - 4;
                align(alignmentOf(type[1]));
                const size_t start = bytes.size();
                for (unsigned i = below(random_, 4); i > 0; --i)
                    value(type.substr(1), depth > 0 ? depth - 1 : 0);
                return setNumber(length, static_cast<uint32_t>(bytes.size() - start));
            }
            case '(':
            case '{':
                align(8);
                return values(type.substr(1, type.size() - 2), depth);
            default:
                return number(random_(), alignmentOf(type.front()));
        }
    }

    Random& random_;
    const bool big_;
};

std::string randomMessage(Random& random) {
    const bool big = below(random, 4) == 0;
    Encoder encoder(random, big);
    std::string types;
    for (unsigned i = below(random, 4); i > 0; --i)
        types += randomSignature(random, 4);
    if (types.size() > kMaxSignatureLength) types.clear();

    encoder.bytes = {big ? 'B' : 'l', 1, static_cast<char>(below(random, 8)), 1};
    encoder.number(0, 4);
    encoder.number(1 + below(random, 1000), 4);
    encoder.number(0, 4);
    const auto field = [&](uint8_t code, const char* type, std::string_view value) {
        encoder.align(8);
        encoder.bytes.push_back(static_cast<char>(code));
        encoder.signature(type);
        *type == 'g' ? encoder.signature(value) : encoder.text(value);
    };
    field(1, "o", "/com/zandor/telvorad");
    field(3, "s", "Method");
    if (below(random, 2) == 0) field(2, "s", "com.zandor.telvorad.Thing");
    if (below(random, 4) == 0) field(6, "s", ":1.5");
    if (!types.empty()) field(8, "g", types);
    if (below(random, 8) == 0) field(static_cast<uint8_t>(10 + below(random, 20)), "s", "unknown");
    encoder.setNumber(12, static_cast<uint32_t>(encoder.bytes.size() - kFixedHeaderSize));
    encoder.align(8);
    const size_t body = encoder.bytes.size();
    encoder.values(types, 4);
    encoder.setNumber(4, static_cast<uint32_t>(encoder.bytes.size() - body));
    return encoder.bytes;
}

void damage(Random& random, std::string& bytes) {
    for (unsigned i = below(random, 4); i > 0; --i) {
        char& byte = bytes[random() % bytes.size()];
        switch (below(random, 4)) {
            case 0:
                byte = static_cast<char>(byte ^ (1 << below(random, 8)));
                break;
            case 1:
                byte = static_cast<char>(random());
                break;
            case 2:
                byte = static_cast<char>(byte + 1);
                break;
            default:
                byte = "ybnqiuxtdsogav(){}h\0\x7f\xff"[below(random, 22)];
        }
    }
}

// Null: accepted. Otherwise the reason.
const char* ours(std::string_view bytes) {
    const auto message = parseMessage(bytes, 0);
    if (!message) return message.error();
    if (!*message) return nullptr;
    WireReader reader = (*message)->reader();
    return reader.finish() ? nullptr : reader.violation();
}

constexpr int kNotSeen = 1;

// A connection of sd-bus whose other end writes the messages.
class SdBus {
  public:
    SdBus() {
        int sockets[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sockets) != 0) std::abort();
        peer_ = sockets[1];
        sd_bus* bus = nullptr;
        sd_bus_new(&bus);
        bus_.reset(bus);
        sd_bus_set_fd(bus, sockets[0], sockets[0]);
        sd_bus_set_server(bus, 1, sd_id128_t{});
        sd_bus_set_anonymous(bus, 1);
        sd_bus_add_filter(
            bus, nullptr,
            [](sd_bus_message* message, void* self, sd_bus_error*) {
                auto& connection = *static_cast<SdBus*>(self);
                connection.seen_ = true;
                connection.result_ = walk(message);
                return 1;
            },
            this);
        sd_bus_start(bus);
        put(std::string_view("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24));
        process();
    }
    ~SdBus() { close(peer_); }

    // 0: accepted. Negative: the error. kNotSeen: not compared.
    int accept(std::string_view bytes) {
        seen_ = false;
        result_ = 0;
        put(bytes);
        const int failure = process();
        char answers[4096];
        while (read(peer_, answers, sizeof answers) > 0) {
        }
        if (failure < 0) return failure;
        return seen_ ? result_ : kNotSeen;
    }

  private:
    struct Unref {
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };

    void put(std::string_view bytes) {
        if (write(peer_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
    }
    int process() {
        int result;
        while ((result = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        return result;
    }

    static int walk(sd_bus_message* message) {
        char type = 0;
        const char* contents = nullptr;
        int result;
        while ((result = sd_bus_message_peek_type(message, &type, &contents)) > 0) {
            if (isContainerType(type) || type == 'r' || type == 'e') {
                if ((result = sd_bus_message_enter_container(message, type, contents)) < 0) return result;
                if ((result = walk(message)) != 0) return result;
                if ((result = sd_bus_message_exit_container(message)) < 0) return result;
            } else if (type == 'h') {
                return kNotSeen;  // sd-bus rejects the message where WireReader rejects the value
            } else {
                uint64_t value[2] = {};
                if ((result = sd_bus_message_read_basic(message, type, value)) < 0) return result;
            }
        }
        return result;
    }

    int peer_ = -1;
    std::unique_ptr<sd_bus, Unref> bus_;
    bool seen_ = false;
    int result_ = 0;
};

// The rules of the format that sd-bus does not enforce: it ignores the padding of headers, the version, and
// the number of types in header fields that it does not know, takes every boolean but 0 as true, and leaves
// names of members, signatures as values, and bytes after the last value to its callers.
bool isStricter(std::string_view bytes, std::string_view violation) {
    if (violation == "a variant's signature is not one complete type") return !parseMessage(bytes, 0);
    static const std::set<std::string_view> kRules = {
        "a boolean is neither 0 nor 1",        "a message has an unknown protocol version",
        "a name in the header is invalid",     "a signature is invalid",
        "bytes are left after the last value", "padding is not zero",
    };
    return kRules.count(violation) != 0;
}

void print(std::string_view bytes, const char* mine, int theirs) {
    std::printf("%s / %s\n", mine == nullptr ? "accepted" : mine,
                theirs == 0 ? "accepted" : strerror(-theirs));
    for (size_t i = 0; i < bytes.size(); ++i)
        std::printf("%02x%s", static_cast<uint8_t>(bytes[i]), i % 16 == 15 ? "\n" : " ");
    std::printf("\n");
}

int run(int seconds, uint64_t seed) {
    Random random(seed);
    auto bus = std::make_unique<SdBus>();
    std::map<std::string, size_t> tally;
    size_t messages = 0;
    size_t accepted = 0;
    size_t printed = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const std::string valid = randomMessage(random);
        std::string bytes = valid;
        damage(random, bytes);
        const auto size = messageSize(bytes, size_t{128} << 20);
        if (size && *size != bytes.size()) continue;  // sd-bus would wait for more
        const char* mine = size ? ours(bytes) : size.error();
        const int theirs = bus->accept(bytes);
        ++messages;
        accepted += mine == nullptr;
        if (theirs < 0 || theirs == kNotSeen) bus = std::make_unique<SdBus>();
        if (theirs == kNotSeen || (mine == nullptr) == (theirs == 0)) continue;
        if (static_cast<uint8_t>(bytes[1]) > 4) continue;  // ignored, and its body is not looked at
        if (theirs == 0 && bytes != valid && isStricter(bytes, mine)) continue;
        // Bytes that sd-bus has kept of an earlier message can be the reason.
        bus = std::make_unique<SdBus>();
        if ((mine == nullptr) == (bus->accept(bytes) == 0)) continue;
        const std::string kind = std::string(mine == nullptr ? "accepted" : mine) + " / " +
                                 (theirs == 0 ? "accepted" : strerror(-theirs));
        if (tally[kind]++ < 2 && printed++ < 20) print(bytes, mine, theirs);
    }
    std::printf("%zu messages, %zu accepted\n", messages, accepted);
    for (const auto& [kind, count] : tally)
        std::printf("%8zu %s\n", count, kind.c_str());
    return tally.empty() ? 0 : 1;
}

}  // namespace
}  // namespace telvora

int main(int argc, char** argv) {
    return telvora::run(argc > 1 ? std::atoi(argv[1]) : 10,
                        argc > 2 ? std::strtoull(argv[2], nullptr, 10) : std::random_device()());
}
