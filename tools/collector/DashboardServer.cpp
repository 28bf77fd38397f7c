#include "DashboardServer.h"

#include "DashboardApi.h"
#include "DashboardAssets.h"
#include "IdleConnections.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <chrono>

namespace zubcollector {
namespace {

constexpr const char* kCookie = "zub_dashboard_token";
constexpr std::size_t kMaxIdleConnections = 4;
constexpr const char* kApiPrefix = "/api/v1/";

// The browser may load only what this server sends: the dashboard's own script,
// styles and charts; no inline script, nothing from elsewhere.
constexpr const char* kContentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
    "base-uri 'none'; form-action 'self'; frame-ancestors 'none'";

std::array<unsigned char, 32> sha256(std::string_view text) {
    std::array<unsigned char, 32> digest{};
    unsigned int size = 0;
    EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr);
    return digest;
}

// Equal in time that does not depend on where they differ, nor (the digests
// having one length) on their lengths.
bool sameToken(std::string_view given, std::string_view expected) {
    const auto a = sha256(given);
    const auto b = sha256(expected);
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string cookieValue(const httplib::Request& req, const std::string& name) {
    const std::string header = req.get_header_value("Cookie");
    std::size_t pos = 0;
    while (pos < header.size()) {
        std::size_t end = header.find(';', pos);
        if (end == std::string::npos) end = header.size();
        std::string_view part(header.data() + pos, end - pos);
        while (!part.empty() && part.front() == ' ') part.remove_prefix(1);
        if (part.size() > name.size() && part.substr(0, name.size()) == name && part[name.size()] == '=') {
            return std::string(part.substr(name.size() + 1));
        }
        pos = end + 1;
    }
    return {};
}

void setJson(httplib::Response& res, int status, const zub::Value& body) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(body.dump(-1, ' ', false, zub::Value::error_handler_t::replace), "application/json");
}

void setAsset(httplib::Response& res, const DashboardAsset& asset) {
    res.status = 200;
    res.set_header("Cache-Control", asset.name == "index.html" ? "no-cache" : "max-age=300");
    res.set_content(std::string(asset.bytes), std::string(asset.contentType));
}

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

constexpr const char* kTokenPage = R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width, initial-scale=1">
<title>zub-collector: access token needed</title><link rel="stylesheet" href="/assets/style.css"></head>
<body><main class="notice"><h1>This dashboard needs its access token</h1>
<p>The collector was started with <code>--dashboard-token</code> (or a token file). Open the dashboard as
<code>http://HOST:PORT/?token=YOUR-TOKEN</code>; the browser then keeps the token for this site.</p>
<p>Scripts send it as <code>Authorization: Bearer YOUR-TOKEN</code>.</p></main></body></html>
)";

}  // namespace

bool DashboardServer::isLoopback(const std::string& address) {
    if (address == "localhost") return true;
    in_addr v4{};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (::inet_pton(AF_INET6, address.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return false;
}

DashboardServer::DashboardServer(const DashboardOptions& options, std::string dbPath, const Metrics& metrics,
                                 RequestLog& log)
    : options_(options), dbPath_(std::move(dbPath)), metrics_(metrics), log_(log) {
    server_.new_task_queue = [] { return new httplib::ThreadPool(4); };
    server_.set_socket_options([](socket_t sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_.set_keep_alive_timeout(5);
    server_.set_read_timeout(10);
    server_.set_payload_max_length(64 * 1024);
    server_.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                 {"Referrer-Policy", "no-referrer"},
                                 {"X-Frame-Options", "DENY"},
                                 {"Content-Security-Policy", kContentPolicy}});
    server_.set_exception_handler([this](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
        std::string what = "unknown exception";
        try {
            if (ep) std::rethrow_exception(ep);
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        setJson(res, 500, apiError(500, "internal error").body);
        log_.always("dashboard GET " + req.path + " 500 error=\"" + what + "\"");
    });
    // Every request passes the token check first, but the health check and the
    // built-in files (code and styles, no data: the token page uses the styles).
    server_.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (req.path == "/healthz" || req.path.rfind("/assets/", 0) == 0 || authorised(req)) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        refuse(req, res);
        return httplib::Server::HandlerResponse::Handled;
    });

    server_.Get("/healthz", [](const httplib::Request&, httplib::Response& res) { res.set_content("ok\n", "text/plain"); });
    server_.Get("/", [this](const httplib::Request& req, httplib::Response& res) {
        if (req.has_param("token") && !options_.token.empty()) {
            // The request passed the token check: keep the token in a cookie the
            // scripts cannot read, and take it out of the address bar (and so out of
            // the history).
            res.set_header("Set-Cookie",
                           std::string(kCookie) + "=" + options_.token + "; Path=/; HttpOnly; SameSite=Strict");
            res.set_redirect("/");
            return;
        }
        setAsset(res, *findDashboardAsset("index.html"));
    });
    server_.Get("/assets/([a-z.]+)", [](const httplib::Request& req, httplib::Response& res) {
        const DashboardAsset* asset = findDashboardAsset(req.matches[1].str());
        if (!asset || asset->name == "index.html") {
            res.status = 404;
            res.set_content("no such file\n", "text/plain");
            return;
        }
        setAsset(res, *asset);
    });
    server_.Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(metrics_.render(databaseSize()), "text/plain; version=0.0.4; charset=utf-8");
    });
    server_.Get("/api/v1/(.*)", [this](const httplib::Request& req, httplib::Response& res) { serveApi(req, res); });
    // Anything else, API-looking or not, is answered in JSON.
    server_.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return;
        if (res.status == 404) {
            setJson(res, 404, apiError(404, "no such page: " + req.path.substr(0, 80) + " (the API is under /api/v1/)").body);
        } else {
            setJson(res, res.status, apiError(res.status, "request refused").body);
        }
    });
}

int DashboardServer::bind(std::string& error) {
    const int wanted = options_.port.value_or(0);
    const int port = wanted == 0 ? server_.bind_to_any_port(options_.address)
                                 : (server_.bind_to_port(options_.address, wanted) ? wanted : -1);
    if (port <= 0) {
        error = "dashboard: cannot listen on " + options_.address + ":" + std::to_string(wanted) +
                " (address in use or not available; choose another with --dashboard ADDR:PORT, or --dashboard off)";
    } else {
        boundPort_ = port;
    }
    return port;
}

bool DashboardServer::run() { return server_.listen_after_bind(); }

void DashboardServer::stop() {
    server_.stop();
    wakeIdleConnections(boundPort_.load());
}

bool DashboardServer::authorised(const httplib::Request& req) const {
    if (options_.token.empty()) return true;
    const std::string header = req.get_header_value("Authorization");
    constexpr std::string_view kBearer = "Bearer ";
    if (header.size() > kBearer.size() && std::string_view(header).substr(0, kBearer.size()) == kBearer) {
        return sameToken(std::string_view(header).substr(kBearer.size()), options_.token);
    }
    if (req.has_param("token")) return sameToken(req.get_param_value("token"), options_.token);
    const std::string cookie = cookieValue(req, kCookie);
    return !cookie.empty() && sameToken(cookie, options_.token);
}

void DashboardServer::refuse(const httplib::Request& req, httplib::Response& res) const {
    res.set_header("WWW-Authenticate", "Bearer realm=\"zub-collector\"");
    if (req.path.rfind("/api/", 0) == 0 || req.path == "/metrics") {
        setJson(res, 401,
                apiError(401, "this dashboard needs its access token: send \"Authorization: Bearer TOKEN\"").body);
    } else {
        res.status = 401;
        res.set_content(kTokenPage, "text/html; charset=utf-8");
    }
    log_.write("dashboard GET " + req.path + " 401 (no valid token)");
}

void DashboardServer::serveApi(const httplib::Request& req, httplib::Response& res) {
    const auto started = std::chrono::steady_clock::now();
    const std::string view = req.path.substr(std::string_view(kApiPrefix).size());
    std::string error;
    std::unique_ptr<Database> db = takeConnection(error);
    ApiAnswer answer;
    if (!db) {
        answer = apiError(503, "the database cannot be opened for reading: " + error);
    } else {
        const std::multimap<std::string, std::string> params(req.params.begin(), req.params.end());
        answer = answerApi(*db, view, params, nowSeconds());
        returnConnection(std::move(db));
    }
    setJson(res, answer.status, answer.body);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
    char elapsed[32];
    std::snprintf(elapsed, sizeof elapsed, "%.1fms", ms);
    std::string line = "dashboard GET " + req.path + " " + std::to_string(answer.status) + " " + elapsed;
    if (answer.status >= 400) {
        line += " error=\"" + answer.body["error"]["message"].get<std::string>() + "\"";
        log_.always(line);
    } else {
        log_.write(line);
    }
}

std::optional<std::uint64_t> DashboardServer::databaseSize() {
    if (!Database::isPostgresUrl(dbPath_)) return std::nullopt;  // Metrics reads the file's size itself
    std::string error;
    std::unique_ptr<Database> db = takeConnection(error);
    if (!db) return std::nullopt;
    std::optional<std::uint64_t> size;
    Statement query = db->prepare("SELECT pg_database_size(current_database())", error);
    if (query.ok() && query.step()) size = static_cast<std::uint64_t>(query.integer(0));
    query = Statement();
    returnConnection(std::move(db));
    return size;
}

std::unique_ptr<Database> DashboardServer::takeConnection(std::string& error) {
    {
        std::lock_guard lock(poolMutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Database> db = std::move(idle_.back());
            idle_.pop_back();
            return db;
        }
    }
    return Database::open(dbPath_, Database::Mode::ReadOnly, error);
}

void DashboardServer::returnConnection(std::unique_ptr<Database> db) {
    if (!db->healthy()) return;  // a broken connection is not kept
    std::lock_guard lock(poolMutex_);
    if (idle_.size() < kMaxIdleConnections) idle_.push_back(std::move(db));
}

}  // namespace zubcollector
