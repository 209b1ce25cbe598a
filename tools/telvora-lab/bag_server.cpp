// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/bag_server.h"

#include <fstream>
#include <iterator>
#include <utility>

#include "config/signed_bag.h"
#include "plist/property_list_format.h"
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

}  // namespace

std::optional<BagFault> bagFaultNamed(std::string_view name) {
    for (const auto& [faultName, fault] : kFaultNames) {
        if (faultName == name) return fault;
    }
    return std::nullopt;
}

BagServer::BagServer(const LabPki& pki)
    : pki_(pki),
      server_(pki.serverCertificateFile(), pki.serverKeyFile(),
              [this](const ServerRequest& request) { return handle(request); }) {}

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

    MutexLock lock(mutex_);
    const auto known = bags_.find(record.name);
    const Bag bag = known != bags_.end() ? known->second : Bag{};
    ServerResponse response = answerFor(bag);
    if (auto document = known == bags_.end() ? signedDocument(record.name) : std::nullopt) {
        response.status = 200;
        response.contentType = "application/xml";
        response.body = std::move(*document);
    }
    record.status = response.status;
    requests_.push_back(std::move(record));
    changed_.notify_all();
    if (bag.fault == BagFault::hold) {
        const uint64_t releases = releases_;
        while (releases_ == releases)
            changed_.wait(mutex_);
    }
    return response;
}

ServerResponse BagServer::answerFor(const Bag& bag) const {
    ServerResponse response;
    response.contentType = "application/xml";
    response.headers.emplace_back("Cache-Control", "max-age=600");
    if (bag.fault == BagFault::notModified) {
        response.status = 304;
        return response;
    }
    if (bag.fault == BagFault::notFound || !bag.content) {
        response.status = 404;
        response.contentType = "text/html";
        response.body = "<html><body>There is no such bag.</body></html>";
        return response;
    }
    if (bag.fault == BagFault::notAPropertyList) {
        response.body = "This is no property list.";
        return response;
    }
    response.body = document(*bag.content, bag.fault, pki_.bagKey());
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
