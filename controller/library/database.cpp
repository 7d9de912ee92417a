#include "controller/library/database.h"

#include <new>

namespace nuvio::controller {

Statement::Statement(sqlite3* connection, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    const int code = sqlite3_prepare_v3(connection, sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    m_statement.reset(statement);
    if (code != SQLITE_OK) {
        throw DatabaseError(code == SQLITE_ERROR ? SQLITE_CORRUPT : code,
                            sqlite3_errmsg(connection));
    }
}

void Statement::check(int code) const {
    if (code != SQLITE_OK) {
        throw DatabaseError(code, sqlite3_errmsg(sqlite3_db_handle(m_statement.get())));
    }
}

bool Statement::step() {
    const int code = sqlite3_step(m_statement.get());
    if (code == SQLITE_ROW) {
        return true;
    }
    check(code == SQLITE_DONE ? SQLITE_OK : code);
    return false;
}

void Statement::run() {
    step();
    reset();
}

void Statement::reset() {
    sqlite3_reset(m_statement.get());
}

std::string Statement::text(int column) const {
    const unsigned char* text = sqlite3_column_text(m_statement.get(), column);
    const int size = sqlite3_column_bytes(m_statement.get(), column);
    return text == nullptr
               ? std::string()
               : std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

bool Statement::is_null(int column) const {
    return sqlite3_column_type(m_statement.get(), column) == SQLITE_NULL;
}

void Statement::bind(int index, int64_t value) {
    check(sqlite3_bind_int64(m_statement.get(), index, value));
}

void Statement::bind(int index, std::string_view value) {
    check(sqlite3_bind_text64(m_statement.get(), index, value.data(), value.size(),
                              SQLITE_TRANSIENT, SQLITE_UTF8));
}

Database::Database(const std::string& path) {
    sqlite3* connection = nullptr;
    const int code =
        sqlite3_open_v2(path.c_str(), &connection,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    m_connection.reset(connection);
    if (code != SQLITE_OK) {
        throw DatabaseError(code, path + ": " + sqlite3_errstr(code));
    }
    sqlite3_busy_timeout(connection, 10'000);
    run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -2000;"
        "PRAGMA foreign_keys = OFF; PRAGMA temp_store = MEMORY;");
}

void Database::run(const char* sql) {
    const int code = sqlite3_exec(m_connection.get(), sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
        throw DatabaseError(code, sqlite3_errmsg(m_connection.get()));
    }
}

void Database::add_function(const char* name, std::string (*function)(std::string_view text)) {
    const auto call = [](sqlite3_context* context, int, sqlite3_value** values) {
        const auto* const text = reinterpret_cast<const char*>(sqlite3_value_text(values[0]));
        const auto size = static_cast<size_t>(sqlite3_value_bytes(values[0]));
        auto* const called =
            reinterpret_cast<std::string (*)(std::string_view)>(sqlite3_user_data(context));
        try {
            const std::string result = called({text, text == nullptr ? 0 : size});
            sqlite3_result_text(context, result.data(), static_cast<int>(result.size()),
                                SQLITE_TRANSIENT);
        } catch (const std::bad_alloc&) {
            sqlite3_result_error_nomem(context);
        }
    };
    const int code =
        sqlite3_create_function(m_connection.get(), name, 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                reinterpret_cast<void*>(function), call, nullptr, nullptr);
    if (code != SQLITE_OK) {
        throw DatabaseError(code, sqlite3_errmsg(m_connection.get()));
    }
}

int64_t Database::user_version() {
    Statement version = prepare("PRAGMA user_version");
    return version.step() ? version.number(0) : 0;
}

}  // namespace nuvio::controller
