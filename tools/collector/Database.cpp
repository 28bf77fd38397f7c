#include "Database.h"

#include <utility>

namespace zubcollector {

Statement::Statement(sqlite3* db, std::string_view sql) {
    if (sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) !=
        SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement::Statement(Statement&& other) noexcept
    : stmt_(std::exchange(other.stmt_, nullptr)), lastStep_(other.lastStep_) {}

Statement& Statement::operator=(Statement&& other) noexcept {
    if (this != &other) {
        sqlite3_finalize(stmt_);
        stmt_ = std::exchange(other.stmt_, nullptr);
        lastStep_ = other.lastStep_;
    }
    return *this;
}

void Statement::bind(int index, std::int64_t value) { sqlite3_bind_int64(stmt_, index, value); }

void Statement::bind(int index, std::string_view text) {
    sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Statement::bind(int index, const std::optional<std::string>& text) {
    if (text) {
        bind(index, std::string_view(*text));
    } else {
        bindNull(index);
    }
}

void Statement::bind(int index, const std::optional<std::int64_t>& value) {
    if (value) {
        bind(index, *value);
    } else {
        bindNull(index);
    }
}

void Statement::bindNull(int index) { sqlite3_bind_null(stmt_, index); }

bool Statement::step() {
    lastStep_ = sqlite3_step(stmt_);
    return lastStep_ == SQLITE_ROW;
}

bool Statement::run() {
    while (step()) {
    }
    const bool ok = done();
    reset();
    return ok;
}

void Statement::reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

bool Statement::isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

std::int64_t Statement::integer(int column) const { return sqlite3_column_int64(stmt_, column); }

double Statement::real(int column) const { return sqlite3_column_double(stmt_, column); }

std::string Statement::text(int column) const {
    const auto* bytes = sqlite3_column_text(stmt_, column);
    if (!bytes) return {};
    return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

std::unique_ptr<Database> Database::open(const std::string& path, Mode mode, std::string& error) {
    sqlite3* db = nullptr;
    const int flags = mode == Mode::ReadOnly ? SQLITE_OPEN_READONLY
                                             : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        error = "cannot open database " + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<Database> database(new Database(db));
    // A reader may meet the writer's checkpoint; wait a little instead of failing at once.
    sqlite3_busy_timeout(db, 5000);
    if (mode == Mode::ReadWrite) {
        if (!database->exec("PRAGMA journal_mode=WAL", error) || !database->exec("PRAGMA synchronous=NORMAL", error) ||
            !database->exec("PRAGMA foreign_keys=ON", error)) {
            error = "cannot prepare database " + path + ": " + error;
            return nullptr;
        }
    }
    return database;
}

Database::~Database() { sqlite3_close_v2(db_); }

bool Database::exec(const char* sql, std::string& error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        error = message ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        return false;
    }
    return true;
}

Statement Database::prepare(std::string_view sql, std::string& error) {
    Statement statement(db_, sql);
    if (!statement.ok()) error = sqlite3_errmsg(db_);
    return statement;
}

std::string Database::lastError() const { return sqlite3_errmsg(db_); }

}  // namespace zubcollector
