// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/bag_server.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include "config/bag_signing.h"
#include "plist/property_list_format.h"
#include "telvora-lab/feed.h"
#include "util/base64.h"

namespace telvora::lab {
namespace {

constexpr std::string_view kPathPrefix = "/bags/";
constexpr int kForeignKeyBits = 2048;

constexpr std::pair<std::string_view, BagFault> kFaultNames[] = {
    {"none", BagFault::none},
    {"noAnswer", BagFault::noAnswer},
    {"hold", BagFault::hold},
    {"notModified", BagFault::notModified},
    {"notFound", BagFault::notFound},
    {"truncated", BagFault::truncated},
    {"notAPropertyList", BagFault::notAPropertyList},
    {"unsignedBag", BagFault::unsignedBag},
    {"foreignKey", BagFault::foreignKey},
    {"flippedBit", BagFault::flippedBit},
    {"innerNotAPropertyList", BagFault::innerNotAPropertyList},
};

std::string toXml(const PropertyList& value) {
    return serializePropertyList(value, PropertyListFormat::xml).value_or("");
}

// The signed document for `bag`, with `fault` applied.
std::string document(const Dictionary& bag, BagFault fault, const RsaPrivateKey& key) {
    std::string inner = toXml(bag);
    if (fault == BagFault::innerNotAPropertyList) inner = "well signed, but no property list";
    if (fault == BagFault::unsignedBag) return toXml(Dictionary{{"bag", base64Encode(inner)}});
    if (fault == BagFault::foreignKey) {
        const auto foreign = RsaPrivateKey::generate(kForeignKeyBits);
        return foreign ? signBag(inner, *foreign).value_or("") : std::string();
    }
    std::string document = signBag(inner, key).value_or("");
    if (fault == BagFault::flippedBit) {
        Dictionary outer = *parsePropertyList(document)->getIf<Dictionary>();
        inner[inner.size() / 2] = static_cast<char>(inner[inner.size() / 2] ^ 1);
        outer.set("bag", base64Encode(inner));
        document = toXml(outer);
    }
    return document;
}

// Whether the fault is one of the signed document, not of its way.
bool isOfDocument(BagFault fault) {
    return fault == BagFault::unsignedBag || fault == BagFault::foreignKey || fault == BagFault::flippedBit ||
           fault == BagFault::innerNotAPropertyList;
}

// The inner bag of a signed document, whose signature is not checked.
std::optional<Dictionary> innerBagOf(const std::string& document) {
    const auto outer = parsePropertyList(document);
    const Dictionary* fields = outer ? outer->getIf<Dictionary>() : nullptr;
    const std::string* encoded = fields != nullptr ? fields->string("bag") : nullptr;
    const auto inner = encoded != nullptr ? base64Decode(*encoded) : std::nullopt;
    const auto bag = inner ? parsePropertyList(*inner) : tl::unexpected(std::string());
    const Dictionary* content = bag ? bag->getIf<Dictionary>() : nullptr;
    return content != nullptr ? std::optional(*content) : std::nullopt;
}

}  // namespace

template <>
NamedValues<BagFault> namedValues<BagFault>() {
    return kFaultNames;
}

BagServer::BagServer(const LabPki& pki, const Hosting& hosting)
    : pki_(pki),
      feed_(hosting.feed),
      server_(pki.serverCertificateFile(), pki.serverKeyFile(),
              [this](const ServerRequest& request) { return handle(request); },
              {.address = hosting.address, .port = hosting.port}) {}

BagServer::~BagServer() {
    {
        MutexLock lock(mutex_);
        for (auto& [name, bag] : bags_)
            bag.fault = BagFault::none;
    }
    releaseHeld();
}

void BagServer::setBag(const std::string& name, Dictionary bag) {
    MutexLock lock(mutex_);
    bags_[name].content = std::move(bag);
}

void BagServer::serveSigned(std::filesystem::path directory) {
    MutexLock lock(mutex_);
    signedBags_ = std::move(directory);
}

std::optional<std::string> BagServer::signedDocument(const std::string& name) const {
    if (!signedBags_ || name.find('/') != std::string::npos) return std::nullopt;
    std::ifstream file(*signedBags_ / name, std::ios::binary);
    std::string document(std::istreambuf_iterator<char>(file), {});
    return document.empty() ? std::nullopt : std::optional(std::move(document));
}

void BagServer::setFault(const std::string& name, BagFault fault) {
    MutexLock lock(mutex_);
    bags_[name].fault = fault;
}

BagFault BagServer::fault(const std::string& name) const {
    MutexLock lock(mutex_);
    const auto known = bags_.find(name);
    return known != bags_.end() ? known->second.fault : BagFault::none;
}

std::optional<Dictionary> BagServer::bag(const std::string& name) const {
    MutexLock lock(mutex_);
    const auto known = bags_.find(name);
    if (known != bags_.end() && known->second.content) return known->second.content;
    const auto document = signedDocument(name);
    return document ? innerBagOf(*document) : std::nullopt;
}

std::vector<std::string> BagServer::names() const {
    MutexLock lock(mutex_);
    std::set<std::string> names;
    for (const auto& [name, bag] : bags_) {
        if (bag.content) names.insert(name);
    }
    std::error_code ignored;
    if (signedBags_) {
        for (const auto& file : std::filesystem::directory_iterator(*signedBags_, ignored))
            names.insert(file.path().filename());
    }
    return {names.begin(), names.end()};
}

void BagServer::releaseHeld() {
    MutexLock lock(mutex_);
    ++releases_;
    changed_.notify_all();
}

ServerResponse BagServer::handle(const ServerRequest& request) {
    BagRequest record;
    record.name = request.path;
    if (record.name.starts_with(kPathPrefix)) record.name.erase(0, kPathPrefix.size());
    if (const auto version = request.query.find("version"); version != request.query.end()) {
        record.version = version->second;
    }
    record.ifModifiedSince = request.header("If-Modified-Since");

    ServerResponse response;
    BagFault fault;
    uint64_t releases;
    {
        MutexLock lock(mutex_);
        const auto known = bags_.find(record.name);
        fault = known != bags_.end() ? known->second.fault : BagFault::none;
        releases = releases_;
        response = answerFor(record.name);
        record.status = response.status;
        requests_.push_back(record);
        changed_.notify_all();
    }
    if (feed_ != nullptr) {
        Dictionary fields{{"name", record.name},
                          {"version", record.version},
                          {"status", record.status},
                          {"fault", std::string(nameOf(fault))}};
        if (record.ifModifiedSince) fields.set("ifModifiedSince", *record.ifModifiedSince);
        feed_->add("bagRequest", std::move(fields));
    }
    if (fault == BagFault::hold) {
        MutexLock lock(mutex_);
        while (releases_ == releases)
            changed_.wait(mutex_);
    }
    return response;
}

// The document of the bag, with the faults of documents applied.
std::optional<std::string> BagServer::servedDocument(const std::string& name, const Bag& bag) const {
    if (bag.content) return document(*bag.content, bag.fault, pki_.bagKey());
    auto ready = signedDocument(name);
    if (!ready || !isOfDocument(bag.fault)) return ready;
    const auto content = innerBagOf(*ready);
    return content ? std::optional(document(*content, bag.fault, pki_.bagKey())) : std::nullopt;
}

ServerResponse BagServer::answerFor(const std::string& name) const {
    const auto known = bags_.find(name);
    const Bag bag = known != bags_.end() ? known->second : Bag{};
    ServerResponse response;
    response.contentType = "application/xml";
    response.headers.emplace_back("Cache-Control", "max-age=600");
    if (bag.fault == BagFault::notModified) {
        response.status = 304;
        return response;
    }
    auto served = servedDocument(name, bag);
    if (bag.fault == BagFault::notFound || !served) {
        response.status = 404;
        response.contentType = "text/html";
        response.body = "<html><body>There is no such bag.</body></html>";
        return response;
    }
    if (bag.fault == BagFault::notAPropertyList) {
        response.body = "This is no property list.";
        return response;
    }
    response.body = std::move(*served);
    if (bag.fault == BagFault::truncated) response.ending = ServerResponse::Ending::halfBody;
    if (bag.fault == BagFault::noAnswer) response.ending = ServerResponse::Ending::noAnswer;
    return response;
}

std::vector<BagRequest> BagServer::requests() const {
    MutexLock lock(mutex_);
    return requests_;
}

bool BagServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (requests_.size() < count) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
            return requests_.size() >= count;
        }
    }
    return true;
}

}  // namespace telvora::lab
