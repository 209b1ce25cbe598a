// SPDX-License-Identifier: Apache-2.0
//
// The attackers' means: raw connections, sessions without regard to answers, and loads that never end. For
// one thread.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "client/client_session.h"
#include "util/unique_fd.h"

namespace telvora::bench {

// The client types of the attackers' bags.
constexpr int64_t kHangingTypes[] = {5, 6};  // their bags never come
constexpr int64_t kDrippingType = 9;         // its clients of kDrippingNames post to a server each that drips
constexpr int64_t kOpenType = 16;            // posts to a server that answers
constexpr int64_t kLogDataType = 17;         // its server for log data drips

constexpr const char* kDrippingNames[] = {"drip1", "drip2", "drip3", "drip4", "drip5", "drip6"};

// A connection to the socket; invalid if it is refused.
UniqueFd rawConnection(const std::string& socketPath);
// The same after the authentication, which lets messages carry descriptors.
UniqueFd authenticatedConnection(const std::string& socketPath);
// A method call whose one argument is text of this size.
std::string callWithText(size_t size);
// Sends all of it; waits while the daemon does not read. False if the daemon has closed.
bool sendAll(const UniqueFd& connection, std::string_view bytes);

// A session, whose calls are answered or not.
class HostileSession {
  public:
    // Connects. Throws std::runtime_error if the daemon can't be reached.
    HostileSession(ClientRuntime& runtime, const std::string& socketPath, int64_t clientType,
                   Dictionary moreInfo = {}, std::string clientName = "attacker");
    // Waits for the configuration. Throws std::runtime_error if there is none.
    void waitUntilConfigured();
    ClientSession& session() { return *session_; }

  private:
    std::unique_ptr<ClientSession> session_;
};

// Repeats a call for ever, with at most `window` of them unanswered. `call` starts one with the completion
// that it gets. Returns when a call fails.
void repeat(size_t window, const std::function<void(std::function<void(bool answered)>)>& call);

// Says on standard output that the attack is at its height, and keeps what it holds until the process is
// killed.
void announce();
[[noreturn]] void holdForEver();

}  // namespace telvora::bench
