// The SQLite store's connection: one file, opened once by its one user.
#pragma once

#include "Database.h"

#include <sqlite3.h>

namespace zubcollector {

class SqliteDatabase final : public Database {
public:
    /// See Database::open for what each mode does with the file.
    static std::unique_ptr<SqliteDatabase> open(const std::string& path, Mode mode, std::string& error);
    ~SqliteDatabase() override;

    Dialect dialect() const override { return Dialect::Sqlite; }
    bool exec(const char* sql, std::string& error) override;
    std::string lastError() const override;
    std::int64_t changes() const override;

private:
    explicit SqliteDatabase(sqlite3* db) : db_(db) {}
    std::unique_ptr<StatementImpl> prepareImpl(std::string_view sql, std::string& error) override;
    sqlite3* db_;
};

}  // namespace zubcollector
