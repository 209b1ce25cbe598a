// SPDX-License-Identifier: Apache-2.0
//
// UploadServer: receives the files that the daemon posts to /upload, and stores the newest byte for byte.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/named_values.h"
#include "telvora-lab/newest.h"
#include "util/mutex.h"

namespace telvora::lab {

// The answer to an upload. The upload is stored in any case.
enum class UploadAnswer {
    success,     // {"success":true}
    failed,      // {"status":"failed"}
    notUtf8,     // 200 with bytes that are no UTF-8 text
    empty,       // 200 without a body
    halfAnswer,  // the connection ends in the middle of {"success":true}
    noAnswer,    // the connection ends before the answer
    hold         // waits for releaseHeld(), then success
};

// Named as they are written above.
template <>
NamedValues<UploadAnswer> namedValues<UploadAnswer>();

class UploadServer {
  public:
    // `pki` must outlive the server.
    explicit UploadServer(const LabPki& pki, const Hosting& hosting = {});
    ~UploadServer();

    std::string uploadURL() const { return server_.origin() + "/upload"; }
    int port() const { return server_.port(); }
    bool listening() const { return server_.port() != 0; }

    void setAnswer(UploadAnswer answer);
    UploadAnswer answer() const;
    // Releases the answers that UploadAnswer::hold holds.
    void releaseHeld();
    // Refuses connections until accept(); returns when the port is closed.
    void refuse() { server_.stop(); }
    bool accept() { return server_.restart(); }

    // The uploads that arrived and are kept, in order; the body is the file, with gzip undone.
    std::vector<ServerRequest> uploads() const;
    // Of all that arrived.
    size_t uploadCount() const;
    // Waits until so many uploads have arrived. False if `timeout` passes first.
    bool waitForUploads(size_t count, std::chrono::milliseconds timeout) const;

  private:
    ServerResponse handle(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);

    Feed* const feed_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    UploadAnswer answer_ TELVORA_GUARDED_BY(mutex_) = UploadAnswer::success;
    Newest<ServerRequest> uploads_ TELVORA_GUARDED_BY(mutex_);
    uint64_t releases_ TELVORA_GUARDED_BY(mutex_) = 0;
    HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::lab
