#include "support/CollectorProcess.h"

#include "support/PostgresServer.h"
#include "support/TempHome.h"

#include "Common/ZUBProHelper.h"

#include <httplib.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

extern char** environ;

namespace zubtest {
namespace {

std::atomic<int> instanceCounter{0};
std::atomic<CollectorProcess::Store> currentStore{CollectorProcess::Store::Sqlite};

// Reads what is available on `fd` into `into` until `until` holds or the time is up.
// Returns false on timeout; `eof` tells whether the writer closed its end.
template <typename Done>
bool readUntil(int fd, std::string& into, std::chrono::milliseconds timeout, bool& eof, Done until) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    eof = false;
    while (!until()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char buffer[4096];
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            eof = true;
            return until();
        }
        into.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
}

std::vector<char*> argvOf(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return argv;
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

}  // namespace

CollectorReply postRaw(int port, const std::string& pathAndQuery, const zub::Data& wire, const std::string& encoding,
                       const std::string& key) {
    CollectorReply reply;
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(30, 0);
    httplib::Headers headers;
    if (!encoding.empty()) headers.emplace("Content-Encoding", encoding);
    const auto result = client.Post(pathAndQuery.c_str(), headers, reinterpret_cast<const char*>(wire.data()),
                                    wire.size(), "json");
    if (!result) {
        reply.error = httplib::to_string(result.error());
        return reply;
    }
    reply.status = result->status;
    zub::Data body(result->body.begin(), result->body.end());
    ZUBProHelper::ChiperRC4(body.data(), body.size(), key);
    zub::Value parsed = zub::Value::parse(body.begin(), body.end(), nullptr, false);
    if (!parsed.is_discarded()) reply.json = std::move(parsed);
    return reply;
}

bool CollectorProcess::available() {
#ifdef ZUB_COLLECTOR_PATH
    return true;
#else
    return false;
#endif
}

std::string CollectorProcess::binaryPath() {
    // Another build of the collector, to time it against the same load.
    if (const char* other = std::getenv("ZUB_COLLECTOR_BINARY"); other && *other) return other;
#ifdef ZUB_COLLECTOR_PATH
    return ZUB_COLLECTOR_PATH;
#else
    return {};
#endif
}

CommandResult CollectorProcess::run(const std::vector<std::string>& args) {
    CommandResult result;
    if (!available()) {
        result.err = "this build has no collector";
        return result;
    }
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) return result;
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    std::vector<std::string> full{binaryPath()};
    full.insert(full.end(), args.begin(), args.end());
    auto argv = argvOf(full);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, full[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (spawned != 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        result.err = "cannot start " + full[0];
        return result;
    }
    // Drain both pipes together so that neither can fill up and stall the child.
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        if (::poll(fds, 2, 120000) <= 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[8192];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& p : fds) {
        if (p.fd >= 0) ::close(p.fd);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = exitCodeOf(status);
    return result;
}

void CollectorProcess::useStore(Store store) { currentStore = store; }

CollectorProcess::Store CollectorProcess::store() { return currentStore; }

std::string storeName(const testing::TestParamInfo<CollectorProcess::Store>& info) {
    return info.param == CollectorProcess::Store::Postgres ? "Postgres" : "Sqlite";
}

void PrintTo(CollectorProcess::Store store, std::ostream* out) {
    *out << (store == CollectorProcess::Store::Postgres ? "Postgres" : "Sqlite");
}

CollectorProcess::CollectorProcess(std::vector<std::string> extraArgs, std::filesystem::path db)
    : extraArgs_(std::move(extraArgs)), db_(std::move(db)) {
    const std::filesystem::path dir =
        TempHome::makeDir("collector-" + std::to_string(::getpid()) + "-" + std::to_string(instanceCounter++));
    if (db_.empty()) {
        if (store() == Store::Postgres) {
            db_ = PostgresServer::newDatabase(failure_);
        } else {
            db_ = dir / "collector.db";
        }
    }
    logPath_ = dir / "collector.log";
}

CollectorProcess::~CollectorProcess() { stop(); }

bool CollectorProcess::start() {
    if (db_.empty()) return false;  // no database could be made: failure() says why
    failure_.clear();
    output_.clear();
    if (!available()) {
        failure_ = "this build has no collector";
        return false;
    }
    if (running()) return true;
    int outPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        failure_ = "pipe failed";
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    std::vector<std::string> args{binaryPath(), "--port", "0", "--db", db_.string()};
    args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
    auto argv = argvOf(args);
    const int spawned = posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    if (spawned != 0) {
        ::close(outPipe[0]);
        pid_ = -1;
        failure_ = "cannot start " + args[0];
        return false;
    }
    stdoutFd_ = outPipe[0];

    bool eof = false;
    const bool gotLine = readUntil(stdoutFd_, output_, std::chrono::seconds(60), eof,
                                   [this] { return output_.find('\n') != std::string::npos; });
    if (gotLine) {
        const zub::Value ready = zub::Value::parse(output_.substr(0, output_.find('\n')), nullptr, false);
        if (ready.is_object() && ready.value("event", "") == "listening" && ready.contains("port") &&
            ready["port"].is_number_integer()) {
            port_ = ready["port"].get<int>();
            return true;
        }
        failure_ = "unexpected first line: " + output_;
    } else {
        failure_ = eof ? "the collector exited before listening" : "the collector did not start within 60 s";
    }
    const int code = stop();
    failure_ += " (exit code " + std::to_string(code) + "); log:\n" + log();
    return false;
}

int CollectorProcess::stop() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    // Keep reading stdout so that the final line is captured and the child never blocks on it.
    bool eof = false;
    readUntil(stdoutFd_, output_, std::chrono::seconds(60), eof, [] { return false; });
    if (!eof) ::kill(pid_, SIGKILL);  // it did not finish within a minute: do not hang the test
    int status = 0;
    pid_t waited;
    while ((waited = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    if (stdoutFd_ >= 0) ::close(stdoutFd_);
    stdoutFd_ = -1;
    pid_ = -1;
    port_ = -1;
    return waited > 0 ? exitCodeOf(status) : -1;
}

void CollectorProcess::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    if (stdoutFd_ >= 0) ::close(stdoutFd_);
    stdoutFd_ = -1;
    pid_ = -1;
    port_ = -1;
}

std::string CollectorProcess::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

std::string CollectorProcess::dashboardUrl(const std::string& pathAndQuery) const {
    const zub::Value ready = zub::Value::parse(output_.substr(0, output_.find('\n')), nullptr, false);
    if (!ready.is_object() || !ready.contains("dashboard") || !ready["dashboard"].is_string()) return {};
    std::string base = ready["dashboard"].get<std::string>();
    if (!base.empty() && base.back() == '/') base.pop_back();
    return base + pathAndQuery;
}

std::string CollectorProcess::log() const {
    std::ifstream in(logPath_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

zub::Value CollectorProcess::storedEvents(const std::vector<std::string>& filters) {
    std::vector<std::string> args{"events", "--db", db_.string(), "--json"};
    args.insert(args.end(), filters.begin(), filters.end());
    const CommandResult result = run(args);
    zub::Value rows = zub::Value::parse(result.out, nullptr, false);
    if (result.exitCode != 0 || !rows.is_array()) {
        failure_ = "events --json failed (" + std::to_string(result.exitCode) + "): " + result.err;
        return zub::Value::array();
    }
    return rows;
}

zub::Value CollectorProcess::stats() {
    const CommandResult result = run({"stats", "--db", db_.string(), "--json"});
    zub::Value stats = zub::Value::parse(result.out, nullptr, false);
    if (result.exitCode != 0 || !stats.is_object()) {
        failure_ = "stats --json failed (" + std::to_string(result.exitCode) + "): " + result.err;
        return nullptr;
    }
    return stats;
}

}  // namespace zubtest
