// SPDX-License-Identifier: Apache-2.0
//
// LogDataServer: receives the log data that the daemon posts to /logdata, reads the archive (docs/formats.md)
// and answers with a location.
//
// All operations are callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/property_list.h"
#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/named_values.h"
#include "telvora-lab/newest.h"
#include "util/mutex.h"

namespace telvora::lab {

enum class LogDataFault {
    none,
    emptyAnswer,  // 200 without a body
    noAnswer      // the connection ends before the answer
};

// Named as they are written above.
template <>
NamedValues<LogDataFault> namedValues<LogDataFault>();

class LogDataServer {
  public:
    // `pki` must outlive the server.
    explicit LogDataServer(const LabPki& pki, const Hosting& hosting = {});

    std::string url() const { return server_.origin() + "/logdata"; }
    // The server's answer to the upload of that number, the first being 1.
    std::string location(size_t number) const { return url() + "/" + std::to_string(number); }
    int port() const { return server_.port(); }
    bool listening() const { return server_.port() != 0; }

    // Sets the fault of all further answers. Uploads are still received.
    void setFault(LogDataFault fault);
    LogDataFault fault() const;

    // The records of each upload that is kept, in order.
    std::vector<Array> uploads() const;
    // The errors of malformed uploads, one line each. Empty if there are none.
    std::vector<std::string> problems() const;

  private:
    ServerResponse handle(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);

    Feed* const feed_;
    mutable Mutex mutex_;
    LogDataFault fault_ TELVORA_GUARDED_BY(mutex_) = LogDataFault::none;
    Newest<Array> uploads_ TELVORA_GUARDED_BY(mutex_);
    std::vector<std::string> problems_ TELVORA_GUARDED_BY(mutex_);
    HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::lab
