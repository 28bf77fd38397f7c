// Command line of zub-collector (parsed with CLI11).
//
//   zub-collector [serve] [server options]      run the report and identifier server
//   zub-collector stats  --db PATH [--app KEY] [--since T] [--until T] [--top N] [--json]
//   zub-collector events --db PATH [--since T] [--until T] [--type ET] [--app KEY]
//                        [--mid MID] [--limit N] [--json]
//   zub-collector migrate --from FILE --to postgresql://...
//   zub-collector help [COMMAND] | --help | --version
//
// With no command, or when the first argument is an option, the server runs:
// `zub-collector --port 0 --db x.db` is `zub-collector serve --port 0 --db x.db`.
// Every command has its own --help with the defaults shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace zubcollector {

/// Test and user knobs that make the server misbehave on purpose.
struct FaultOptions {
    enum class Scope { All, Report, Mid };
    std::optional<int> ret;     // answer this "ret" without storing anything
    std::optional<int> status;  // answer this HTTP status without storing anything
    int delayMs = 0;            // wait this long before handling a request
    bool drop = false;          // cut the connection instead of answering
    std::int64_t count = -1;    // apply to this many matching requests (-1: all)
    Scope scope = Scope::All;

    bool any() const { return ret || status || delayMs > 0 || drop; }
};

/// Where and how the dashboard, its API and the metrics are served.
struct DashboardOptions {
    bool enabled = true;
    std::string address = "127.0.0.1";
    /// Default: the report port + 1 (0, a free port, when the report port is 0).
    std::optional<int> port;
    std::string token;      // required for every request when set; needed beyond loopback
    std::string tokenFile;  // where the token was read from (its first line), if anywhere
};

struct ServeOptions {
    std::string address = "127.0.0.1";
    int port = 0;  // set from the build's default in parseCommandLine
    std::string key;
    /// An SQLite file, or a PostgreSQL URL (postgresql://...) that several
    /// collectors may share.
    std::string dbPath = "zub-collector.db";
    std::optional<int> retentionDays;  // drop events received more than N days ago
    std::string configPath;      // online configuration file; none when empty
    std::size_t threads = 32;    // request threads (each kept-alive connection holds one)
    // How long an idle connection is kept open; also bounds how long a stop waits
    // for idle clients.
    int keepAliveSeconds = 1;
    std::size_t maxBodyBytes = 4u << 20;    // wire body ceiling
    std::size_t maxPlainBytes = 32u << 20;  // deciphered and inflated body ceiling
    bool quiet = false;          // no per-request log lines
    FaultOptions faults;
    DashboardOptions dashboard;
};

struct StatsOptions {
    std::string dbPath;
    std::optional<std::string> app;
    // The events' time: "ts", or when received for events sent without one.
    std::optional<std::int64_t> since;  // seconds since 1970, inclusive
    std::optional<std::int64_t> until;  // exclusive
    std::size_t top = 10;
    bool json = false;
};

struct EventsOptions {
    std::string dbPath;
    std::optional<std::int64_t> since;  // event "ts", seconds since 1970, inclusive
    std::optional<std::int64_t> until;  // exclusive
    std::optional<std::int64_t> type;
    std::optional<std::string> app;
    std::optional<std::string> mid;
    std::optional<std::int64_t> limit;
    bool json = false;
};

struct MigrateOptions {
    std::string from;  // SQLite file
    std::string to;    // PostgreSQL URL
};

struct CommandLine {
    /// Exit: nothing to run; end with exitCode (help or version printed: 0; a bad
    /// command line reported: 2).
    enum class Command { Serve, Stats, Events, Migrate, Exit };
    Command command = Command::Serve;
    int exitCode = 0;
    ServeOptions serve;
    StatsOptions stats;
    EventsOptions events;
    MigrateOptions migrate;
};

inline constexpr int kExitUsage = 2;

/// Parses the arguments (argv without the program name). Help and the version go
/// to `out`, a bad command line is explained on `err`; both give Command::Exit.
CommandLine parseCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

/// Splits "ADDR:PORT" ("[ADDR]:PORT" for IPv6); false when it is not that.
bool parseHostPort(const std::string& text, std::string& address, int& port);

/// Why a dashboard token cannot be used (empty when it can): 8 to 256 printable
/// characters without spaces, ';' or ','.
std::string tokenProblem(const std::string& token);

/// Reads a time given as seconds since 1970 or as a UTC date "YYYY-MM-DD" or
/// date and time "YYYY-MM-DDTHH:MM[:SS][Z]".
std::optional<std::int64_t> parseTime(const std::string& text);

}  // namespace zubcollector
