// A thin owner of one SQLite connection and its prepared statements.
//
// A Database is used by one thread at a time (the collector's writer thread, or
// the single thread of a query command). Statements always bind their
// parameters; nothing is built into SQL text from outside values.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zubcollector {

class Statement {
public:
    Statement() = default;
    Statement(sqlite3* db, std::string_view sql);  // check ok() afterwards
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return stmt_ != nullptr; }

    // Parameters are numbered from 1. An absent optional binds NULL.
    void bind(int index, std::int64_t value);
    void bind(int index, std::string_view text);
    void bind(int index, const std::string& text) { bind(index, std::string_view(text)); }
    void bind(int index, const char* text) { bind(index, std::string_view(text)); }
    void bind(int index, const std::optional<std::string>& text);
    void bind(int index, const std::optional<std::int64_t>& value);
    void bindNull(int index);
    void bindReal(int index, double value);

    /// Steps once: true while a row is available; done() or error() tell the rest.
    bool step();
    bool done() const { return lastStep_ == SQLITE_DONE; }
    bool failed() const { return lastStep_ != SQLITE_ROW && lastStep_ != SQLITE_DONE && lastStep_ != SQLITE_OK; }
    /// Steps to completion (for statements that return no rows); false on error.
    bool run();
    /// Clears the bindings and rewinds, ready for the next use.
    void reset();

    bool isNull(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;
    std::string text(int column) const;
    /// The text of a column without a copy: valid until the next step or reset.
    std::string_view textView(int column) const;

private:
    sqlite3_stmt* stmt_ = nullptr;
    int lastStep_ = SQLITE_OK;
};

class Database {
public:
    enum class Mode { ReadWrite, ReadOnly };

    /// Opens (creating it when writable) the database at `path`; nothing and a
    /// message naming the path and the cause on failure ("permission denied" and
    /// what is not writable, when that is why). A writable database is put in WAL
    /// mode. A read-only one is opened read-only whatever the caller's rights: it
    /// is never written, and a database at rest (rollback-journal mode) gets no
    /// file made beside it.
    static std::unique_ptr<Database> open(const std::string& path, Mode mode, std::string& error);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    sqlite3* handle() const { return db_; }
    /// Runs SQL without parameters (schema, pragmas, transaction control).
    bool exec(const char* sql, std::string& error);
    Statement prepare(std::string_view sql, std::string& error);
    std::string lastError() const;

private:
    explicit Database(sqlite3* db) : db_(db) {}
    sqlite3* db_;
};

}  // namespace zubcollector
