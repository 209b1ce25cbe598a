// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/page/page_server.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>

#include <string_view>

#include "telvora-lab/page/page_files.h"
#include "util/hexadecimal.h"
#include "util/random.h"

namespace telvora::lab {
namespace {

constexpr size_t kConnections = 24;
constexpr size_t kMaxBodyBytes = 24 << 20;  // a bag, in JSON in JSON
constexpr int kForbidden = 403;

// The page runs its own files only, talks to its own server only, and makes no markup of texts.
constexpr char kContentSecurityPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'";

std::string_view typeOf(std::string_view name) {
    if (name.ends_with(".html")) return "text/html; charset=utf-8";
    if (name.ends_with(".css")) return "text/css; charset=utf-8";
    if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
    return "image/svg+xml";
}

const PageFile* fileAt(std::string_view path) {
    const std::string_view wanted = path == "/" ? "index.html" : path.substr(1);
    for (const PageFile& file : pageFiles()) {
        if (file.name == wanted) return &file;
    }
    return nullptr;
}

bool isAddress(std::string host) {
    if (const size_t colon = host.rfind(':'); colon != std::string::npos) host.resize(colon);
    in_addr address;
    return host == "localhost" || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

}  // namespace

bool isLoopback(const std::string& address) {
    return address.starts_with("127.");
}

bool isFromThePage(const ServerRequest& request, const std::string& token) {
    const std::string host = request.header("Host").value_or("");
    const auto origin = request.header("Origin");
    if (!isAddress(host)) return false;
    if (origin && *origin != "http://" + host && *origin != "https://" + host) return false;
    const std::string given = request.header("X-Lab-Token").value_or("");
    return !token.empty() && given.size() == token.size() &&
           CRYPTO_memcmp(given.data(), token.data(), token.size()) == 0;
}

std::string makePageToken() {
    const auto bytes = randomBytes<16>();
    return bytes ? hexText({reinterpret_cast<const char*>(bytes->data()), bytes->size()}) : std::string();
}

PageServer::PageServer(Laboratory& laboratory, Feed& feed, PageOptions options)
    : options_(std::move(options)),
      feed_(feed),
      requests_(laboratory, feed, options_.keepBag),
      server_(isLoopback(options_.address) ? "" : laboratory.pki().serverCertificateFile(),
              isLoopback(options_.address) ? "" : laboratory.pki().serverKeyFile(),
              [this](const ServerRequest& request) {
                  ServerResponse response = handle(request);
                  response.headers.emplace_back("Content-Security-Policy", kContentSecurityPolicy);
                  response.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
                  response.headers.emplace_back("X-Content-Type-Options", "nosniff");
                  response.headers.emplace_back("Referrer-Policy", "no-referrer");
                  response.headers.emplace_back("Cache-Control", "no-store");
                  return response;
              },
              {.address = options_.address,
               .port = options_.port,
               .connections = kConnections,
               .maxBodyBytes = kMaxBodyBytes}) {}

PageServer::~PageServer() {
    feed_.close();
}

ServerResponse PageServer::handle(const ServerRequest& request) {
    if (const PageFile* file = fileAt(request.path); file != nullptr && request.method == "GET") {
        ServerResponse response;
        response.contentType = typeOf(file->name);
        response.body = file->content;
        return response;
    }
    if (!isFromThePage(request, options_.token)) {
        ServerResponse response;
        response.status = kForbidden;
        response.body = "Only for the page at the printed address.\n";
        return response;
    }
    return requests_.answer(request);
}

}  // namespace telvora::lab
