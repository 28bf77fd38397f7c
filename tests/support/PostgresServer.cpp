#include "support/PostgresServer.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <vector>

namespace zubtest {
namespace {

constexpr const char* kUser = "zub";  // the cluster's superuser

// The newest installed server's binaries, or "".
std::filesystem::path serverBinaries() {
    std::filesystem::path best;
    int bestVersion = -1;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ec)) {
        const int version = std::atoi(entry.path().filename().c_str());
        if (version > bestVersion && std::filesystem::exists(entry.path() / "bin" / "initdb", ec)) {
            bestVersion = version;
            best = entry.path() / "bin";
        }
    }
    return best;
}

// The start of a command line that runs a server program: as `nobody` when the
// tests run as root, ended by the kernel (SIGQUIT: immediate shutdown) when the
// thread that started it ends.
std::vector<std::string> asServerUser(uid_t& uid, gid_t& gid) {
    std::vector<std::string> prefix{"setpriv", "--pdeathsig", "SIGQUIT"};
    const passwd* nobody = ::geteuid() == 0 ? ::getpwnam("nobody") : nullptr;
    uid = nobody ? nobody->pw_uid : ::geteuid();
    gid = nobody ? nobody->pw_gid : ::getegid();
    if (nobody) {
        prefix.insert(prefix.end(), {"--reuid=" + std::to_string(uid), "--regid=" + std::to_string(gid),
                                     "--clear-groups"});
    }
    prefix.push_back("--");
    return prefix;
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::unique_ptr<PostgresServer>& instance() {
    static std::unique_ptr<PostgresServer> server;
    return server;
}

void stopAtExit() { instance().reset(); }

}  // namespace

PostgresServer* PostgresServer::shared(std::string& error) {
    if (instance()) return instance().get();
    std::unique_ptr<PostgresServer> server(new PostgresServer());
    if (!server->start(error)) return nullptr;
    instance() = std::move(server);
    std::atexit(stopAtExit);
    return instance().get();
}

bool PostgresServer::start(std::string& error) {
    bin_ = serverBinaries();
    if (bin_.empty()) {
        error = "PostgreSQL's server is not installed (no /usr/lib/postgresql/*/bin/initdb); scripts/deps installs it";
        return false;
    }
    uid_t uid = 0;
    gid_t gid = 0;
    const std::vector<std::string> as = asServerUser(uid, gid);
    std::string templ = "/tmp/zub-pg-XXXXXX";  // reachable by the server's user, unlike the test's HOME
    if (::mkdtemp(templ.data()) == nullptr || ::chown(templ.c_str(), uid, gid) != 0) {
        error = "cannot make a directory for the server's user";
        return false;
    }
    dir_ = templ;
    // initdb takes seconds: the first test process keeps its new cluster as a
    // template (renamed into place whole, so never seen half made) and every
    // process starts from a copy of it.
    const std::filesystem::path cached = "/tmp/zub-pg-template-" + bin_.parent_path().filename().string() +
                                         "-c-utf8-trust-" + std::to_string(uid);
    std::error_code ec;
    if (!std::filesystem::exists(cached / "PG_VERSION", ec)) {
        const std::string fresh = (dir_ / "fresh").string();
        if (ChildProcess::run(as + std::vector<std::string>{(bin_ / "initdb").string(), "-D", fresh, "-U", kUser,
                                                            "--auth=trust", "--locale=C", "--encoding=UTF8",
                                                            "--no-sync"}) != 0) {
            error = "initdb failed (its messages are above)";
            return false;
        }
        std::filesystem::rename(fresh, cached, ec);  // fails when another process was first: theirs is as good
    }
    const std::string data = (dir_ / "data").string();
    if (ChildProcess::run(as + std::vector<std::string>{"cp", "-a", cached.string(), data}) != 0) {
        error = "cannot copy the cluster " + cached.string();
        return false;
    }
    // The server's messages go to its log; a server that exits (its port was
    // taken meanwhile) is tried again on another port.
    const std::string log = (dir_ / "server.log").string();
    for (int attempt = 0; attempt < 5 && !server_; ++attempt) {
        port_ = freeLoopbackPort();
        server_ = std::make_unique<ChildProcess>(
            as + std::vector<std::string>{(bin_ / "postgres").string(), "-D", data, "-p", std::to_string(port_), "-k",
                                          dir_.string(), "-c", "listen_addresses=127.0.0.1", "-c", "fsync=off", "-c",
                                          "max_connections=200", "-c", "full_page_writes=off"},
            std::vector<std::string>{}, log);
        // Ready when it answers. It writes nothing to stdout, so reading that waits
        // out the time given, unless the server has ended and closed it.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (ChildProcess::run({(bin_ / "pg_isready").string(), "-q", "-h", "127.0.0.1", "-p",
                                  std::to_string(port_)}) != 0) {
            const auto before = std::chrono::steady_clock::now();
            server_->readLine(std::chrono::milliseconds(20));
            if (std::chrono::steady_clock::now() - before < std::chrono::milliseconds(15) ||
                std::chrono::steady_clock::now() > deadline) {
                server_.reset();
                break;
            }
        }
    }
    if (!server_) error = "the server did not start; its log is " + log;
    return server_ != nullptr;
}

PostgresServer::~PostgresServer() {
    if (server_) {
        ::kill(server_->pid(), SIGQUIT);  // immediate shutdown: nothing of it is kept
        server_->wait();
    }
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

std::string PostgresServer::newDatabase(std::string& error) {
    PostgresServer* server = shared(error);
    if (!server) return {};
    const std::string name = "zub_" + std::to_string(++server->databases_);
    if (ChildProcess::run({(server->bin_ / "createdb").string(), "-h", "127.0.0.1", "-p",
                           std::to_string(server->port_), "-U", kUser, name}) != 0) {
        error = "createdb failed (its messages are above)";
        return {};
    }
    return "postgresql://" + std::string(kUser) + "@127.0.0.1:" + std::to_string(server->port_) + "/" + name;
}

std::optional<std::string> PostgresServer::query(const std::string& url, const std::string& sql, std::string& error) {
    ChildProcess psql({(serverBinaries() / "psql").string(), "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-d",
                       url, "-c", sql});
    std::string output;
    while (auto line = psql.readLine(std::chrono::seconds(60))) output += *line + "\n";
    if (psql.wait() != 0) {
        error = "psql failed (its messages are above)";
        return std::nullopt;
    }
    return output;
}

}  // namespace zubtest
