#include "CollectorServer.h"

#include "IdleConnections.h"
#include "SystemError.h"

#include "Common/Network/ZUBWireCodec.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>

namespace zubcollector {
namespace {

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

// Log values keep to one line.
std::string oneLine(std::string text) {
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return text;
}

// Answers with `res`'s body and then closes the connection. Used when part of the
// request body stays unread: those bytes must not be taken for a next request.
// The server closes a connection when writing a response fails, so the body is
// written through a provider that reports failure once it has written everything.
void answerAndClose(httplib::Response& res) {
    res.set_header("Connection", "close");
    auto body = std::make_shared<std::string>(std::move(res.body));
    res.body.clear();
    const std::string type = res.get_header_value("Content-Type");
    res.set_content_provider(body->size(), type.empty() ? "application/octet-stream" : type,
                             [body](std::size_t, std::size_t, httplib::DataSink& sink) {
                                 sink.write(body->data(), body->size());
                                 return false;
                             });
}

// Why the address cannot be listened on: binds a socket of our own the way the
// server does and reports the system's reason.
std::string bindFailure(const std::string& address, int port) {
    const std::string where = address + ":" + std::to_string(port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    if (const int rc = ::getaddrinfo(address.c_str(), service.c_str(), &hints, &found); rc != 0) {
        return "cannot listen on " + where + ": " + ::gai_strerror(rc);
    }
    std::string reason = "the address cannot be bound";
    const int fd = ::socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    if (fd < 0) {
        reason = systemErrorText(errno);
    } else {
        int yes = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(fd, found->ai_addr, found->ai_addrlen) != 0) {
            const int error = errno;
            reason = systemErrorText(error);
            if (error == EADDRINUSE) reason += " (is another collector running there?)";
        }
        ::close(fd);
    }
    ::freeaddrinfo(found);
    return "cannot listen on " + where + ": " + reason;
}

}  // namespace

void RequestLog::write(const std::string& line) {
    if (quiet_) return;
    always(line);
}

void RequestLog::always(const std::string& line) {
    const std::string stamped = utcNow() + " " + line + "\n";
    std::lock_guard lock(mutex_);
    std::fwrite(stamped.data(), 1, stamped.size(), stderr);
    std::fflush(stderr);
}

struct CollectorServer::Entry {
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    std::string target;
    std::string encoding;
    std::size_t bytes = 0;
    std::size_t events = 0;
    std::optional<int> ret;
    std::string detail;  // mid handed out, configuration sent, fault taken
    std::string error;
    bool newDevice = false;  // a mid was issued to a device seen for the first time

    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }

    std::string line(int status) const {
        const double ms = seconds() * 1000;
        char elapsed[32];
        std::snprintf(elapsed, sizeof elapsed, "%.1fms", ms);
        std::string text = "POST " + target + " " + std::to_string(status);
        if (!encoding.empty()) text += " enc=" + encoding;
        text += " bytes=" + std::to_string(bytes) + " events=" + std::to_string(events);
        if (ret) text += " ret=" + std::to_string(*ret);
        if (!detail.empty()) text += " " + detail;
        if (!error.empty()) text += " error=\"" + oneLine(error) + "\"";
        return text + " " + elapsed;
    }
};

CollectorServer::CollectorServer(const ServeOptions& options, const OnlineConfig& config, RequestLog& log,
                                 Metrics& metrics)
    : options_(options), config_(config), log_(log), metrics_(metrics), faultsLeft_(options.faults.count) {
    limits_.maxPlainBytes = options.maxPlainBytes;
    const std::size_t threads = options.threads;
    server_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    server_.set_tcp_nodelay(true);
    // The HTTP library's default options add SO_REUSEPORT, with which a second
    // server on a port in use would listen beside the first and take a share of its
    // connections (and events). Only SO_REUSEADDR is kept, so that a restart need
    // not wait for the previous run's connections to time out.
    server_.set_socket_options([](socket_t sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_.set_keep_alive_max_count(1000);
    server_.set_keep_alive_timeout(options.keepAliveSeconds);
    server_.set_read_timeout(10);
    // A client announcing a body over the limit is refused before it sends it.
    server_.set_expect_100_continue_handler([this](const httplib::Request& req, httplib::Response& res) {
        const std::string length = req.get_header_value("Content-Length");
        std::size_t declared = 0;
        const auto [end, ec] = std::from_chars(length.data(), length.data() + length.size(), declared);
        if (!length.empty() && (ec != std::errc() || end != length.data() + length.size() ||
                                declared > options_.maxBodyBytes)) {
            Entry entry;
            entry.target = req.target;
            entry.encoding = req.get_header_value("Content-Encoding");
            replyError(res, entry, kRetTooLarge,
                       "body of " + length + " bytes is over the limit of " + std::to_string(options_.maxBodyBytes));
            res.status = 413;
            answerAndClose(res);
            log_.write(entry.line(res.status));
            metrics_.recordRequest(req.path == "/mstat/report" ? Metrics::Route::Report : Metrics::Route::Mid, 413,
                                   entry.ret, 0, false, entry.seconds());
            return 413;
        }
        return 100;
    });
    server_.set_exception_handler([this](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
        std::string what = "unknown exception";
        try {
            if (ep) std::rethrow_exception(ep);
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        res.status = 500;
        res.set_content("internal error", "text/plain");
        log_.always("POST " + req.target + " 500 error=\"" + oneLine(what) + "\"");
    });
    server_.Post("/mstat/report",
                 [this](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) {
                     handle(Route::Report, req, res, reader);
                 });
    server_.Post("/", [this](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) {
        handle(Route::Mid, req, res, reader);
    });
}

int CollectorServer::bind(std::string& error) {
    const int port = options_.port == 0 ? server_.bind_to_any_port(options_.address)
                                        : (server_.bind_to_port(options_.address, options_.port) ? options_.port : -1);
    if (port <= 0) error = bindFailure(options_.address, options_.port);
    if (port > 0) boundPort_ = port;
    return port;
}

bool CollectorServer::run(EventStore& store) {
    store_ = &store;  // the request threads start inside listen_after_bind(), after this
    return server_.listen_after_bind();
}

void CollectorServer::stop() {
    server_.stop();
    wakeIdleConnections(boundPort_.load());
}

void CollectorServer::handle(Route route, const httplib::Request& req, httplib::Response& res,
                             const httplib::ContentReader& reader) {
    Entry entry;
    entry.target = req.target;
    entry.encoding = req.get_header_value("Content-Encoding");
    try {
        zub::Data body;
        if (entry.encoding != "rc4" && entry.encoding != "rc4,gzip" && !entry.encoding.empty()) {
            // Refused unread: the HTTP layer would otherwise try to undo a "gzip",
            // "deflate" or "br" encoding itself.
            replyError(res, entry, kRetBadWrapping, "unknown Content-Encoding \"" + entry.encoding + "\"");
            answerAndClose(res);
        } else if (readBody(req, reader, body, res, entry)) {
            if (!takeFault(route) || !applyFault(res, entry)) {
                if (route == Route::Report) {
                    handleReport(req, std::move(body), res, entry);
                } else {
                    handleMid(req, std::move(body), res, entry);
                }
            }
        }
    } catch (const std::exception& e) {
        res = httplib::Response{};
        replyError(res, entry, kRetStorage, std::string("internal error: ") + e.what());
        res.status = 500;
    }
    if (!log_.quiet()) log_.write(entry.line(res.status));
    // Events count as stored only when the answer says so ("ret" 0).
    metrics_.recordRequest(route == Route::Report ? Metrics::Route::Report : Metrics::Route::Mid, res.status, entry.ret,
                           entry.ret == kRetOk ? entry.events : 0, entry.newDevice, entry.seconds());
}

bool CollectorServer::readBody(const httplib::Request& req, const httplib::ContentReader& reader, zub::Data& body,
                               httplib::Response& res, Entry& entry) {
    const std::size_t limit = options_.maxBodyBytes;
    auto refuse = [&](const std::string& why) {
        replyError(res, entry, kRetTooLarge, why);
        res.status = 413;
        answerAndClose(res);
        return false;
    };
    const std::string length = req.get_header_value("Content-Length");
    if (!length.empty()) {
        std::size_t declared = 0;
        const auto [end, ec] = std::from_chars(length.data(), length.data() + length.size(), declared);
        if (ec != std::errc() || end != length.data() + length.size() || declared > limit) {
            return refuse("body of " + length + " bytes is over the limit of " + std::to_string(limit));
        }
        body.reserve(declared);
    }
    bool over = false;
    const bool complete = reader([&](const char* data, std::size_t size) {
        if (size > limit - body.size()) {
            over = true;
            return false;
        }
        body.insert(body.end(), reinterpret_cast<const std::uint8_t*>(data),
                    reinterpret_cast<const std::uint8_t*>(data) + size);
        return true;
    });
    entry.bytes = body.size();
    if (over) return refuse("body is over the limit of " + std::to_string(limit) + " bytes");
    if (!complete) {
        replyError(res, entry, kRetBadWrapping, "the body could not be read");
        res.status = 400;
        answerAndClose(res);
        return false;
    }
    return true;
}

bool CollectorServer::takeFault(Route route) {
    const FaultOptions& faults = options_.faults;
    if (!faults.any()) return false;
    if ((faults.scope == FaultOptions::Scope::Report && route != Route::Report) ||
        (faults.scope == FaultOptions::Scope::Mid && route != Route::Mid)) {
        return false;
    }
    if (faults.count < 0) return true;
    std::int64_t left = faultsLeft_.load();
    while (left > 0 && !faultsLeft_.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

bool CollectorServer::applyFault(httplib::Response& res, Entry& entry) {
    const FaultOptions& faults = options_.faults;
    if (faults.delayMs > 0) {
        // A slow server on purpose: the request thread waits, the others go on.
        std::this_thread::sleep_for(std::chrono::milliseconds(faults.delayMs));
        entry.detail = "fault=delay" + std::to_string(faults.delayMs) + "ms";
    }
    if (faults.drop) {
        // The status line and headers go out, then the connection is cut before the
        // promised body: the client sees the exchange fail.
        res.set_content_provider(
            1024, "application/octet-stream", [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
        entry.detail = "fault=drop";
        return true;
    }
    if (faults.status) {
        res.status = *faults.status;
        res.set_content("fault injected: status " + std::to_string(*faults.status), "text/plain");
        entry.detail = "fault=status";
        return true;
    }
    if (faults.ret) {
        zub::Value answer = zub::Value::object();
        answer["ret"] = *faults.ret;
        reply(res, answer);
        entry.ret = *faults.ret;
        entry.detail = "fault=ret";
        return true;
    }
    return false;  // only a delay: handle the request as usual
}

void CollectorServer::handleReport(const httplib::Request& req, zub::Data body, httplib::Response& res,
                                   Entry& entry) {
    ReportBatch batch = decodeReport(std::move(body), req.get_header_value("Content-Encoding"), options_.key, limits_);
    if (batch.error) {
        replyError(res, entry, batch.error->ret, batch.error->message);
        return;
    }
    entry.events = batch.events.size();
    zub::Value answer = zub::Value::object();
    answer["ret"] = kRetOk;
    if (!batch.events.empty()) {
        const StoreOutcome outcome = store_->storeBatch(batch.events, config_.sdkVersion(), config_.appVersion());
        if (!outcome.ok) {
            replyError(res, entry, kRetStorage, outcome.error);
            return;
        }
        zub::Value cfg = config_.wireValue(outcome.sendSdk, outcome.sendApp);
        if (!cfg.is_null()) {
            entry.detail = std::string("cfg=") + (outcome.sendSdk ? "1" : "") +
                           (outcome.sendSdk && outcome.sendApp ? "," : "") + (outcome.sendApp ? "2" : "");
            answer["cfg"] = std::move(cfg);
        }
    }
    entry.ret = kRetOk;
    reply(res, answer);
}

void CollectorServer::handleMid(const httplib::Request& req, zub::Data body, httplib::Response& res, Entry& entry) {
    const MidRequest request =
        decodeMidRequest(std::move(body), req.get_header_value("Content-Encoding"), options_.key, limits_);
    if (request.error) {
        replyError(res, entry, request.error->ret, request.error->message);
        return;
    }
    const MidOutcome outcome = store_->registerDevice(request);
    if (!outcome.ok) {
        replyError(res, entry, kRetStorage, outcome.error);
        return;
    }
    zub::Value answer = zub::Value::object();
    answer["ret"] = kRetOk;
    answer["mid"] = outcome.mid;
    entry.ret = kRetOk;
    entry.detail = "mid=" + outcome.mid + (outcome.created ? " new" : "");
    entry.newDevice = outcome.created;
    reply(res, answer);
}

void CollectorServer::reply(httplib::Response& res, const zub::Value& value) {
    // Messages may quote bytes of a broken body: never let them make the reply unwritable.
    const zub::Data wire = zub::WireCodec::wrapReplyText(
        value.dump(-1, ' ', false, zub::Value::error_handler_t::replace), options_.key);
    res.status = 200;
    res.set_content(std::string(wire.begin(), wire.end()), "application/octet-stream");
}

void CollectorServer::replyError(httplib::Response& res, Entry& entry, int ret, const std::string& message) {
    zub::Value answer = zub::Value::object();
    answer["ret"] = ret;
    answer["msg"] = message;
    reply(res, answer);
    entry.ret = ret;
    entry.error = message;
}

}  // namespace zubcollector
