// SPDX-License-Identifier: Apache-2.0
//
// SQLite, loaded at the first use: most devices have no outbox. A thin layer over its C interface
// (https://www.sqlite.org/c3ref/intro.html) with errors as values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace telvora {

struct SqliteError {
    bool isDamaged = false;  // the file is no database, or its content is damaged
    std::string text;
};
template <typename T>
using SqliteResult = tl::expected<T, SqliteError>;

// A connection to one database file. Belongs to one thread at a time.
class SqliteDatabase {
  public:
    using Value = std::variant<int64_t, double, std::string, std::string_view>;

    // A statement with its values. Ends with its destruction, before the database.
    class Query {
      public:
        // Executes up to the next row. False after the last one.
        SqliteResult<bool> next();
        // Of the row, in the order of the columns.
        int64_t integer(int column) const;
        double real(int column) const;
        std::string text(int column) const;

      private:
        friend class SqliteDatabase;
        struct Finalize {
            void operator()(sqlite3_stmt* statement) const;
        };
        explicit Query(const SqliteDatabase& database) : database_(database) {}

        const SqliteDatabase& database_;
        std::unique_ptr<sqlite3_stmt, Finalize> statement_;
    };

    // Opens or makes the database, whose files only this user can read. `vfs`: SQLite's interface to the
    // system (sqlite3_vfs_register()); null: its own. Fails also if the library can't be loaded.
    static SqliteResult<SqliteDatabase> open(const std::string& path, const char* vfs = nullptr);

    // Runs statements without values and without use for their rows.
    SqliteResult<void> execute(const char* statements);
    // Runs one statement without use for its rows.
    SqliteResult<void> run(const char* statement, const std::vector<Value>& values = {});
    SqliteResult<Query> query(const char* statement, const std::vector<Value>& values = {});

  private:
    struct Close {
        void operator()(sqlite3* database) const;
    };
    SqliteDatabase() = default;
    SqliteError error(int code) const;

    std::unique_ptr<sqlite3, Close> database_;
};

}  // namespace telvora
