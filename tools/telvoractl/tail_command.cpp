// SPDX-License-Identifier: Apache-2.0
//
// Prints everything that leaves the device, as it leaves.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <unordered_map>

#include "client/status_query.h"
#include "json/json_reader.h"
#include "output.h"
#include "session_options.h"
#include "status_reader.h"
#include "util/compression.h"
#include "util/utf8.h"

namespace telvora::ctl {

namespace {

// Of a message. The daemon shows smaller bodies only; the bound is for the inflated text.
constexpr size_t kMaxMessageBytes = size_t{64} << 20;
// Exchanges without an answer yet. Beyond it, their times are forgotten.
constexpr size_t kMaxExchanges = 65536;
// Replaces the body of a message whose content was read.
constexpr char kContent[] = "content";

double timeOf(const Dictionary& entry) {
    const PropertyList* time = entry.find(outgoing::kTime);
    const Date* date = time != nullptr ? time->getIf<Date>() : nullptr;
    return date != nullptr ? date->seconds : 0;
}

// "2026-11-22 12:34:56.789", local time.
std::string clockText(double time) {
    const auto seconds = static_cast<time_t>(std::floor(time));
    tm local{};
    char written[64] = "-";
    if (localtime_r(&seconds, &local) != nullptr)
        strftime(written, sizeof written, "%Y-%m-%d %H:%M:%S", &local);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03d",
                  static_cast<int>((time - std::floor(time)) * 1000) % 1000);
    return std::string(written) + fraction;
}

// Replaces the body of a message by its content, if it can be read: the keys of the message's own JSON.
void readMessage(Dictionary& entry) {
    const PropertyList* value = entry.find(outgoing::kBody);
    const Data* body = value != nullptr ? value->getIf<Data>() : nullptr;
    if (body == nullptr || entry.string(outgoing::kKind) == nullptr ||
        *entry.string(outgoing::kKind) != outgoing::kMessage)
        return;
    const Dictionary* headers = entry.dictionary(outgoing::kHeaders);
    const bool compressed = headers != nullptr && headers->contains("Content-Encoding");
    const auto json = compressed ? TelvoradUtil::gzipInflate(body->bytes, kMaxMessageBytes) : body->bytes;
    if (!json) return;
    auto parsed = parseJson(*json);
    const Dictionary* message = parsed ? parsed->getIf<Dictionary>() : nullptr;
    if (message == nullptr) return;
    entry.erase(outgoing::kBody);
    entry.set(kContent, *message);
}

class EntryPrinter {
  public:
    void print(const Dictionary& entry) {
        const std::string kind = text(entry, outgoing::kKind);
        std::printf("%s  %s", clockText(timeOf(entry)).c_str(), kind.c_str());
        if (kind == outgoing::kAnswer) {
            printAnswer(entry);
        } else if (kind == outgoing::kFiltered) {
            printFiltered(entry);
        } else if (kind == outgoing::kDatagram) {
            printDatagram(entry);
        } else {
            printRequest(entry);
        }
    }

  private:
    void printRequest(const Dictionary& entry) {
        const int64_t exchange = entry.integer(outgoing::kExchange).value_or(0);
        if (started_.size() >= kMaxExchanges) started_.clear();
        started_[exchange] = timeOf(entry);
        std::printf(" #%" PRId64 "  %s %s", exchange, text(entry, outgoing::kMethod).c_str(),
                    text(entry, outgoing::kUrl).c_str());
        if (entry.contains(outgoing::kUser)) std::printf("  user %s", text(entry, outgoing::kUser).c_str());
        const Dictionary* headers = entry.dictionary(outgoing::kHeaders);
        if (headers != nullptr && headers->contains("X-TVR-Client-Name"))
            std::printf("  client %s", text(*headers, "X-TVR-Client-Name").c_str());
        const int64_t size = entry.integer(outgoing::kSize).value_or(0);
        if (size > 0) std::printf("  %" PRId64 " bytes", size);
        const Dictionary* content = entry.dictionary(kContent);
        if (content == nullptr)
            return void(std::puts(size > 0 && text(entry, outgoing::kKind) == outgoing::kMessage
                                      ? "  (too large to show)"
                                      : ""));
        std::printf("  client ID %s\n", text(*content, "clientId").c_str());
        const Array* events = content->array("events");
        for (const PropertyList& event : events != nullptr ? *events : Array())
            std::printf("    %s\n", toJson(event).c_str());
    }

    void printAnswer(const Dictionary& entry) {
        const int64_t exchange = entry.integer(outgoing::kExchange).value_or(0);
        std::printf(" #%" PRId64 "  ", exchange);
        if (entry.contains(outgoing::kStatus)) {
            std::printf("%s", text(entry, outgoing::kStatus).c_str());
        } else {
            std::printf("failed: %s", text(entry, outgoing::kError).c_str());
        }
        if (const auto begun = started_.extract(exchange))
            std::printf("  after %.0f ms", (timeOf(entry) - begun.mapped()) * 1000);
        std::puts("");
    }

    static void printFiltered(const Dictionary& entry) {
        std::printf("  %s event %s (category %s, type %s)  user %s  client %s:",
                    text(entry, outgoing::kBackend).c_str(), text(entry, outgoing::kEventNumber).c_str(),
                    text(entry, outgoing::kCategory).c_str(), text(entry, outgoing::kType).c_str(),
                    text(entry, outgoing::kUser).c_str(), text(entry, outgoing::kClientName).c_str());
        const Dictionary* keys = entry.dictionary(outgoing::kKeys);
        const char* separator = " ";
        for (const auto& [key, action] : keys != nullptr ? *keys : Dictionary()) {
            std::printf("%s%s %s", separator, escapeControlCharacters(key).c_str(), textOf(action).c_str());
            separator = ", ";
        }
        std::puts("");
    }

    static void printDatagram(const Dictionary& entry) {
        std::printf("  %s:%s  %s bytes", text(entry, outgoing::kAddress).c_str(),
                    text(entry, outgoing::kPort).c_str(), text(entry, outgoing::kSize).c_str());
        if (entry.contains(outgoing::kError))
            std::printf("  failed: %s", text(entry, outgoing::kError).c_str());
        std::puts("");
        const PropertyList* body = entry.find(outgoing::kBody);
        if (const Data* data = body != nullptr ? body->getIf<Data>() : nullptr)
            std::printf("    %s\n", escapeControlCharacters(replaceInvalidUtf8(data->bytes)).c_str());
    }

    std::unordered_map<int64_t, double> started_;  // of the exchanges without an answer
};

struct TailOptions {
    size_t count = 0;  // 0: without end
};

class Tail {
  public:
    Tail(bool json, size_t count) : json_(json), count_(count) {}

    void operator()(const Dictionary& batch) {
        begun_ = true;
        const int64_t lost = batch.integer(outgoing::kLost).value_or(0);
        if (lost > 0) printLost(lost);
        const Array* entries = batch.array(outgoing::kEntries);
        if (entries == nullptr) std::fputs("telvoractl: watching; Ctrl+C ends\n", stderr);
        for (const PropertyList& element : entries != nullptr ? *entries : Array()) {
            const auto* entry = element.getIf<Dictionary>();
            if (entry == nullptr) continue;
            print(*entry);
            if (count_ != 0 && ++printed_ == count_) break;
        }
        std::fflush(stdout);
    }
    bool begun() const { return begun_; }
    bool done() const { return count_ != 0 && printed_ >= count_; }

  private:
    void print(Dictionary entry) {
        readMessage(entry);
        if (json_) {
            std::puts(toJson(entry).c_str());
        } else {
            entries_.print(entry);
        }
    }
    void printLost(int64_t lost) const {
        if (json_) {
            std::printf("{\"lost\":%" PRId64 "}\n", lost);
        } else {
            std::printf("%" PRId64 " entries are missing here: they came faster than they were printed\n",
                        lost);
        }
    }

    const bool json_;
    const size_t count_;
    bool begun_ = false;
    size_t printed_ = 0;
    EntryPrinter entries_;
};

int runTail(const CommonOptions& common, const TailOptions& options) {
    Tail tail(common.json, options.count);
    std::optional<BusQueryFailure> failure;
    awaitDaemon(common, [&] {
        failure = watchOutgoing(statusSocketBeside(common.socket()), [&](const Dictionary& batch) {
            tail(batch);
            return !tail.done();
        });
        return !failure || failure->kind != BusQueryFailure::Kind::kUnreachable || tail.begun();
    });
    if (!failure) return kDone;
    return fail(failure->kind == BusQueryFailure::Kind::kRefused ? kNotDone : kDaemonMissing,
                failure->message);
}

}  // namespace

Command addTailCommand(CLI::App& app, const CommonOptions& common) {
    CLI::App* command = app.add_subcommand("tail", "Show everything that leaves the device, as it leaves");
    command->footer(
        "Messages with their events, bag requests, uploads, datagrams, the servers' answers, and the names of "
        "filtered fields.\nFor root, the daemon's user and the group telvora-admin.");
    const auto options = std::make_shared<TailOptions>();
    command->add_option("-n,--count", options->count, "End after this number of entries; 0: without end")
        ->check(CLI::NonNegativeNumber);
    return {command, [&common, options] { return runTail(common, *options); }};
}

}  // namespace telvora::ctl
