// SQLite: one connection to the library's file, and prepared statements.
//
// Threads  a connection and its statements belong to one thread at a time; the caller sees to it.
// Errors   DatabaseError, with SQLite's own words: a full disk, a damaged file.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/released_by.h"

namespace nuvio::controller {

class DatabaseError : public std::runtime_error {
  public:
    // `code`: SQLite's.
    DatabaseError(int code, const std::string& text) : std::runtime_error(text), m_code(code) {}

    // The file is no library, or no longer one; anything else may pass.
    bool is_damage() const { return m_code == SQLITE_CORRUPT || m_code == SQLITE_NOTADB; }

  private:
    int m_code;
};

// A statement that may be run any number of times: bind, step until false, reset.
class Statement {
  public:
    // A file that lacks what the statement names is damaged.
    Statement(sqlite3* connection, std::string_view sql);

    // Binds all parameters from the first on and starts anew. Texts are copied.
    template <typename... Values>
    Statement& with(const Values&... values) {
        reset();
        int index = 0;
        (bind(++index, values), ...);
        return *this;
    }
    // True while there is a row.
    bool step();
    // For a statement without rows.
    void run();
    // Lets go of the rows, and with them of the database's read lock.
    void reset();

    int64_t number(int column) const { return sqlite3_column_int64(m_statement.get(), column); }
    // Empty where it is null.
    std::string text(int column) const;
    bool is_null(int column) const;

  private:
    void bind(int index, int64_t value);
    void bind(int index, int value) { bind(index, int64_t{value}); }
    void bind(int index, uint32_t value) { bind(index, int64_t{value}); }
    void bind(int index, std::string_view value);
    void bind(int index, const std::string& value) { bind(index, std::string_view(value)); }
    void bind(int index, const char* value) { bind(index, std::string_view(value)); }
    void check(int code) const;

    std::unique_ptr<sqlite3_stmt, ReleasedBy<sqlite3_finalize>> m_statement;
};

class Database {
  public:
    // Opens the file, makes it where there is none. A page cache of at most 2 MB.
    explicit Database(const std::string& path);

    Statement prepare(std::string_view sql) { return {m_connection.get(), sql}; }
    // Any number of statements, without parameters.
    void run(const char* sql);
    // A function of one text for statements.
    void add_function(const char* name, std::string (*function)(std::string_view text));
    int64_t last_id() const { return sqlite3_last_insert_rowid(m_connection.get()); }
    int64_t user_version();

  private:
    std::unique_ptr<sqlite3, ReleasedBy<sqlite3_close>> m_connection;
};

}  // namespace nuvio::controller
