// SPDX-License-Identifier: Apache-2.0
//
// PageServer: the laboratory's page for a browser, and the requests of its script. Every request but those
// for the page's own files needs the token, which is in the page's address behind "#": other users of the
// machine, and pages of other sites in the same browser, see and change nothing.
#pragma once

#include <string>

#include "telvora-lab/https_server.h"
#include "telvora-lab/page/page_requests.h"

namespace telvora::lab {

bool isLoopback(const std::string& address);
// Whether the request comes from the page: it has the token and names the server by localhost or an IPv4
// address, which no name server can direct elsewhere; and its Origin, if any, is the server.
bool isFromThePage(const ServerRequest& request, const std::string& token);
// A fresh token, 32 hex digits.
std::string makePageToken();

struct PageOptions {
    std::string address = "127.0.0.1";
    int port = 0;  // 0: the kernel chooses
    std::string token;
    BagKeeper keepBag;  // called with each bag that the page replaces. May be empty.
};

class PageServer {
  public:
    // Listens at once: on a loopback address without TLS, so that browsers show the page without a warning
    // about an unknown authority; else with the laboratory's certificate. The laboratory and the feed must
    // outlive the server.
    PageServer(Laboratory& laboratory, Feed& feed, PageOptions options);
    // Closes the feed and waits for running requests.
    ~PageServer();

    bool listening() const { return server_.port() != 0; }
    int port() const { return server_.port(); }
    // The address of the page, with the token.
    std::string url() const { return server_.origin() + "/#" + options_.token; }

  private:
    ServerResponse handle(const ServerRequest& request);

    const PageOptions options_;
    Feed& feed_;
    PageRequests requests_;
    HttpsServer server_;  // last: it stops before the members that its handlers use are destroyed
};

}  // namespace telvora::lab
