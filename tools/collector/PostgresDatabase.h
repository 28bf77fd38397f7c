// The PostgreSQL store's connection (libpq): one connection, used by one thread
// at a time, like the SQLite one.
//
// Statements are prepared on the server when first run, with the parameter types
// of their bindings (text, 64-bit integer, double; a NULL of an optional's kind),
// and kept for the connection's life: the same text bound the same way is parsed
// and planned once. Values travel as parameters, never inside the SQL text. Text
// cannot hold a NUL character in PostgreSQL: one in a bound text is stored as
// U+FFFD.
#pragma once

#include "Database.h"

#include <libpq-fe.h>

#include <map>
#include <vector>
#include <string>

namespace zubcollector {

class PostgresDatabase final : public Database {
public:
    static std::unique_ptr<PostgresDatabase> open(const std::string& url, Mode mode, std::string& error);
    ~PostgresDatabase() override;

    Dialect dialect() const override { return Dialect::Postgres; }
    bool exec(const char* sql, std::string& error) override;
    std::string lastError() const override { return lastError_; }
    std::int64_t changes() const override { return changes_; }
    bool lastFailureIsTransient() const override;
    bool healthy() const override { return PQstatus(conn_) == CONNECTION_OK; }
    bool reconnect() override;

    /// The URL without its password, for messages.
    static std::string redacted(const std::string& url);

    // Used by the statements of this connection.
    PGconn* handle() const { return conn_; }
    /// The server-side name of `sql` prepared with `types`; empty (and lastError())
    /// when it cannot be prepared.
    std::string preparedName(const std::string& sql, const std::string& signature, const std::vector<Oid>& types);
    /// Counts the sessions of this connection: statements prepared in an earlier
    /// one are gone.
    std::uint64_t session() const { return session_; }
    /// Takes a finished command's outcome: its changed rows, or its error.
    bool noteResult(const PGresult* result);

private:
    PostgresDatabase(PGconn* conn, Mode mode) : conn_(conn), mode_(mode) {}
    /// The session's settings, after connecting.
    bool setUp(std::string& error);
    std::unique_ptr<StatementImpl> prepareImpl(std::string_view sql, std::string& error) override;

    PGconn* conn_;
    Mode mode_;
    std::map<std::pair<std::string, std::string>, std::string> prepared_;  // (sql, types) -> name
    std::string lastError_;
    std::string lastState_;  // SQLSTATE of the last failure
    std::int64_t changes_ = 0;
    std::uint64_t session_ = 1;
};

}  // namespace zubcollector
