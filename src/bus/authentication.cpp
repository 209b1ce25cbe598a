// SPDX-License-Identifier: Apache-2.0
#include "bus/authentication.h"

#include <charconv>
#include <optional>

namespace telvora {

namespace {

constexpr std::string_view kLineEnd = "\r\n";

// Takes a line off the front; std::nullopt while it is not there as a whole.
std::optional<std::string_view> takeLine(std::string_view& input) {
    const size_t end = input.find(kLineEnd);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view line = input.substr(0, end);
    input.remove_prefix(end + kLineEnd.size());
    return line;
}

// Takes the text before the first blank off the front, and the blank.
std::string_view takeWord(std::string_view& line) {
    const size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

}  // namespace

AuthenticationState ServerAuthentication::advance(std::string_view& input, std::string& output) {
    if (expects_ == Expects::nul) {
        if (input.empty()) return AuthenticationState::running;
        if (input.front() != '\0') return fail("the peer does not begin with NUL");
        input.remove_prefix(1);
        expects_ = Expects::mechanism;
    }
    while (const auto line = takeLine(input)) {
        taken_ += line->size() + kLineEnd.size();
        if (taken_ > kMaxAuthenticationSize) return fail("the peer authenticates at too great length");
        std::string_view argument = *line;
        const std::string_view command = takeWord(argument);
        if (command == "BEGIN") {
            if (expects_ != Expects::begin) return fail("the peer did not authenticate");
            return AuthenticationState::done;
        }
        answer(command, argument, output);
    }
    if (taken_ + input.size() > kMaxAuthenticationSize)
        return fail("the peer authenticates at too great length");
    return AuthenticationState::running;
}

void ServerAuthentication::answer(std::string_view command, std::string_view argument, std::string& output) {
    if (command == "AUTH" && expects_ == Expects::mechanism) {
        const std::string_view mechanism = takeWord(argument);
        if (mechanism != "EXTERNAL") {
            output += "REJECTED EXTERNAL\r\n";
        } else if (argument.empty()) {
            expects_ = Expects::data;
            output += "DATA\r\n";
        } else {
            authenticate(argument, output);
        }
    } else if (command == "DATA" && expects_ == Expects::data) {
        authenticate(argument, output);
    } else if (command == "CANCEL" || (command == "ERROR" && expects_ != Expects::begin)) {
        expects_ = Expects::mechanism;
        output += "REJECTED EXTERNAL\r\n";
    } else if (command == "NEGOTIATE_UNIX_FD" && expects_ == Expects::begin && takesDescriptors_) {
        passesDescriptors_ = true;
        output += "AGREE_UNIX_FD\r\n";
    } else {
        output += "ERROR\r\n";
    }
}

void ServerAuthentication::authenticate(std::string_view hexadecimalUser, std::string& output) {
    if (isPeer(hexadecimalUser)) {
        expects_ = Expects::begin;
        output += "OK " + guid_ + "\r\n";
    } else {
        expects_ = Expects::mechanism;
        output += "REJECTED EXTERNAL\r\n";
    }
}

// The user is written in decimal digits, each of them in hexadecimal. Without a user the kernel's word
// counts.
bool ServerAuthentication::isPeer(std::string_view hexadecimalUser) const {
    std::string user;
    for (; hexadecimalUser.size() >= 2; hexadecimalUser.remove_prefix(2)) {
        uint8_t digit = 0;
        const char* const end = hexadecimalUser.data() + 2;
        if (std::from_chars(hexadecimalUser.data(), end, digit, 16).ptr != end) return false;
        user.push_back(static_cast<char>(digit));
    }
    return hexadecimalUser.empty() && (user.empty() || user == std::to_string(peer_));
}

std::string_view ClientAuthentication::greeting(bool takesDescriptors) {
    using namespace std::string_view_literals;
    return takesDescriptors ? "\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"sv
                            : "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"sv;
}

AuthenticationState ClientAuthentication::advance(std::string_view& input) {
    while (const auto line = takeLine(input)) {
        taken_ += line->size() + kLineEnd.size();
        if (taken_ > kMaxAuthenticationSize) break;
        std::string_view argument = *line;
        const std::string_view command = takeWord(argument);
        switch (expects_) {
            case Expects::data:
                if (command != "DATA") return fail("the server rejects EXTERNAL authentication");
                expects_ = Expects::ok;
                break;
            case Expects::ok:
                if (command != "OK") return fail("the server rejects this user");
                if (!takesDescriptors_) return AuthenticationState::done;
                expects_ = Expects::descriptors;
                break;
            case Expects::descriptors:
                passesDescriptors_ = command == "AGREE_UNIX_FD";
                if (!passesDescriptors_ && command != "ERROR") return fail("the server answers out of turn");
                return AuthenticationState::done;
        }
    }
    if (taken_ + input.size() > kMaxAuthenticationSize)
        return fail("the server authenticates at too great length");
    return AuthenticationState::running;
}

}  // namespace telvora
