// SPDX-License-Identifier: Apache-2.0
//
// BagServer: GET /bags/NAME?version=V answers with a bag, signed on the fly. Each bag can have one of the
// faults of a real server, or of a middlebox on the way to the device.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/property_list.h"
#include "telvora-lab/https_server.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/named_values.h"
#include "util/mutex.h"

namespace telvora::lab {

enum class BagFault {
    none,
    noAnswer,              // the connection ends before the answer
    hold,                  // the answer waits for releaseHeld()
    notModified,           // 304, regardless of the request
    notFound,              // 404 with a body that is no property list
    truncated,             // the connection ends in the middle of the body
    notAPropertyList,      // 200 with a body that is no property list
    unsignedBag,           // without "signature"
    foreignKey,            // signed with another key
    flippedBit,            // one bit of the inner bag changed after signing
    innerNotAPropertyList  // well signed, but the inner bag is no property list
};

// Named as they are written above.
template <>
NamedValues<BagFault> namedValues<BagFault>();

struct BagRequest {
    std::string name;
    std::string version;
    std::optional<std::string> ifModifiedSince;
    int status = 0;  // of the answer
};

class BagServer {
  public:
    // `pki` must outlive the server.
    explicit BagServer(const LabPki& pki, const Hosting& hosting = {});
    ~BagServer();

    // "https://127.0.0.1:PORT/bags", a value for the user default "telvora_storebag_url".
    std::string baseURL() const { return server_.origin() + "/bags"; }
    int port() const { return server_.port(); }
    bool listening() const { return server_.port() != 0; }

    // Adds or replaces a bag: the inner bag with its sections, "version" and "refresh_cycle".
    void setBag(const std::string& name, Dictionary bag);
    // A bag without a setBag() is answered with the file of its name in `directory`, read at each request.
    // Such a file is a signed document.
    void serveSigned(std::filesystem::path directory);
    // Sets the fault of all further answers for the bag, which need not exist.
    void setFault(const std::string& name, BagFault fault);
    BagFault fault(const std::string& name) const;
    // The inner bag of that name, or `std::nullopt` if there is none, or a signed document that is malformed.
    std::optional<Dictionary> bag(const std::string& name) const;
    // The names of all bags, sorted.
    std::vector<std::string> names() const;
    // Releases the answers that BagFault::hold holds.
    void releaseHeld();

    // Refuses connections until accept(); returns when the port is closed.
    void refuse() { server_.stop(); }
    bool accept() { return server_.restart(); }

    // All requests that arrived, in order.
    std::vector<BagRequest> requests() const;
    // Waits until so many requests have arrived. False if `timeout` passes first.
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;

  private:
    struct Bag {
        std::optional<Dictionary> content;
        BagFault fault = BagFault::none;
    };

    ServerResponse handle(const ServerRequest& request) TELVORA_EXCLUDES(mutex_);
    ServerResponse answerFor(const std::string& name) const TELVORA_REQUIRES(mutex_);
    std::optional<std::string> servedDocument(const std::string& name, const Bag& bag) const
        TELVORA_REQUIRES(mutex_);
    std::optional<std::string> signedDocument(const std::string& name) const TELVORA_REQUIRES(mutex_);

    const LabPki& pki_;
    Feed* const feed_;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::map<std::string, Bag> bags_ TELVORA_GUARDED_BY(mutex_);
    std::optional<std::filesystem::path> signedBags_ TELVORA_GUARDED_BY(mutex_);
    std::vector<BagRequest> requests_ TELVORA_GUARDED_BY(mutex_);
    uint64_t releases_ TELVORA_GUARDED_BY(mutex_) = 0;
    HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::lab
