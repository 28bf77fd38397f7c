#include "SqliteDatabase.h"

#include "SystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace zubcollector {

namespace {

class SqliteStatement final : public StatementImpl {
public:
    explicit SqliteStatement(sqlite3_stmt* stmt) : stmt_(stmt) {}
    ~SqliteStatement() override { sqlite3_finalize(stmt_); }
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    void bindInteger(int index, std::int64_t value) override { sqlite3_bind_int64(stmt_, index, value); }
    void bindText(int index, std::string_view text) override {
        sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    void bindReal(int index, double value) override { sqlite3_bind_double(stmt_, index, value); }
    void bindNull(int index, Kind) override { sqlite3_bind_null(stmt_, index); }
    bool step() override {
        lastStep_ = sqlite3_step(stmt_);
        return lastStep_ == SQLITE_ROW;
    }
    bool done() const override { return lastStep_ == SQLITE_DONE; }
    bool failed() const override {
        return lastStep_ != SQLITE_ROW && lastStep_ != SQLITE_DONE && lastStep_ != SQLITE_OK;
    }
    void reset() override {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    bool isNull(int column) const override { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
    std::int64_t integer(int column) const override { return sqlite3_column_int64(stmt_, column); }
    double real(int column) const override { return sqlite3_column_double(stmt_, column); }
    std::string_view textView(int column) const override {
        const auto* bytes = sqlite3_column_text(stmt_, column);
        if (!bytes) return {};
        return std::string_view(reinterpret_cast<const char*>(bytes),
                                static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
    }

private:
    sqlite3_stmt* stmt_;
    int lastStep_ = SQLITE_OK;
};

}  // namespace

namespace {

// What went wrong with the last call on `db`, in the words of the system where it
// was a system call that failed ("permission denied" rather than SQLite's
// "unable to open database file").
std::string describeFailure(sqlite3* db) {
    if (!db) return "out of memory";
    const int primary = sqlite3_extended_errcode(db) & 0xff;
    const int systemError = sqlite3_system_errno(db);
    if ((primary == SQLITE_CANTOPEN || primary == SQLITE_IOERR) && systemError != 0) {
        return systemErrorText(systemError);
    }
    if (primary == SQLITE_READONLY) return "permission denied (" + std::string(sqlite3_errmsg(db)) + ")";
    return sqlite3_errmsg(db);
}

// SQLite's URI form of a file name, so that options can follow it; the
// characters a URI gives meaning to are escaped.
std::string fileUri(const std::string& path, const char* options) {
    std::string uri = path.rfind('/', 0) == 0 ? "file://" : "file:";
    for (const char c : path) {
        switch (c) {
            case '%': uri += "%25"; break;
            case '?': uri += "%3f"; break;
            case '#': uri += "%23"; break;
            default: uri += c;
        }
    }
    return uri + "?" + options;
}

sqlite3* openHandle(const std::string& name, int flags, std::string& error) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(name.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        error = describeFailure(db);
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_extended_result_codes(db, 1);
    // A reader may meet the writer's checkpoint; wait a little instead of failing at once.
    sqlite3_busy_timeout(db, 5000);
    return db;
}

// Why a writer cannot work on the database at `path`, when it is for want of
// rights: the writer needs the file and, for its log, the directory. Empty when
// both can be written.
std::string writeAccessProblem(const std::string& path) {
    const std::filesystem::path file(path);
    const std::string dir = file.has_parent_path() ? file.parent_path().string() : std::string(".");
    std::error_code ec;
    if (std::filesystem::exists(file, ec) && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
        return systemErrorText(errno) + " (the file is not writable)";
    }
    if (std::filesystem::is_directory(dir, ec) && ::faccessat(AT_FDCWD, dir.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return systemErrorText(errno) + " (cannot create files in " + dir + ")";
    }
    return {};
}

bool hasWriteAheadLog(const std::string& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path + "-wal", ec);
    return !ec && size > 0;
}

// Reads the schema once, which is when SQLite sets up its access to the file.
int firstRead(sqlite3* db) {
    return sqlite3_exec(db, "SELECT COUNT(*) FROM sqlite_master", nullptr, nullptr, nullptr);
}

}  // namespace

std::unique_ptr<SqliteDatabase> SqliteDatabase::open(const std::string& path, Mode mode, std::string& error) {
    const std::string failed = "cannot open database " + path + ": ";
    if (mode == Mode::ReadOnly) {
        // Read-only by the open mode, not by file permissions, so that nothing is
        // written even where the caller could write (root, the collector's user).
        sqlite3* db = openHandle(fileUri(path, "mode=ro"), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, error);
        if (!db) return error = failed + error, nullptr;
        int rc = firstRead(db);
        if ((rc == SQLITE_READONLY_DIRECTORY || rc == SQLITE_READONLY_CANTINIT) && !hasWriteAheadLog(path)) {
            // A database left in WAL mode with no log beside it, in a directory where
            // the log's shared index (-shm) cannot be made. All it holds is in the
            // file, and a writer, which has to make those files, cannot start there:
            // the file is read as an unchanging one.
            sqlite3_close(db);
            db = openHandle(fileUri(path, "mode=ro&immutable=1"), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, error);
            if (!db) return error = failed + error, nullptr;
            rc = firstRead(db);
        }
        if (rc != SQLITE_OK) {
            error = failed + describeFailure(db);
            sqlite3_close(db);
            return nullptr;
        }
        return std::unique_ptr<SqliteDatabase>(new SqliteDatabase(db));
    }

    // Failures for want of rights are told as such; SQLite's own words for them
    // ("unable to open database file", "attempt to write a readonly database")
    // name neither the cause nor the place.
    auto refuse = [&](const std::string& why) {
        const std::string access = writeAccessProblem(path);
        error = failed + (access.empty() ? why : access);
        return nullptr;
    };
    sqlite3* db = openHandle(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
    if (!db) return refuse(error);
    std::unique_ptr<SqliteDatabase> database(new SqliteDatabase(db));
    // SQLite quietly opens a file it may not write read-only.
    if (sqlite3_db_readonly(db, "main") == 1) return refuse("the file is read-only");
    std::string why;
    // The writer's settings. WAL with synchronous=NORMAL: a commit is appended to
    // the log (a write, no flush to the disk); a process that dies after it loses
    // nothing, as the log is read back on the next open; only a machine that loses
    // power may lose the last commits. A savepoint's copies of the pages it changes
    // (one per request of a group) are kept in memory rather than in a temporary
    // file. The page cache holds the indexes that every insert walks, and the log
    // is copied back into the file every 4000 pages rather than every 1000, so a
    // page changed by many commits is written back once.
    if (!database->exec("PRAGMA journal_mode=WAL", why) || !database->exec("PRAGMA synchronous=NORMAL", why) ||
        !database->exec("PRAGMA foreign_keys=ON", why) || !database->exec("PRAGMA temp_store=MEMORY", why) ||
        !database->exec("PRAGMA cache_size=-65536", why) || !database->exec("PRAGMA wal_autocheckpoint=4000", why)) {
        return refuse(why);
    }
    if (firstRead(db) != SQLITE_OK) return refuse(database->lastError());
    return database;
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close_v2(db_); }

bool SqliteDatabase::exec(const char* sql, std::string& error) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        error = lastError();
        return false;
    }
    return true;
}

std::unique_ptr<StatementImpl> SqliteDatabase::prepareImpl(std::string_view sql, std::string& error) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
        SQLITE_OK) {
        sqlite3_finalize(stmt);
        error = lastError();
        return nullptr;
    }
    return std::make_unique<SqliteStatement>(stmt);
}

std::string SqliteDatabase::lastError() const { return describeFailure(db_); }

std::int64_t SqliteDatabase::changes() const { return sqlite3_changes64(db_); }

}  // namespace zubcollector
