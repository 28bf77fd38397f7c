#include "Database.h"

#include "PostgresDatabase.h"
#include "SqliteDatabase.h"

namespace zubcollector {

bool Database::isPostgresUrl(std::string_view location) {
    return location.rfind("postgresql://", 0) == 0 || location.rfind("postgres://", 0) == 0;
}

std::string Database::displayName(const std::string& location) {
    return isPostgresUrl(location) ? PostgresDatabase::redacted(location) : location;
}

std::unique_ptr<Database> Database::open(const std::string& location, Mode mode, std::string& error) {
    if (isPostgresUrl(location)) return PostgresDatabase::open(location, mode, error);
    return SqliteDatabase::open(location, mode, error);
}

Statement Database::prepare(std::string_view sql, std::string& error) {
    return Statement(prepareImpl(sql, error));
}

}  // namespace zubcollector
