#include "DashboardApi.h"

#include "DashboardQueries.h"

#include <charconv>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <vector>

namespace zubcollector {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kMaxSpanHours = 400 * 24;    // a range of at most 400 days
constexpr std::int64_t kMaxHourlyHours = 31 * 24;   // hourly buckets for at most 31 days
constexpr std::int64_t kLatestTime = 1LL << 40;     // far beyond any event's "ts"
constexpr int kMaxTzMinutes = 18 * 60;
constexpr std::size_t kMaxTextBytes = 256;
constexpr std::int64_t kMaxOffset = 1000000;

// A parameter was wrong: the message says which and why.
struct BadParameter {
    std::string message;
};

class Params {
public:
    Params(const std::multimap<std::string, std::string>& params, std::set<std::string> allowed)
        : params_(params) {
        allowed.insert("token");  // the access token may come with any request
        for (const auto& [name, value] : params) {
            if (!allowed.count(name)) {
                throw BadParameter{"unknown parameter \"" + clip(name) + "\" (this view takes: " + list(allowed) + ")"};
            }
            if (params.count(name) > 1) throw BadParameter{"parameter \"" + clip(name) + "\" is given more than once"};
        }
    }

    std::optional<std::string> text(const std::string& name) const {
        const auto it = params_.find(name);
        if (it == params_.end() || it->second.empty()) return std::nullopt;
        if (it->second.size() > kMaxTextBytes) {
            throw BadParameter{"parameter \"" + name + "\" is longer than " + std::to_string(kMaxTextBytes) + " bytes"};
        }
        return it->second;
    }

    std::optional<std::int64_t> integer(const std::string& name, std::int64_t min, std::int64_t max) const {
        const auto value = text(name);
        if (!value) return std::nullopt;
        std::int64_t n = 0;
        const auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), n);
        if (ec != std::errc() || end != value->data() + value->size()) {
            throw BadParameter{"parameter \"" + name + "\" must be a whole number, not \"" + clip(*value) + "\""};
        }
        if (n < min || n > max) {
            throw BadParameter{"parameter \"" + name + "\" must be between " + std::to_string(min) + " and " +
                               std::to_string(max) + ", not " + *value};
        }
        return n;
    }

    std::size_t limit(std::size_t fallback) const {
        return static_cast<std::size_t>(
            integer("limit", 1, static_cast<std::int64_t>(kMaxApiLimit)).value_or(static_cast<std::int64_t>(fallback)));
    }

private:
    static std::string clip(const std::string& text) { return text.size() > 40 ? text.substr(0, 40) + "..." : text; }
    static std::string list(const std::set<std::string>& names) {
        std::string text;
        for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
        return text;
    }
    const std::multimap<std::string, std::string>& params_;
};

const std::set<std::string> kRangeParams = {"app", "range", "from", "to", "tz", "bucket"};

std::set<std::string> with(std::set<std::string> base, std::initializer_list<const char*> more) {
    for (const char* name : more) base.insert(name);
    return base;
}

// The range a request names: a preset ending with the current hour, or from and
// to (seconds since 1970), widened to whole hours.
DashboardRange rangeOf(const Params& p, std::int64_t now) {
    DashboardRange range;
    range.app = p.text("app");
    range.tzMinutes = static_cast<int>(p.integer("tz", -kMaxTzMinutes, kMaxTzMinutes).value_or(0));
    const std::string preset = p.text("range").value_or(p.text("from") || p.text("to") ? "custom" : "7d");
    if (preset == "custom") {
        const auto from = p.integer("from", 0, kLatestTime);
        const auto to = p.integer("to", 0, kLatestTime);
        if (!from || !to) throw BadParameter{"a custom range needs both \"from\" and \"to\" (seconds since 1970)"};
        if (*from >= *to) throw BadParameter{"\"from\" must be before \"to\""};
        range.fromHour = *from / kHour;
        range.toHour = (*to + kHour - 1) / kHour;
    } else {
        std::int64_t hours = 0;
        if (preset == "24h") hours = 24;
        else if (preset == "7d") hours = 7 * 24;
        else if (preset == "30d") hours = 30 * 24;
        else throw BadParameter{"parameter \"range\" must be 24h, 7d, 30d or custom, not \"" + preset.substr(0, 40) + "\""};
        if (p.text("from") || p.text("to")) throw BadParameter{"\"from\" and \"to\" go with range=custom only"};
        range.toHour = now / kHour + 1;
        range.fromHour = range.toHour - hours;
    }
    const std::int64_t span = range.toHour - range.fromHour;
    if (span > kMaxSpanHours) throw BadParameter{"a range may span at most 400 days"};
    const std::string bucket = p.text("bucket").value_or(span <= 48 ? "hour" : "day");
    if (bucket != "hour" && bucket != "day") {
        throw BadParameter{"parameter \"bucket\" must be hour or day, not \"" + bucket.substr(0, 40) + "\""};
    }
    range.byDay = bucket == "day";
    if (!range.byDay && span > kMaxHourlyHours) throw BadParameter{"hourly buckets are for ranges of at most 31 days"};
    return range;
}

zub::Value describe(const DashboardRange& range) {
    zub::Value r = zub::Value::object();
    r["from"] = range.fromHour * kHour;
    r["to"] = range.toHour * kHour;
    r["tz"] = range.tzMinutes;
    r["bucket"] = range.byDay ? "day" : "hour";
    r["app"] = range.app ? zub::Value(*range.app) : zub::Value(nullptr);
    return r;
}

using Query = std::function<bool(DashboardQueries&, zub::Value&, std::string&)>;

}  // namespace

ApiAnswer apiError(int status, const std::string& message) {
    ApiAnswer answer;
    answer.status = status;
    answer.body = {{"error", {{"status", status}, {"message", message}}}};
    return answer;
}

ApiAnswer answerApi(Database& db, std::string_view view, const std::multimap<std::string, std::string>& params,
                    std::int64_t now) {
    Query query;
    zub::Value rangeText = nullptr;
    try {
        if (view == "apps") {
            Params p(params, {});
            query = [](DashboardQueries& q, zub::Value& out, std::string& error) { return q.apps(out, error); };
        } else if (view == "overview") {
            const DashboardRange range = rangeOf(Params(params, kRangeParams), now);
            rangeText = describe(range);
            query = [range](DashboardQueries& q, zub::Value& out, std::string& error) {
                return q.overview(range, out, error);
            };
        } else if (view == "pages" || view == "events" || view == "audience") {
            const Params p(params, with(kRangeParams, {"limit"}));
            const DashboardRange range = rangeOf(p, now);
            const std::size_t limit = p.limit(view == "audience" ? 8 : 20);
            rangeText = describe(range);
            if (view == "pages") {
                query = [range, limit](DashboardQueries& q, zub::Value& out, std::string& error) {
                    return q.pages(range, limit, out, error);
                };
            } else if (view == "events") {
                query = [range, limit](DashboardQueries& q, zub::Value& out, std::string& error) {
                    return q.customEvents(range, limit, out, error);
                };
            } else {
                query = [range, limit](DashboardQueries& q, zub::Value& out, std::string& error) {
                    return q.audience(range, limit, out, error);
                };
            }
        } else if (view == "devices") {
            const Params p(params, with(kRangeParams, {"q", "limit", "offset"}));
            const DashboardRange range = rangeOf(p, now);
            const auto search = p.text("q");
            const std::size_t limit = p.limit(50);
            const auto offset = static_cast<std::size_t>(p.integer("offset", 0, kMaxOffset).value_or(0));
            rangeText = describe(range);
            query = [range, search, limit, offset](DashboardQueries& q, zub::Value& out, std::string& error) {
                return q.devices(range, search, limit, offset, out, error);
            };
        } else if (view == "device") {
            const Params p(params, {"app", "mid", "limit"});
            const auto mid = p.text("mid");
            if (!mid) throw BadParameter{"parameter \"mid\" is required"};
            const auto app = p.text("app");
            const std::size_t limit = p.limit(100);
            query = [app, mid, limit](DashboardQueries& q, zub::Value& out, std::string& error) {
                return q.deviceTimeline(app, *mid, limit, out, error);
            };
        } else if (view == "live") {
            const Params p(params, {"app", "after", "limit"});
            const auto app = p.text("app");
            const auto after = p.integer("after", 0, std::numeric_limits<std::int64_t>::max());
            const std::size_t limit = p.limit(50);
            query = [app, after, limit](DashboardQueries& q, zub::Value& out, std::string& error) {
                return q.live(app, after, limit, out, error);
            };
        } else {
            std::string name(view.substr(0, 40));
            return apiError(404, "unknown view \"" + name +
                                     "\" (views: apps, overview, pages, events, audience, devices, device, live)");
        }
    } catch (const BadParameter& bad) {
        return apiError(400, bad.message);
    }

    // One snapshot for the whole answer: every statement sees the same commits.
    std::string error;
    if (!db.exec("BEGIN", error)) return apiError(503, "the database cannot be read now: " + error);
    DashboardQueries queries(db);
    ApiAnswer answer;
    const bool ok = query(queries, answer.body, error);
    std::string ignored;
    db.exec("COMMIT", ignored);
    if (!ok) return apiError(500, "query failed: " + error);
    if (!rangeText.is_null()) answer.body["range"] = std::move(rangeText);
    return answer;
}

}  // namespace zubcollector
