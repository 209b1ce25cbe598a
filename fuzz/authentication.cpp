// SPDX-License-Identifier: Apache-2.0
//
// Both ends of the authentication. Bytes in pieces have the result of the whole; answers are bounded.
#include "bus/authentication.h"

#include <string>
#include <tuple>

#include "fuzz/target.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

struct Server {
    std::string output;
    AuthenticationState advance(std::string_view& input) { return end.advance(input, output); }
    ServerAuthentication end{1000, std::string(32, '0')};
};

struct Client {
    std::string output;
    AuthenticationState advance(std::string_view& input) { return end.advance(input); }
    ClientAuthentication end;
};

// The state, the answers, the use of descriptors and the bytes that are messages.
using Outcome = std::tuple<AuthenticationState, std::string, bool, std::string>;

template <typename End>
Outcome authenticate(std::string_view bytes, size_t pieceSize) {
    End end;
    Input input(bytes);
    std::string kept;
    AuthenticationState state = AuthenticationState::running;
    while (state == AuthenticationState::running && !input.empty()) {
        kept += input.take(pieceSize);
        std::string_view rest = kept;
        state = end.advance(rest);
        kept.erase(0, kept.size() - rest.size());
        require(state != AuthenticationState::running || kept.size() <= kMaxAuthenticationSize,
                "waiting bytes are bounded");
    }
    require(end.output.size() <= 8 * kMaxAuthenticationSize, "the answers are bounded");
    const bool done = state == AuthenticationState::done;
    return {state, end.output, end.end.passesDescriptors(), done ? kept += input.rest() : ""};
}

}  // namespace

void tryInput(std::string_view bytes) {
    Input input(bytes);
    const size_t pieceSize = 1 + input.byte() % 16;
    const Outcome served = authenticate<Server>(input.rest(), input.rest().size());
    require(served == authenticate<Server>(input.rest(), pieceSize), "pieces change nothing for a server");
    require(std::get<0>(served) != AuthenticationState::done ||
                std::get<1>(served).find("OK ") != std::string::npos,
            "only a peer that was accepted may begin");
    require(authenticate<Client>(input.rest(), input.rest().size()) ==
                authenticate<Client>(input.rest(), pieceSize),
            "pieces change nothing for a client");
}

}  // namespace telvora::fuzz
