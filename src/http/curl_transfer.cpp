// SPDX-License-Identifier: Apache-2.0
#include "http/curl_transfer.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <new>

#include "http/http_request_rules.h"
#include "util/ascii.h"
#include "util/attempt.h"

namespace telvora {

namespace {

constexpr long kConnectTimeoutMilliseconds = 15000;
// A slower transfer is given up, whether its server reads or writes slowly. libcurl does not count header
// bytes.
constexpr long kLeastBytesPerSecond = 1024;
constexpr long kCaCacheSeconds = 3600;
// Older releases keep a pointer to the last header of an answer in the handle. They free and write that
// memory again when the next answer begins with a folded line.
constexpr unsigned kReusableSince = 0x080101;
constexpr size_t kMaxHeaderBytes = size_t{256} << 10;

bool hasHeader(const HttpRequest& request, std::string_view name) {
    return std::any_of(request.headers.begin(), request.headers.end(),
                       [&](const auto& header) { return equalsIgnoringAsciiCase(header.first, name); });
}

int onSocket(void* connections, curl_socket_t socket, curlsocktype) noexcept try {
    static_cast<CurlConnections*>(connections)->opened(socket);
    return CURL_SOCKOPT_OK;
} catch (const std::bad_alloc&) {
    return CURL_SOCKOPT_ERROR;
}

int onClose(void* connections, curl_socket_t socket) noexcept {
    static_cast<CurlConnections*>(connections)->closing(socket);
    return ::close(socket);
}

HttpError::Kind kindOf(CURLcode code) {
    switch (code) {
        case CURLE_BAD_FUNCTION_ARGUMENT:
        case CURLE_URL_MALFORMAT:
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_FAILED_INIT:
        case CURLE_ABORTED_BY_CALLBACK:
            return HttpError::Kind::notSent;
        case CURLE_OUT_OF_MEMORY:
            return HttpError::Kind::noMemory;
        case CURLE_NO_CONNECTION_AVAILABLE:
            return HttpError::Kind::tooManyPending;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_PROXY:
        case CURLE_PEER_FAILED_VERIFICATION:
            return HttpError::Kind::noConnection;
        default:
            return HttpError::Kind::noAnswer;
    }
}

}  // namespace

HttpError makeHttpError(CURLcode code, std::string_view description) noexcept {
    HttpError error{code, "no memory", kindOf(code)};  // which fits into any string
    attempt("makeHttpError", [&] { error.description = description; });
    return error;
}

CurlTransfer::CurlTransfer(const CurlLibrary& curl, const CurlHttpClientOptions& options,
                           CurlConnections& connections)
    : curl_(curl), connections_(connections), easy_(curl.easyInit()) {
    if (easy_ != nullptr) setConstantOptions(options);
}

CurlTransfer::~CurlTransfer() {
    curl_.easyCleanup(easy_);
}

bool CurlTransfer::renew(const CurlHttpClientOptions& options) {
    if (easy_ != nullptr && curl_.versionInfo(CURLVERSION_NOW)->version_num >= kReusableSince) return true;
    curl_.easyCleanup(easy_);
    easy_ = curl_.easyInit();
    if (easy_ != nullptr) setConstantOptions(options);
    return easy_ != nullptr;
}

CurlTransfer& CurlTransfer::of(const CurlLibrary& curl, CURL* handle) {
    char* self = nullptr;
    curl.easyGetinfo(handle, CURLINFO_PRIVATE, &self);
    return *reinterpret_cast<CurlTransfer*>(self);
}

void CurlTransfer::setConstantOptions(const CurlHttpClientOptions& options) {
    curl_.easySetopt(easy_, CURLOPT_PRIVATE, this);
    curl_.easySetopt(easy_, CURLOPT_ERRORBUFFER, errorText_.data());
    curl_.easySetopt(easy_, CURLOPT_HEADERFUNCTION, &CurlTransfer::onHeader);
    curl_.easySetopt(easy_, CURLOPT_HEADERDATA, this);
    curl_.easySetopt(easy_, CURLOPT_WRITEFUNCTION, &CurlTransfer::onBody);
    curl_.easySetopt(easy_, CURLOPT_WRITEDATA, this);

    curl_.easySetopt(easy_, CURLOPT_SOCKOPTFUNCTION, &onSocket);
    curl_.easySetopt(easy_, CURLOPT_SOCKOPTDATA, &connections_);
    curl_.easySetopt(easy_, CURLOPT_CLOSESOCKETFUNCTION, &onClose);
    curl_.easySetopt(easy_, CURLOPT_CLOSESOCKETDATA, &connections_);
    curl_.easySetopt(easy_, CURLOPT_PREREQFUNCTION, &CurlTransfer::onRequest);
    curl_.easySetopt(easy_, CURLOPT_PREREQDATA, this);

    curl_.easySetopt(easy_, CURLOPT_NOSIGNAL, 1L);
    // Otherwise the end of an exchange would wait for its name lookup, and all others with it.
    curl_.easySetopt(easy_, CURLOPT_QUICK_EXIT, 1L);
    curl_.easySetopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_.easySetopt(easy_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_.easySetopt(easy_, CURLOPT_FOLLOWLOCATION, 0L);
    // The bag sets the destination of reports, so a proxy variable in the environment must not.
    curl_.easySetopt(easy_, CURLOPT_PROXY, options.link.proxy.c_str());
    curl_.easySetopt(easy_, CURLOPT_NOPROXY, options.link.proxyExceptions.c_str());

    curl_.easySetopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMilliseconds);
    curl_.easySetopt(easy_, CURLOPT_LOW_SPEED_LIMIT, kLeastBytesPerSecond);
    curl_.easySetopt(easy_, CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.rateWindow.count()));
    curl_.easySetopt(easy_, CURLOPT_MAXAGE_CONN, static_cast<long>(options.idleConnectionAge.count()));

    curl_.easySetopt(easy_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_.easySetopt(easy_, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_.easySetopt(easy_, CURLOPT_SSL_VERIFYHOST, 2L);
    // A directory of certificates would prevent libcurl from caching the store between connections.
    curl_.easySetopt(easy_, CURLOPT_CAPATH, static_cast<char*>(nullptr));
    curl_.easySetopt(easy_, CURLOPT_CA_CACHE_TIMEOUT, kCaCacheSeconds);
    setFiles(options.link);
}

void CurlTransfer::setFiles(const HttpLink& link) {
    if (!link.caFile.empty()) {
        curl_.easySetopt(easy_, CURLOPT_CAINFO, link.caFile.c_str());
        curl_.easySetopt(easy_, CURLOPT_PROXY_CAINFO, link.caFile.c_str());
    }
    if (!link.clientCertificate.empty()) {
        curl_.easySetopt(easy_, CURLOPT_SSLCERT, link.clientCertificate.c_str());
        curl_.easySetopt(easy_, CURLOPT_SSLKEY, link.clientKey.c_str());
    }
    if (!link.pinnedPublicKeys.empty())
        curl_.easySetopt(easy_, CURLOPT_PINNEDPUBLICKEY, link.pinnedPublicKeys.c_str());
}

CURLcode CurlTransfer::begin(std::unique_ptr<HttpExchange> exchange) try {
    exchange_ = std::move(exchange);
    exchange_->carrier = this;
    response_ = {};
    headerBytes_ = bodyBytes_ = 0;
    tooLong_ = sentOnKept_ = isStale_ = unanswered_ = false;
    connection_ = {};
    errorText_.front() = '\0';

    const HttpRequest& request = exchange_->request;
    setMethodAndBody(request);
    curl_.easySetopt(easy_, CURLOPT_FRESH_CONNECT, 0L);
    curl_.easySetopt(easy_, CURLOPT_HTTPHEADER, makeHeaderList(request));
    // Over TLS the first handshake shows whether one connection can serve all exchanges, so the others wait
    // for it. Without TLS they would only wait for a slow first answer.
    curl_.easySetopt(easy_, CURLOPT_PIPEWAIT, isSecureUrl(request.url) ? 1L : 0L);
    curl_.easySetopt(easy_, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(std::clamp<size_t>(request.maxResponseBytes, 1, INT64_MAX)));
    return curl_.easySetopt(easy_, CURLOPT_URL, request.url.c_str());
} catch (const std::bad_alloc&) {
    return CURLE_OUT_OF_MEMORY;
}

void CurlTransfer::setMethodAndBody(const HttpRequest& request) {
    curl_.easySetopt(easy_, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
    curl_.easySetopt(easy_, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    curl_.easySetopt(easy_, CURLOPT_HTTPGET, 1L);  // also resets the options of an earlier method
    if (request.method == "HEAD") {
        curl_.easySetopt(easy_, CURLOPT_NOBODY, 1L);
        return;
    }
    if (request.method == "POST" || !request.body.empty()) {
        curl_.easySetopt(easy_, CURLOPT_POST, 1L);
        curl_.easySetopt(easy_, CURLOPT_POSTFIELDS, request.body.data());
        curl_.easySetopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    if (request.method != "POST" && (request.method != "GET" || !request.body.empty())) {
        curl_.easySetopt(easy_, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
}

// libcurl copies neither the list nor its strings; both are kept here, and their memory is reused.
curl_slist* CurlTransfer::makeHeaderList(const HttpRequest& request) {
    headerText_.clear();
    size_t lines = 0;
    const auto add = [&](std::string_view name, std::string_view separator, std::string_view value) {
        headerText_.append(name).append(separator).append(value).push_back('\0');
        ++lines;
    };
    for (const auto& [name, value] : request.headers) {
        // The body alone determines its framing.
        if (equalsIgnoringAsciiCase(name, "Content-Length") ||
            equalsIgnoringAsciiCase(name, "Transfer-Encoding"))
            continue;
        if (value.empty()) {
            add(name, ";", "");
        } else {
            add(name, ": ", value);
        }
    }
    // A header without a value removes libcurl's own.
    for (const std::string_view name : {"Accept", "Content-Type", "Expect"}) {
        if (!hasHeader(request, name)) add(name, ":", "");
    }

    headerList_.resize(lines);
    char* text = headerText_.data();
    for (size_t i = 0; i < lines; ++i) {
        headerList_[i] = {text, i + 1 < lines ? &headerList_[i + 1] : nullptr};
        text += std::string_view(text).size() + 1;
    }
    return headerList_.data();
}

int CurlTransfer::onRequest(void* self, char* peer, char*, int peerPort, int localPort) noexcept try {
    return static_cast<CurlTransfer*>(self)->mayAttempt({peer, peerPort, localPort}) ? CURL_PREREQFUNC_OK
                                                                                     : CURL_PREREQFUNC_ABORT;
} catch (const std::bad_alloc&) {
    return CURL_PREREQFUNC_ABORT;
}

bool CurlTransfer::mayAttempt(CurlConnections::Name connection) {
    const std::string& method = exchange_->request.method;
    unanswered_ = sentOnKept_ && method != "GET" && method != "HEAD";
    connection_ = std::move(connection);
    sentOnKept_ = connections_.isKept(connection_);
    isStale_ = !unanswered_ && sentOnKept_ && connections_.isAtItsEnd(connection_);
    return !unanswered_ && !isStale_;
}

size_t CurlTransfer::onHeader(char* data, size_t size, size_t count, void* self) noexcept {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    transfer.headerBytes_ += size * count;
    if (transfer.headerBytes_ > kMaxHeaderBytes) {
        transfer.tooLong_ = true;
        return 0;
    }
    try {
        transfer.readHeader({data, size * count});
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return size * count;
}

void CurlTransfer::readHeader(std::string_view line) {
    if (line.substr(0, 5) == "HTTP/") {
        response_.headers.clear();  // those of an interim answer (RFC 9110, section 15.2)
        if (line.substr(5, 1) == "1") connections_.keep(connection_);
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (equalsIgnoringAsciiCase(name, "Keep-Alive")) readKeepAlive(value);
    response_.headers.emplace_back(name, value);
}

// "timeout=5, max=100": RFC 2068, section 19.7.1.
void CurlTransfer::readKeepAlive(std::string_view parameters) {
    constexpr std::string_view kTimeout = "timeout=";
    const size_t start = parameters.find(kTimeout);
    if (start == std::string_view::npos) return;
    const std::string_view value = parameters.substr(start + kTimeout.size());
    uint32_t seconds = 0;
    if (std::from_chars(value.data(), value.data() + value.size(), seconds).ec == std::errc())
        connections_.limitIdleTime(connection_, std::chrono::seconds(seconds));
}

size_t CurlTransfer::onBody(char* data, size_t size, size_t count, void* self) noexcept {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const HttpRequest& request = transfer.exchange_->request;
    const size_t bytes = size * count;
    if (bytes > request.maxResponseBytes - transfer.bodyBytes_) {
        transfer.tooLong_ = true;
        return 0;
    }
    transfer.bodyBytes_ += bytes;
    if (!request.keepResponseBody) return bytes;
    try {
        transfer.response_.body.append(data, bytes);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return bytes;
}

bool CurlTransfer::shouldStartAgain(CURLcode code) {
    long newConnections = 0;
    curl_.easyGetinfo(easy_, CURLINFO_NUM_CONNECTS, &newConnections);
    const bool wasClosed = code == CURLE_SEND_ERROR && newConnections == 0 && headerBytes_ == 0;
    if (!wasClosed && !isStale_) return false;
    sentOnKept_ = isStale_ = false;
    return curl_.easySetopt(easy_, CURLOPT_FRESH_CONNECT, 1L) == CURLE_OK;
}

bool CurlTransfer::isMultiplexed() const {
    long version = 0;
    curl_.easyGetinfo(easy_, CURLINFO_HTTP_VERSION, &version);
    return version == CURL_HTTP_VERSION_2_0;
}

HttpResult CurlTransfer::end(CURLcode code) noexcept {
    if (tooLong_ || code == CURLE_FILESIZE_EXCEEDED) {
        return tl::unexpected(makeHttpError(CURLE_FILESIZE_EXCEEDED, "the answer is longer than allowed"));
    }
    if (unanswered_)
        return tl::unexpected(makeHttpError(CURLE_GOT_NOTHING, curl_.easyStrerror(CURLE_GOT_NOTHING)));
    if (code != CURLE_OK) {
        const bool explained = errorText_.front() != '\0';
        HttpError error = makeHttpError(code, explained ? errorText_.data() : curl_.easyStrerror(code));
        long sentBytes = 0;
        curl_.easyGetinfo(easy_, CURLINFO_REQUEST_SIZE, &sentBytes);
        // Whatever ended the exchange, the server may have acted on the request.
        if (sentBytes > 0 && error.kind != HttpError::Kind::noConnection)
            error.kind = HttpError::Kind::noAnswer;
        return tl::unexpected(std::move(error));
    }
    long status = 0;
    curl_.easyGetinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    if (status < 100 || status > 999) {  // RFC 9110, section 15; libcurl takes longer ones
        return tl::unexpected(makeHttpError(CURLE_WEIRD_SERVER_REPLY, "the status of the answer is invalid"));
    }
    response_.status = static_cast<int>(status);
    return std::move(response_);
}

std::unique_ptr<HttpExchange> CurlTransfer::release() {
    exchange_->carrier = nullptr;
    connections_.released(connection_);
    return std::move(exchange_);
}

}  // namespace telvora
