// SPDX-License-Identifier: Apache-2.0
//
// BusOutput: the messages and file descriptors that a connection has yet to send. Messages are written into
// its buffer (WireWriter) and leave together, in one sendmsg(2) where the socket has room. A connection
// without output holds no buffer.
//
// Used on the connection's strand.
#pragma once

#include <cstddef>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "util/unique_fd.h"

namespace telvora {

class BusOutput {
  public:
    // Where the next message is appended.
    std::string& buffer() { return buffer_; }
    // Sends the descriptors with the message that begins at this position of the buffer.
    void attach(size_t position, std::vector<UniqueFd> descriptors);

    // Bytes that wait.
    size_t size() const { return buffer_.size() - sent_; }
    bool empty() const { return size() == 0; }

    void clear();

    // Sends as much as the socket takes. True if all is sent. Fails with the errno value of sendmsg(2).
    tl::expected<bool, int> flush(int socket);

  private:
    struct Attached {
        size_t position;  // of its message in the buffer
        UniqueFd descriptor;
    };

    std::string buffer_;
    size_t sent_ = 0;
    std::vector<Attached> descriptors_;
};

}  // namespace telvora
