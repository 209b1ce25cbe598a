// SPDX-License-Identifier: Apache-2.0
#include "outbox/outbox_store.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <system_error>
#include <utility>

#include "http/http_request_rules.h"
#include "platform/digest.h"
#include "util/log.h"
#include "util/regular_file.h"
#include "util/time_value.h"

namespace telvora {

namespace {

// Upper estimate of the bytes that the database needs for a message beside its texts.
constexpr uint64_t kRowBytes = 512;

constexpr char kSetUp[] =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA auto_vacuum=FULL; PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL; PRAGMA secure_delete=ON; PRAGMA cell_size_check=ON;"
    "PRAGMA wal_autocheckpoint=256; PRAGMA journal_size_limit=1048576;"
    "PRAGMA temp_store=MEMORY; PRAGMA cache_size=-512;"
    "CREATE TABLE IF NOT EXISTS message("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, user INTEGER, server BLOB, url BLOB, headers BLOB, body BLOB,"
    "  digest BLOB, bytes INTEGER, reports INTEGER, underConsent INTEGER, identifier BLOB,"
    "  timeOfDay REAL, sinceBoot REAL, boot BLOB);"
    "CREATE INDEX IF NOT EXISTS byServer ON message(server, id);"
    "CREATE INDEX IF NOT EXISTS byUser ON message(user, id, bytes)";

// "Name: value" lines, as in a request. A value has no line feed.
std::string linesOf(const HttpHeaders& headers) {
    std::string lines;
    for (const auto& [name, value] : headers)
        lines.append(name).append(": ").append(value).append("\n");
    return lines;
}

HttpHeaders headersOf(std::string_view lines) {
    HttpHeaders headers;
    while (!lines.empty()) {
        const size_t end = std::min(lines.find('\n'), lines.size());
        const std::string_view line = lines.substr(0, end);
        const size_t colon = std::min(line.find(": "), line.size());
        headers.emplace_back(line.substr(0, colon), line.substr(std::min(colon + 2, line.size())));
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
    return headers;
}

std::string digestOf(const std::string& url, const std::string& headers, const std::string& body) {
    return sha256Hex(sha256Hex(url) + sha256Hex(headers) + sha256Hex(body));
}

// -1: no user.
int64_t userOf(const HttpRequest& request) {
    return request.user ? int64_t{*request.user} : int64_t{-1};
}

}  // namespace

bool OutboxStore::removeFiles(const std::filesystem::path& path) {
    bool removed = false;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::error_code ignored;
        removed = std::filesystem::remove(path.string() + suffix, ignored) || removed;
    }
    return removed;
}

SqliteResult<OutboxStore> OutboxStore::open(const std::filesystem::path& path, const OutboxLimits& limits,
                                            const OutboxMoment& now, const char* vfs) {
    auto store = openOnce(path.string(), limits, now, vfs);
    if (store || !store.error().isDamaged) return store;
    TELVORA_LOG(kLogWarning, "OutboxStore(open): %s is damaged and moved aside: %s", path.c_str(),
                store.error().text.c_str());
    return replace(path, limits, now, vfs);
}

SqliteResult<OutboxStore> OutboxStore::replace(const std::filesystem::path& path, const OutboxLimits& limits,
                                               const OutboxMoment& now, const char* vfs) {
    std::error_code failure;
    std::filesystem::rename(path, path.string() + ".damaged", failure);
    if (failure) return tl::unexpected(SqliteError{false, failure.message()});
    removeFiles(path);
    return openOnce(path.string(), limits, now, vfs);
}

SqliteResult<OutboxStore> OutboxStore::openOnce(const std::string& path, const OutboxLimits& limits,
                                                const OutboxMoment& now, const char* vfs) {
    auto database = SqliteDatabase::open(path, vfs);
    if (!database) return tl::unexpected(database.error());
    OutboxStore store(std::move(*database), limits);
    if (auto done = store.database_.execute(kSetUp); !done) return tl::unexpected(done.error());
    auto check = store.database_.query("PRAGMA quick_check(1)");
    if (!check) return tl::unexpected(check.error());
    const auto row = check->next();
    if (!row) return tl::unexpected(row.error());
    if (check->text(0) != "ok") return tl::unexpected(SqliteError{true, check->text(0)});
    // A message of another boot with a time in the future: its age begins now.
    auto restamped = store.database_.run("UPDATE message SET timeOfDay=?1 WHERE boot<>?2 AND timeOfDay>?1",
                                         {now.timeOfDay, now.boot});
    if (!restamped) return tl::unexpected(restamped.error());
    return store;
}

uint64_t OutboxStore::sizeOf(const OutboxMessage& message) {
    uint64_t bytes = kRowBytes + message.request.url.size() + message.request.body.size();
    for (const auto& [name, value] : message.request.headers)
        bytes += name.size() + value.size();
    return bytes;
}

SqliteResult<uint64_t> OutboxStore::add(const std::vector<const OutboxMessage*>& messages,
                                        const OutboxMoment& now) {
    if (auto begun = database_.execute("BEGIN IMMEDIATE"); !begun) return tl::unexpected(begun.error());
    const auto fail = [this](SqliteError error) {
        database_.execute("ROLLBACK");
        return tl::unexpected(std::move(error));
    };
    std::set<int64_t> users;
    for (const OutboxMessage* message : messages) {
        if (auto inserted = insert(*message, now); !inserted) return fail(inserted.error());
        users.insert(userOf(message->request));
    }
    auto removed = trim(users);
    if (!removed) return fail(removed.error());
    if (auto committed = database_.execute("COMMIT"); !committed) return fail(committed.error());
    return removed;
}

SqliteResult<void> OutboxStore::insert(const OutboxMessage& message, const OutboxMoment& now) {
    const HttpRequest& request = message.request;
    const std::string headers = linesOf(request.headers);
    return database_.run(
        "INSERT INTO message(user, server, url, headers, body, digest, bytes, reports, underConsent, identifier,"
        " timeOfDay, sinceBoot, boot) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)",
        {userOf(request), serverOfUrl(request.url), std::string_view(request.url), std::string_view(headers),
         std::string_view(request.body), digestOf(request.url, headers, request.body),
         static_cast<int64_t>(sizeOf(message)), static_cast<int64_t>(message.reports),
         int64_t{message.underConsent}, sha256Hex(message.identifier), now.timeOfDay, now.sinceBoot,
         std::string_view(now.boot)});
}

SqliteResult<uint64_t> OutboxStore::trim(const std::set<int64_t>& users) {
    SqliteResult<uint64_t> removed = 0;
    const auto add = [&removed](const SqliteResult<uint64_t>& more) {
        if (more) {
            *removed += *more;
        } else {
            removed = more;
        }
    };
    for (auto user = users.begin(); removed && user != users.end(); ++user) {
        add(
            removeWhere("DELETE FROM message WHERE user=?1 AND id<="
                        "(SELECT id FROM message WHERE user=?1 ORDER BY id DESC LIMIT 1 OFFSET ?2)"
                        " RETURNING reports",
                        {*user, static_cast<int64_t>(limits_.countPerUser)}));
    }
    while (removed) {
        auto total = database_.query("SELECT coalesce(sum(bytes), 0) FROM message");
        if (!total) return tl::unexpected(total.error());
        if (const auto row = total->next(); !row) return tl::unexpected(row.error());
        if (static_cast<uint64_t>(total->integer(0)) <= limits_.bytes) return removed;
        add(removeWhere(
            "DELETE FROM message WHERE id=(SELECT min(id) FROM message WHERE user="
            "(SELECT user FROM message GROUP BY user ORDER BY sum(bytes) DESC LIMIT 1)) RETURNING reports",
            {}));
    }
    return removed;
}

SqliteResult<std::vector<OutboxStore::Head>> OutboxStore::heads(const std::map<std::string, int64_t>& after) {
    auto rows = database_.query("SELECT server, min(id) FROM message GROUP BY server");
    if (!rows) return tl::unexpected(rows.error());
    std::vector<Head> heads;
    for (;;) {
        const auto row = rows->next();
        if (!row) return tl::unexpected(row.error());
        if (!*row) break;
        heads.push_back({rows->text(0), rows->integer(1)});
    }
    for (const auto& [server, id] : after) {
        std::erase_if(heads, [&server = server](const Head& head) { return head.server == server; });
        auto next = database_.query("SELECT min(id) FROM message WHERE server=? AND id>?", {server, id});
        if (!next) return tl::unexpected(next.error());
        if (const auto row = next->next(); !row) return tl::unexpected(row.error());
        if (const int64_t head = next->integer(0); head != 0) heads.push_back({server, head});
    }
    return heads;
}

SqliteResult<StoredMessage> OutboxStore::read(int64_t id) {
    auto rows =
        database_.query("SELECT user, url, headers, body, digest, reports FROM message WHERE id=?", {id});
    if (!rows) return tl::unexpected(rows.error());
    const auto row = rows->next();
    if (!row) return tl::unexpected(row.error());
    StoredMessage message{.id = id, .reports = static_cast<size_t>(rows->integer(5))};
    HttpRequest& request = message.request;
    const std::string headers = rows->text(2);
    request.method = "POST";
    request.url = rows->text(1);
    request.headers = headersOf(headers);
    request.body = rows->text(3);
    request.keepResponseBody = false;
    if (rows->integer(0) >= 0) request.user = static_cast<uid_t>(rows->integer(0));
    message.isDamaged = rows->text(4) != digestOf(request.url, headers, request.body);
    return message;
}

SqliteResult<uint64_t> OutboxStore::remove(int64_t id) {
    return removeWhere("DELETE FROM message WHERE id=? RETURNING reports", {id});
}

SqliteResult<uint64_t> OutboxStore::removeAllUnderConsent() {
    return erase("DELETE FROM message WHERE underConsent RETURNING reports", {});
}

SqliteResult<uint64_t> OutboxStore::removeAllOfOtherIdentifiers(const std::string& identifier) {
    return erase("DELETE FROM message WHERE identifier<>? RETURNING reports", {sha256Hex(identifier)});
}

// Removes messages also from the journal, which keeps the old content of pages until it is full.
SqliteResult<uint64_t> OutboxStore::erase(const char* statement,
                                          const std::vector<SqliteDatabase::Value>& values) {
    auto removed = removeWhere(statement, values);
    if (!removed || *removed == 0) return removed;
    const auto truncated = database_.run("PRAGMA wal_checkpoint(TRUNCATE)");
    if (!truncated) TELVORA_LOG(kLogWarning, "OutboxStore(erase): %s", truncated.error().text.c_str());
    return removed;
}

SqliteResult<uint64_t> OutboxStore::removeExpired(const OutboxMoment& now) {
    const auto age = static_cast<double>(limits_.age.count());
    return removeWhere(
        "DELETE FROM message WHERE CASE boot WHEN ? THEN sinceBoot<? ELSE timeOfDay<? END RETURNING reports",
        {std::string_view(now.boot), now.sinceBoot - age, now.timeOfDay - age});
}

SqliteResult<uint64_t> OutboxStore::removeWhere(const char* statement,
                                                const std::vector<SqliteDatabase::Value>& values) {
    auto rows = database_.query(statement, values);
    if (!rows) return tl::unexpected(rows.error());
    for (uint64_t reports = 0;;) {
        const auto row = rows->next();
        if (!row) return tl::unexpected(row.error());
        if (!*row) return reports;
        reports += static_cast<uint64_t>(rows->integer(0));
    }
}

SqliteResult<OutboxStore::Totals> OutboxStore::totals() {
    auto rows = database_.query("SELECT count(*), coalesce(sum(reports), 0) FROM message");
    if (!rows) return tl::unexpected(rows.error());
    if (const auto row = rows->next(); !row) return tl::unexpected(row.error());
    return Totals{static_cast<uint64_t>(rows->integer(0)), static_cast<uint64_t>(rows->integer(1))};
}

SqliteResult<bool> OutboxStore::isHalfFull() {
    auto rows = database_.query(
        "SELECT coalesce(sum(size), 0), coalesce(max(count), 0) FROM"
        " (SELECT sum(bytes) AS size, count(*) AS count FROM message GROUP BY user)");
    if (!rows) return tl::unexpected(rows.error());
    if (const auto row = rows->next(); !row) return tl::unexpected(row.error());
    return static_cast<uint64_t>(rows->integer(0)) >= limits_.bytes / 2 ||
           static_cast<uint64_t>(rows->integer(1)) >= (limits_.countPerUser + 1) / 2;
}

}  // namespace telvora
