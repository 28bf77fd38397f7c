// One connection to the collector's database and its prepared statements, over
// either store: an SQLite file (the embedded default) or a PostgreSQL database
// (several collectors sharing one), chosen by the location given to open().
//
// A Database is used by one thread at a time (the collector's writer thread, or
// the single thread of a query command). Statements always bind their
// parameters; nothing is built into SQL text from outside values. SQL is written
// once for both stores where they agree: parameters are numbered "?N" (the
// PostgreSQL connection reads them as "$N"), and a text where they differ is
// chosen by dialect().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zubcollector {

enum class Dialect { Sqlite, Postgres };

/// What one store's statement does; Statement owns one.
class StatementImpl {
public:
    virtual ~StatementImpl() = default;
    virtual void bindInteger(int index, std::int64_t value) = 0;
    virtual void bindText(int index, std::string_view text) = 0;
    virtual void bindReal(int index, double value) = 0;
    /// A NULL of the given kind (PostgreSQL needs to know what a parameter is).
    enum class Kind { Unknown, Integer, Text, Real };
    virtual void bindNull(int index, Kind kind) = 0;
    /// Runs (on the first call) and moves to the next row: true while one is there.
    virtual bool step() = 0;
    virtual bool done() const = 0;
    virtual bool failed() const = 0;
    virtual void reset() = 0;
    virtual bool isNull(int column) const = 0;
    virtual std::int64_t integer(int column) const = 0;
    virtual double real(int column) const = 0;
    virtual std::string_view textView(int column) const = 0;
};

class Statement {
public:
    Statement() = default;
    explicit Statement(std::unique_ptr<StatementImpl> impl) : impl_(std::move(impl)) {}

    bool ok() const { return impl_ != nullptr; }

    // Parameters are numbered from 1. An absent optional binds NULL.
    void bind(int index, std::int64_t value) { impl_->bindInteger(index, value); }
    void bind(int index, std::string_view text) { impl_->bindText(index, text); }
    void bind(int index, const std::string& text) { bind(index, std::string_view(text)); }
    void bind(int index, const char* text) { bind(index, std::string_view(text)); }
    void bind(int index, const std::optional<std::string>& text) {
        if (text) bind(index, std::string_view(*text));
        else impl_->bindNull(index, StatementImpl::Kind::Text);
    }
    void bind(int index, const std::optional<std::int64_t>& value) {
        if (value) bind(index, *value);
        else impl_->bindNull(index, StatementImpl::Kind::Integer);
    }
    void bindNull(int index) { impl_->bindNull(index, StatementImpl::Kind::Unknown); }
    void bindReal(int index, double value) { impl_->bindReal(index, value); }

    /// Steps once: true while a row is available; done() or failed() tell the rest.
    bool step() { return impl_->step(); }
    bool done() const { return impl_->done(); }
    bool failed() const { return impl_->failed(); }
    /// Steps to completion (for statements that return no rows); false on error.
    bool run() {
        while (step()) {
        }
        const bool ok = done();
        reset();
        return ok;
    }
    /// Clears the bindings and rewinds, ready for the next use.
    void reset() { impl_->reset(); }

    bool isNull(int column) const { return impl_->isNull(column); }
    std::int64_t integer(int column) const { return impl_->integer(column); }
    double real(int column) const { return impl_->real(column); }
    std::string text(int column) const { return std::string(textView(column)); }
    /// The text of a column without a copy: valid until the next step or reset.
    std::string_view textView(int column) const { return impl_->textView(column); }

private:
    std::unique_ptr<StatementImpl> impl_;
};

class Database {
public:
    enum class Mode { ReadWrite, ReadOnly };

    /// Opens the database at `location`: a PostgreSQL connection URL
    /// ("postgresql://..." or "postgres://..."), else an SQLite file. Nothing and a
    /// message naming the location and the cause on failure.
    ///
    /// SQLite: a writable database is created when missing and put in WAL mode
    /// ("permission denied" and what is not writable, when that is why). A
    /// read-only one is opened read-only whatever the caller's rights: it is never
    /// written, and a database at rest (rollback-journal mode) gets no file made
    /// beside it. PostgreSQL: a read-only connection has every transaction
    /// read-only.
    static std::unique_ptr<Database> open(const std::string& location, Mode mode, std::string& error);
    /// Whether `location` names a PostgreSQL database rather than an SQLite file.
    static bool isPostgresUrl(std::string_view location);
    /// The location as messages show it: a URL's password left out.
    static std::string displayName(const std::string& location);

    virtual ~Database() = default;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    virtual Dialect dialect() const = 0;
    /// Runs SQL without parameters (schema, pragmas, transaction control).
    virtual bool exec(const char* sql, std::string& error) = 0;
    Statement prepare(std::string_view sql, std::string& error);
    virtual std::string lastError() const = 0;
    /// Rows changed by the last INSERT, UPDATE or DELETE run.
    virtual std::int64_t changes() const = 0;
    /// Whether the last failure was one that a retry of the whole transaction may
    /// cure (another writer's lock: a deadlock or a serialisation failure).
    virtual bool lastFailureIsTransient() const { return false; }
    /// Whether the connection still works (a PostgreSQL server may go away).
    virtual bool healthy() const { return true; }
    /// Connects again when the connection broke; whether it works now.
    virtual bool reconnect() { return true; }

protected:
    Database() = default;
    virtual std::unique_ptr<StatementImpl> prepareImpl(std::string_view sql, std::string& error) = 0;
};

}  // namespace zubcollector
