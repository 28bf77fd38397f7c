#include "Options.h"

#include "Common/ZUBProConfig.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <limits>

#ifndef ZUB_COLLECTOR_PORT
#define ZUB_COLLECTOR_PORT 47800
#endif

#ifndef ZUB_COLLECTOR_VERSION
#define ZUB_COLLECTOR_VERSION "0"
#endif

namespace zubcollector {
namespace {

constexpr std::int64_t kMaxInt64 = std::numeric_limits<std::int64_t>::max();
constexpr const char* kProgram = "zub-collector";

std::optional<std::int64_t> parseSeconds(const std::string& text) {
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}

bool isPostgresUrl(const std::string& value) {
    return value.rfind("postgresql://", 0) == 0 || value.rfind("postgres://", 0) == 0;
}

// Paths, addresses and keys: an empty value is a mistake, never "use the default".
const CLI::Validator kNotEmpty(
    [](std::string& value) { return value.empty() ? std::string("must not be empty") : std::string(); }, "");

// A time as the events' "ts" holds it: rewritten to seconds since 1970.
const CLI::Validator kTime(
    [](std::string& value) {
        const auto seconds = parseTime(value);
        if (!seconds) return std::string("expected seconds since 1970, YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS] (UTC)");
        value = std::to_string(*seconds);
        return std::string();
    },
    "");

template <typename T>
CLI::Option* optionalOption(CLI::App& app, const std::string& name, std::optional<T>& target,
                            const std::string& description) {
    return app.add_option_function<T>(name, [&target](const T& value) { target = value; }, description);
}

void addServeOptions(CLI::App& serve, ServeOptions& o) {
    serve.add_option("--address", o.address, "listen address")->check(kNotEmpty)->type_name("ADDR");
    serve.add_option("--port", o.port, "listen port; 0 picks a free one")
        ->check(CLI::Range(0, 65535))
        ->type_name("N");
    serve.add_option("--key", o.key, "RC4 key of the wire wrapping")
        ->check(kNotEmpty)
        ->type_name("KEY")
        ->default_str("(the library's)");
    serve.add_option("--db", o.dbPath,
                     "SQLite database file, or postgresql://USER@HOST/DB shared by several collectors "
                     "(created and migrated as needed)")
        ->check(kNotEmpty)
        ->type_name("PATH|URL");
    optionalOption(serve, "--retention-days", o.retentionDays,
                   "drop events received more than N days before today (daily, whole days)")
        ->check(CLI::Range(1, 100000))
        ->type_name("N")
        ->default_str("keep all");
    serve.add_option("--config", o.configPath,
                     "online configuration to hand out: {\"sdk\": {\"v\",\"c\"[,\"m\"]}, \"app\": {...}}")
        ->check(kNotEmpty)
        ->type_name("FILE")
        ->default_str("none");
    serve.add_option("--threads", o.threads, "request threads (each kept-alive connection holds one)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1024}))
        ->type_name("N");
    serve.add_option("--keep-alive", o.keepAliveSeconds, "close connections idle this long")
        ->check(CLI::Range(1, 3600))
        ->type_name("SECONDS");
    serve.add_option("--max-body", o.maxBodyBytes, "refuse larger request bodies (413)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 31))
        ->type_name("BYTES");
    serve.add_option("--max-plain", o.maxPlainBytes, "refuse bodies that inflate beyond this")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 31))
        ->type_name("BYTES");
    serve.add_flag("--quiet", o.quiet, "no per-request log lines");

    const std::string faults = "Faults on purpose (for testing clients)";
    FaultOptions& f = o.faults;
    auto* ret = optionalOption(serve, "--fault-ret", f.ret, "answer {\"ret\": N} and store nothing")
                    ->type_name("N")
                    ->group(faults);
    auto* status = optionalOption(serve, "--fault-status", f.status, "answer this HTTP status and store nothing")
                       ->check(CLI::Range(100, 599))
                       ->type_name("CODE")
                       ->group(faults);
    auto* drop = serve.add_flag("--fault-drop", f.drop, "cut the connection instead of answering; store nothing")
                     ->group(faults);
    ret->excludes(status)->excludes(drop);
    status->excludes(drop);
    serve.add_option("--fault-delay-ms", f.delayMs, "wait this long before handling each request")
        ->check(CLI::Range(0, 600000))
        ->type_name("MS")
        ->group(faults);
    serve.add_option("--fault-count", f.count, "apply the fault to the first N matching requests only")
        ->check(CLI::Range(std::int64_t{0}, kMaxInt64).description(""))
        ->type_name("N")
        ->default_str("all")
        ->group(faults);
    serve
        .add_option_function<std::string>(
            "--fault-path",
            [&f](const std::string& path) {
                f.scope = path == "report" ? FaultOptions::Scope::Report
                          : path == "mid"  ? FaultOptions::Scope::Mid
                                           : FaultOptions::Scope::All;
            },
            "the requests the fault applies to")
        ->check(CLI::IsMember({"all", "report", "mid"}))
        ->type_name("P")
        ->default_str("all")
        ->group(faults);
}

void addDashboardOptions(CLI::App& serve, DashboardOptions& d) {
    const std::string group = "Dashboard, JSON API and metrics";
    serve
        .add_option_function<std::string>(
            "--dashboard",
            [&d](const std::string& value) {
                if (value == "off") {
                    d.enabled = false;
                    return;
                }
                int port = 0;
                parseHostPort(value, d.address, port);
                d.port = port;
            },
            "where to serve them, or off")
        ->check(CLI::Validator(
            [](std::string& value) {
                std::string address;
                int port = 0;
                if (value == "off" || parseHostPort(value, address, port)) return std::string();
                return std::string("expected ADDR:PORT (e.g. 127.0.0.1:47801, [::1]:0) or off");
            },
            ""))
        ->type_name("ADDR:PORT")
        ->default_str("127.0.0.1:(report port + 1)")
        ->group(group);
    auto* token = serve.add_option("--dashboard-token", d.token, "access token every dashboard request must carry "
                                                                "(required to listen beyond loopback)")
                      ->check(CLI::Validator([](std::string& value) { return tokenProblem(value); }, ""))
                      ->type_name("TOKEN")
                      ->default_str("none")
                      ->group(group);
    auto* file = serve.add_option("--dashboard-token-file", d.tokenFile, "read the access token from the first line of FILE")
                     ->check(CLI::ExistingFile)
                     ->type_name("FILE")
                     ->default_str("none")
                     ->group(group);
    token->excludes(file);
}

void addStatsOptions(CLI::App& stats, StatsOptions& o) {
    stats.add_option("--db", o.dbPath, "collector database (opened read-only)")
        ->required()
        ->check(kNotEmpty)
        ->type_name("PATH");
    optionalOption(stats, "--app", o.app, "only this application key")->type_name("KEY");
    optionalOption(stats, "--since", o.since, "events of time T or later")->transform(kTime)->type_name("T");
    optionalOption(stats, "--until", o.until, "events before time T")->transform(kTime)->type_name("T");
    stats.add_option("--top", o.top, "rows of the top custom events and pages")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000}))
        ->type_name("N");
    stats.add_flag("--json", o.json, "one JSON object instead of tables");
    stats.footer("T: seconds since 1970, YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS][Z] (UTC), compared with the event's \"ts\",\n"
                 "or with when it was received for an event sent without one (\"ts\" 0 or missing)");
}

void addMigrateOptions(CLI::App& migrate, MigrateOptions& o) {
    migrate.add_option("--from", o.from, "SQLite collector database to copy (opened read-only)")
        ->required()
        ->check(kNotEmpty)
        ->type_name("FILE");
    migrate.add_option("--to", o.to, "PostgreSQL database to copy into (created and migrated as needed)")
        ->required()
        ->check(CLI::Validator(
            [](std::string& value) {
                return isPostgresUrl(value) ? std::string() : std::string("expected postgresql://...");
            },
            ""))
        ->type_name("URL");
    migrate.footer("Copies devices, events, configuration holdings and the dashboard's summaries. It may be run\n"
                   "again, also after an interruption or while collectors write to the target: each event is\n"
                   "copied exactly once.");
}

void addEventsOptions(CLI::App& events, EventsOptions& o) {
    events.add_option("--db", o.dbPath, "collector database (opened read-only)")
        ->required()
        ->check(kNotEmpty)
        ->type_name("PATH");
    optionalOption(events, "--since", o.since, "events whose \"ts\" is at or after T")
        ->transform(kTime)
        ->type_name("T");
    optionalOption(events, "--until", o.until, "events whose \"ts\" is before T")->transform(kTime)->type_name("T");
    optionalOption(events, "--type", o.type, "only this event type (\"et\")")->type_name("ET");
    optionalOption(events, "--app", o.app, "only this application key")->type_name("KEY");
    optionalOption(events, "--mid", o.mid, "only this device")->type_name("MID");
    optionalOption(events, "--limit", o.limit, "at most N events")
        ->check(CLI::Range(std::int64_t{1}, kMaxInt64).description(""))
        ->type_name("N");
    events.add_flag("--json", o.json, "a JSON array with each event as it was sent");
    events.footer("T: seconds since 1970, YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS][Z] (UTC), compared with the event's \"ts\"");
}

bool isOption(const std::string& word) { return !word.empty() && word[0] == '-'; }

bool isCommand(CLI::App& app, const std::string& word) {
    return !app.get_subcommands([&word](const CLI::App* command) { return command->check_name(word); }).empty();
}

}  // namespace

bool parseHostPort(const std::string& text, std::string& address, int& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    std::string host = text.substr(0, colon);
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') return false;
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        return false;  // an IPv6 address needs its brackets
    }
    const std::string digits = text.substr(colon + 1);
    int value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() || value < 0 || value > 65535) {
        return false;
    }
    address = host;
    port = value;
    return true;
}

std::string tokenProblem(const std::string& token) {
    if (token.size() < 8 || token.size() > 256) return "a token has 8 to 256 characters";
    for (const char c : token) {
        if (c <= ' ' || c > '~' || c == ';' || c == ',') {
            return "a token is printable characters without spaces, ';' or ','";
        }
    }
    return {};
}

std::optional<std::int64_t> parseTime(const std::string& value) {
    if (const auto seconds = parseSeconds(value)) return seconds;
    std::tm tm{};
    int consumed = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    const char* s = value.c_str();
    if (std::sscanf(s, "%4d-%2d-%2d%n", &year, &month, &day, &consumed) != 3 || consumed != 10) return std::nullopt;
    std::string rest = value.substr(10);
    if (!rest.empty()) {
        int more = 0;
        if (std::sscanf(rest.c_str(), "T%2d:%2d%n", &hour, &minute, &more) != 2 || more != 6) return std::nullopt;
        rest = rest.substr(6);
        if (!rest.empty() && rest[0] == ':') {
            if (std::sscanf(rest.c_str(), ":%2d%n", &second, &more) != 1 || more != 3) return std::nullopt;
            rest = rest.substr(3);
        }
        if (rest == "Z") rest.clear();
        if (!rest.empty()) return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    const std::time_t t = timegm(&tm);
    if (t < 0) return std::nullopt;
    return static_cast<std::int64_t>(t);
}

CommandLine parseCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    CommandLine line;
    line.serve.port = ZUB_COLLECTOR_PORT;
    // The library's own default key, so an unconfigured client and collector agree.
    line.serve.key = ZUBProConfig::getInstance().rc4Key().value_or("");

    CLI::App app("The reference report and identifier server of ZUBCocoa, and queries of what it stored.", kProgram);
    app.option_defaults()->always_capture_default()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_version_flag("--version", std::string(kProgram) + " " + ZUB_COLLECTOR_VERSION);
    app.require_subcommand(0, 1);
    CLI::App* serve = app.add_subcommand("serve", "run the report and identifier server (the default command)");
    CLI::App* stats = app.add_subcommand("stats", "summarise what a collector database holds");
    CLI::App* events = app.add_subcommand("events", "list the events a collector database holds");
    CLI::App* migrate = app.add_subcommand("migrate", "copy an SQLite collector database into PostgreSQL");
    addServeOptions(*serve, line.serve);
    addDashboardOptions(*serve, line.serve.dashboard);
    addStatsOptions(*stats, line.stats);
    addEventsOptions(*events, line.events);
    addMigrateOptions(*migrate, line.migrate);
    app.footer("With no command the server runs: zub-collector [serve options].\n"
               "zub-collector COMMAND --help shows the options of a command.");

    std::vector<std::string> words = args;
    if (!words.empty() && words[0] == "help") {
        // "help" alone is --help; "help COMMAND" is "COMMAND --help".
        words.erase(words.begin());
        words.resize(std::min<std::size_t>(words.size(), 1));
        words.push_back("--help");
    }
    if (words.empty() || (isOption(words[0]) && words[0] != "--help" && words[0] != "-h" && words[0] != "--version")) {
        words.insert(words.begin(), "serve");
    } else if (!isOption(words[0]) && !isCommand(app, words[0])) {
        err << kProgram << ": unknown command \"" << words[0] << "\" (commands: serve, stats, events, migrate; see "
            << kProgram << " --help)\n";
        line.command = CommandLine::Command::Exit;
        line.exitCode = kExitUsage;
        return line;
    }

    line.command = CommandLine::Command::Exit;
    try {
        std::vector<std::string> reversed(words.rbegin(), words.rend());  // CLI11 takes them last first
        app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
        out << app.help();  // the help of the command named, if any
        return line;
    } catch (const CLI::CallForAllHelp&) {
        out << app.help("", CLI::AppFormatMode::All);
        return line;
    } catch (const CLI::CallForVersion& version) {
        out << version.what() << "\n";
        return line;
    } catch (const CLI::ParseError& e) {
        const CLI::App* named = app.get_subcommands().empty() ? &app : app.get_subcommands().front();
        err << kProgram << (named == &app ? "" : " " + named->get_name()) << ": " << e.what() << "\n"
            << "Run '" << kProgram << (named == &app ? "" : " " + named->get_name()) << " --help' for its options.\n";
        line.exitCode = kExitUsage;
        return line;
    }
    if (stats->parsed()) {
        line.command = CommandLine::Command::Stats;
    } else if (events->parsed()) {
        line.command = CommandLine::Command::Events;
    } else if (migrate->parsed()) {
        line.command = CommandLine::Command::Migrate;
    } else {
        line.command = CommandLine::Command::Serve;
        DashboardOptions& d = line.serve.dashboard;
        if (!d.port) d.port = line.serve.port == 0 || line.serve.port == 65535 ? 0 : line.serve.port + 1;
        if (d.enabled && *d.port == line.serve.port && line.serve.port != 0) {
            err << kProgram << ": the dashboard cannot share the report port " << line.serve.port
                << " (devices reach that one; choose another with --dashboard ADDR:PORT)\n";
            line.command = CommandLine::Command::Exit;
            line.exitCode = kExitUsage;
        }
    }
    return line;
}

}  // namespace zubcollector
