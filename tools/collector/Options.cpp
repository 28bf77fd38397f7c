#include "Options.h"

#include "Common/ZUBProConfig.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <functional>
#include <limits>
#include <map>

#ifndef ZUB_COLLECTOR_PORT
#define ZUB_COLLECTOR_PORT 47800
#endif

namespace zubcollector {
namespace {

template <typename T>
std::optional<T> parseNumber(const std::string& text, T min, T max) {
    T value{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < min || value > max) return std::nullopt;
    return value;
}

// Walks the arguments of one command, handing each option's value to its setter.
class ArgumentReader {
public:
    using Setter = std::function<bool(const std::string& value, std::string& error)>;

    void option(const std::string& name, Setter setter) { valued_[name] = std::move(setter); }
    void flag(const std::string& name, std::function<void()> set) { flags_[name] = std::move(set); }

    bool read(const std::vector<std::string>& args, std::size_t from, std::string& error) const {
        for (std::size_t i = from; i < args.size(); ++i) {
            std::string name = args[i];
            std::optional<std::string> inlineValue;
            if (const auto eq = name.find('='); name.rfind("--", 0) == 0 && eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                name.resize(eq);
            }
            if (const auto f = flags_.find(name); f != flags_.end() && !inlineValue) {
                f->second();
                continue;
            }
            const auto o = valued_.find(name);
            if (o == valued_.end()) {
                error = "unknown option " + args[i];
                return false;
            }
            if (!inlineValue && i + 1 >= args.size()) {
                error = name + " needs a value";
                return false;
            }
            const std::string value = inlineValue ? *inlineValue : args[++i];
            std::string why;
            if (!o->second(value, why)) {
                error = "bad value for " + name + ": \"" + value + "\"" + (why.empty() ? "" : " (" + why + ")");
                return false;
            }
        }
        return true;
    }

private:
    std::map<std::string, Setter> valued_;
    std::map<std::string, std::function<void()>> flags_;
};

template <typename T>
ArgumentReader::Setter number(T& target, T min, T max) {
    return [&target, min, max](const std::string& value, std::string& why) {
        const auto parsed = parseNumber<T>(value, min, max);
        if (!parsed) {
            why = "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
            return false;
        }
        target = *parsed;
        return true;
    };
}

template <typename T>
ArgumentReader::Setter optionalNumber(std::optional<T>& target, T min, T max) {
    return [&target, min, max](const std::string& value, std::string& why) {
        const auto parsed = parseNumber<T>(value, min, max);
        if (!parsed) {
            why = "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
            return false;
        }
        target = *parsed;
        return true;
    };
}

ArgumentReader::Setter text(std::string& target) {
    return [&target](const std::string& value, std::string& why) {
        if (value.empty()) {
            why = "empty";
            return false;
        }
        target = value;
        return true;
    };
}

ArgumentReader::Setter optionalText(std::optional<std::string>& target) {
    return [&target](const std::string& value, std::string&) {
        target = value;
        return true;
    };
}

ArgumentReader::Setter time(std::optional<std::int64_t>& target) {
    return [&target](const std::string& value, std::string& why) {
        target = parseTime(value);
        if (!target) why = "seconds since 1970, YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS] (UTC)";
        return target.has_value();
    };
}

constexpr std::int64_t kMaxInt64 = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinInt64 = std::numeric_limits<std::int64_t>::min();

}  // namespace

std::optional<std::int64_t> parseTime(const std::string& value) {
    if (const auto seconds = parseNumber<std::int64_t>(value, 0, kMaxInt64)) return seconds;
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

std::optional<CommandLine> parseCommandLine(const std::vector<std::string>& args, std::string& error) {
    CommandLine line;
    line.serve.port = ZUB_COLLECTOR_PORT;
    // The library's own default key, so an unconfigured client and collector agree.
    line.serve.key = ZUBProConfig::getInstance().rc4Key().value_or("");
    std::size_t first = 0;
    if (!args.empty()) {
        const std::string& word = args[0];
        if (word == "serve") {
            first = 1;
        } else if (word == "stats") {
            line.command = CommandLine::Command::Stats;
            first = 1;
        } else if (word == "events") {
            line.command = CommandLine::Command::Events;
            first = 1;
        } else if (word == "help" || word == "--help" || word == "-h") {
            line.command = CommandLine::Command::Help;
            return line;
        } else if (word == "--version") {
            line.command = CommandLine::Command::Version;
            return line;
        }
    }

    ArgumentReader reader;
    switch (line.command) {
        case CommandLine::Command::Serve: {
            ServeOptions& o = line.serve;
            FaultOptions& f = o.faults;
            reader.option("--address", text(o.address));
            reader.option("--port", number<int>(o.port, 0, 65535));
            reader.option("--key", text(o.key));
            reader.option("--db", text(o.dbPath));
            reader.option("--config", text(o.configPath));
            reader.option("--threads", number<std::size_t>(o.threads, 1, 1024));
            reader.option("--keep-alive", number<int>(o.keepAliveSeconds, 1, 3600));
            reader.option("--max-body", number<std::size_t>(o.maxBodyBytes, 1, std::size_t{1} << 31));
            reader.option("--max-plain", number<std::size_t>(o.maxPlainBytes, 1, std::size_t{1} << 31));
            reader.flag("--quiet", [&o] { o.quiet = true; });
            reader.option("--fault-ret", optionalNumber<int>(f.ret, std::numeric_limits<int>::min(),
                                                             std::numeric_limits<int>::max()));
            reader.option("--fault-status", optionalNumber<int>(f.status, 100, 599));
            reader.option("--fault-delay-ms", number<int>(f.delayMs, 0, 600000));
            reader.flag("--fault-drop", [&f] { f.drop = true; });
            reader.option("--fault-count", number<std::int64_t>(f.count, 0, kMaxInt64));
            reader.option("--fault-path", [&f](const std::string& value, std::string& why) {
                if (value == "all") {
                    f.scope = FaultOptions::Scope::All;
                } else if (value == "report") {
                    f.scope = FaultOptions::Scope::Report;
                } else if (value == "mid") {
                    f.scope = FaultOptions::Scope::Mid;
                } else {
                    why = "all, report or mid";
                    return false;
                }
                return true;
            });
            break;
        }
        case CommandLine::Command::Stats: {
            StatsOptions& o = line.stats;
            reader.option("--db", text(o.dbPath));
            reader.option("--app", optionalText(o.app));
            reader.option("--top", number<std::size_t>(o.top, 1, 1000));
            reader.flag("--json", [&o] { o.json = true; });
            break;
        }
        case CommandLine::Command::Events: {
            EventsOptions& o = line.events;
            reader.option("--db", text(o.dbPath));
            reader.option("--since", time(o.since));
            reader.option("--until", time(o.until));
            reader.option("--type", optionalNumber<std::int64_t>(o.type, kMinInt64, kMaxInt64));
            reader.option("--app", optionalText(o.app));
            reader.option("--mid", optionalText(o.mid));
            reader.option("--limit", optionalNumber<std::int64_t>(o.limit, 1, kMaxInt64));
            reader.flag("--json", [&o] { o.json = true; });
            break;
        }
        default:
            break;
    }
    if (!reader.read(args, first, error)) return std::nullopt;
    if (line.command == CommandLine::Command::Stats && line.stats.dbPath.empty()) {
        error = "stats needs --db PATH";
        return std::nullopt;
    }
    if (line.command == CommandLine::Command::Events && line.events.dbPath.empty()) {
        error = "events needs --db PATH";
        return std::nullopt;
    }
    if (line.command == CommandLine::Command::Serve) {
        const FaultOptions& f = line.serve.faults;
        if ((f.ret ? 1 : 0) + (f.status ? 1 : 0) + (f.drop ? 1 : 0) > 1) {
            error = "choose at most one of --fault-ret, --fault-status and --fault-drop";
            return std::nullopt;
        }
    }
    return line;
}

std::string usageText() {
    return "usage:\n"
           "  zub-collector [serve] [options]   run the report and identifier server\n"
           "    --address ADDR        listen address (default 127.0.0.1)\n"
           "    --port N              listen port (default " +
           std::to_string(ZUB_COLLECTOR_PORT) +
           "; 0 picks a free one)\n"
           "    --key KEY             RC4 key of the wire wrapping (default: the library's)\n"
           "    --db PATH             SQLite database (default ./zub-collector.db)\n"
           "    --config FILE         online configuration to hand out: {\"sdk\": {\"v\",\"c\"[,\"m\"]}, \"app\": {...}}\n"
           "    --threads N           request threads (default 32)\n"
           "    --keep-alive SECONDS  close connections idle this long (default 1)\n"
           "    --max-body BYTES      refuse larger request bodies (default 4194304)\n"
           "    --max-plain BYTES     refuse bodies that inflate beyond this (default 33554432)\n"
           "    --quiet               no per-request log lines\n"
           "    --fault-ret N         answer {\"ret\": N} and store nothing\n"
           "    --fault-status CODE   answer this HTTP status and store nothing\n"
           "    --fault-drop          cut the connection instead of answering; store nothing\n"
           "    --fault-delay-ms MS   wait before handling each request\n"
           "    --fault-count N       apply the fault to the first N matching requests only\n"
           "    --fault-path P        all (default), report or mid\n"
           "  zub-collector stats --db PATH [--app KEY] [--top N] [--json]\n"
           "  zub-collector events --db PATH [--since T] [--until T] [--type ET] [--app KEY] [--mid MID]\n"
           "                       [--limit N] [--json]\n"
           "    T: seconds since 1970, YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS] (UTC), compared with the event's \"ts\"\n";
}

}  // namespace zubcollector
