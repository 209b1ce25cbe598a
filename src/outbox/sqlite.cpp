// SPDX-License-Identifier: Apache-2.0
#include "outbox/sqlite.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sqlite3.h>

#include <cerrno>

#include "util/error_text.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

constexpr const char* kLibraryName = "libsqlite3.so.0";

// The functions of the library that are used: member name, symbol.
#define TELVORA_SQLITE_FUNCTIONS(F)                 \
    F(openV2, sqlite3_open_v2)                      \
    F(closeV2, sqlite3_close_v2)                    \
    F(exec, sqlite3_exec)                           \
    F(prepare, sqlite3_prepare_v2)                  \
    F(finalize, sqlite3_finalize)                   \
    F(step, sqlite3_step)                           \
    F(bindInteger, sqlite3_bind_int64)              \
    F(bindReal, sqlite3_bind_double)                \
    F(bindBlob, sqlite3_bind_blob64)                \
    F(columnInteger, sqlite3_column_int64)          \
    F(columnReal, sqlite3_column_double)            \
    F(columnBlob, sqlite3_column_blob)              \
    F(columnBytes, sqlite3_column_bytes)            \
    F(extendedCodes, sqlite3_extended_result_codes) \
    F(message, sqlite3_errmsg)                      \
    F(messageOf, sqlite3_errstr)

struct Library {
#define TELVORA_SQLITE_MEMBER(name, symbol) \
    decltype(&::symbol) name = nullptr;  // NOLINT(bugprone-macro-parentheses)
    TELVORA_SQLITE_FUNCTIONS(TELVORA_SQLITE_MEMBER)
#undef TELVORA_SQLITE_MEMBER
};

// Stays loaded until the process ends. Null if it can't be loaded.
const Library* library() {
    static const std::unique_ptr<const Library> loaded = []() -> std::unique_ptr<const Library> {
        void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) return nullptr;
        auto library = std::make_unique<Library>();
#define TELVORA_SQLITE_LOAD(name, symbol)                                          \
    library->name = reinterpret_cast<decltype(&::symbol)>(dlsym(handle, #symbol)); \
    if (library->name == nullptr) return nullptr;
        TELVORA_SQLITE_FUNCTIONS(TELVORA_SQLITE_LOAD)
#undef TELVORA_SQLITE_LOAD
        return library;
    }();
    return loaded.get();
}

}  // namespace

void SqliteDatabase::Close::operator()(sqlite3* database) const {
    library()->closeV2(database);
}

void SqliteDatabase::Query::Finalize::operator()(sqlite3_stmt* statement) const {
    library()->finalize(statement);
}

SqliteError SqliteDatabase::error(int code) const {
    const int primary = code & 0xff;
    return {primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB,
            database_ != nullptr ? library()->message(database_.get()) : library()->messageOf(code)};
}

SqliteResult<SqliteDatabase> SqliteDatabase::open(const std::string& path, const char* vfs) {
    if (library() == nullptr)
        return tl::unexpected(SqliteError{false, std::string(kLibraryName) + " can't be loaded"});
    // The library's own mode of a new file depends on the umask.
    const UniqueFd made(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!made) return tl::unexpected(SqliteError{false, errorText(errno)});
    SqliteDatabase database;
    sqlite3* opened = nullptr;
    const int code = library()->openV2(
        path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, vfs);
    database.database_.reset(opened);  // the library gives one even then
    if (code != SQLITE_OK) return tl::unexpected(database.error(code));
    library()->extendedCodes(opened, 1);
    return database;
}

SqliteResult<void> SqliteDatabase::execute(const char* statements) {
    const int code = library()->exec(database_.get(), statements, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) return tl::unexpected(error(code));
    return {};
}

SqliteResult<SqliteDatabase::Query> SqliteDatabase::query(const char* statement,
                                                          const std::vector<Value>& values) {
    Query query(*this);
    sqlite3_stmt* prepared = nullptr;
    int code = library()->prepare(database_.get(), statement, -1, &prepared, nullptr);
    query.statement_.reset(prepared);
    for (size_t i = 0; code == SQLITE_OK && i < values.size(); ++i) {
        const int place = static_cast<int>(i) + 1;
        code = std::visit(
            [&]<typename T>(const T& value) {
                if constexpr (std::is_same_v<T, int64_t>)
                    return library()->bindInteger(prepared, place, value);
                else if constexpr (std::is_same_v<T, double>)
                    return library()->bindReal(prepared, place, value);
                else
                    return library()->bindBlob(prepared, place, value.data(), value.size(), SQLITE_TRANSIENT);
            },
            values[i]);
    }
    if (code != SQLITE_OK) return tl::unexpected(error(code));
    return query;
}

SqliteResult<void> SqliteDatabase::run(const char* statement, const std::vector<Value>& values) {
    auto rows = query(statement, values);
    if (!rows) return tl::unexpected(rows.error());
    for (;;) {
        const auto row = rows->next();
        if (!row) return tl::unexpected(row.error());
        if (!*row) return {};
    }
}

SqliteResult<bool> SqliteDatabase::Query::next() {
    const int code = library()->step(statement_.get());
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    return tl::unexpected(database_.error(code));
}

int64_t SqliteDatabase::Query::integer(int column) const {
    return library()->columnInteger(statement_.get(), column);
}

double SqliteDatabase::Query::real(int column) const {
    return library()->columnReal(statement_.get(), column);
}

std::string SqliteDatabase::Query::text(int column) const {
    const auto* bytes = static_cast<const char*>(library()->columnBlob(statement_.get(), column));
    const int size = library()->columnBytes(statement_.get(), column);
    return bytes != nullptr ? std::string(bytes, static_cast<size_t>(size)) : std::string();
}

}  // namespace telvora
