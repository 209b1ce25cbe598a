// SPDX-License-Identifier: Apache-2.0
//
// The line protocol that opens a D-Bus connection (D-Bus Specification, "Authentication Protocol"), with the
// one mechanism EXTERNAL: the peer is the user that the kernel says it is. Both ends, as state machines over
// bytes: the caller reads and writes the socket. Not thread-safe.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace telvora {

// Of all that a peer sends before it has authenticated, in bytes.
inline constexpr size_t kMaxAuthenticationSize = 4096;

enum class AuthenticationState { running, done, failed };

class ServerAuthentication {
  public:
    // `peer`: the user at the other end (SO_PEERCRED). `guid`: 32 hexadecimal digits that name this server.
    // `takesDescriptors`: whether a peer that asks may send file descriptors.
    ServerAuthentication(uid_t peer, std::string guid, bool takesDescriptors = true)
        : peer_(peer), guid_(std::move(guid)), takesDescriptors_(takesDescriptors) {}

    // Takes whole lines off the front of `input` and appends the answers to `output`. After `done`, the rest
    // of `input` is messages. After `failed`, reason() says why, and the connection must end.
    AuthenticationState advance(std::string_view& input, std::string& output);

    // Whether messages may carry file descriptors.
    bool passesDescriptors() const { return passesDescriptors_; }
    const char* reason() const { return reason_; }

  private:
    enum class Expects { nul, mechanism, data, begin };

    AuthenticationState fail(const char* reason) {
        reason_ = reason;
        return AuthenticationState::failed;
    }
    bool isPeer(std::string_view hexadecimalUser) const;
    void answer(std::string_view command, std::string_view argument, std::string& output);
    void authenticate(std::string_view hexadecimalUser, std::string& output);

    const uid_t peer_;
    const std::string guid_;
    const bool takesDescriptors_;
    Expects expects_ = Expects::nul;
    bool passesDescriptors_ = false;
    size_t taken_ = 0;
    const char* reason_ = "";
};

class ClientAuthentication {
  public:
    // `takesDescriptors`: whether messages of both ends may carry file descriptors, if the server agrees.
    explicit ClientAuthentication(bool takesDescriptors = true) : takesDescriptors_(takesDescriptors) {}

    // The whole of what a client says: messages may follow at once. EXTERNAL without a name means the user
    // that the kernel knows.
    static std::string_view greeting(bool takesDescriptors = true);

    // Takes the server's answers off the front of `input`, as ServerAuthentication::advance() does.
    AuthenticationState advance(std::string_view& input);

    bool passesDescriptors() const { return passesDescriptors_; }
    const char* reason() const { return reason_; }

  private:
    enum class Expects { data, ok, descriptors };

    AuthenticationState fail(const char* reason) {
        reason_ = reason;
        return AuthenticationState::failed;
    }

    const bool takesDescriptors_;
    Expects expects_ = Expects::data;
    bool passesDescriptors_ = false;
    size_t taken_ = 0;
    const char* reason_ = "";
};

}  // namespace telvora
