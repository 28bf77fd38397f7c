#include "support/PostgresServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <poll.h>
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
        const std::string name = entry.path().filename().string();
        const int version = std::atoi(name.c_str());
        if (version > bestVersion && std::filesystem::exists(entry.path() / "bin" / "initdb", ec)) {
            bestVersion = version;
            best = entry.path() / "bin";
        }
    }
    return best;
}

struct Identity {
    bool drop = false;  // running as root: the server's programs run as `nobody`
    uid_t uid = 0;
    gid_t gid = 0;
};

Identity serverIdentity() {
    Identity id;
    if (::geteuid() != 0) return id;
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody) return id;
    id.drop = true;
    id.uid = nobody->pw_uid;
    id.gid = nobody->pw_gid;
    return id;
}

// In a forked child: becomes `id` (when it must), with `out` as stdout and stderr.
void becomeChild(const Identity& id, int out) {
    ::dup2(out, STDOUT_FILENO);
    ::dup2(out, STDERR_FILENO);
    if (id.drop && (::setgroups(0, nullptr) != 0 || ::setgid(id.gid) != 0 || ::setuid(id.uid) != 0)) ::_exit(126);
}

std::vector<char*> argvOf(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return argv;
}

// Runs a program to its end; its exit code (-1 when it could not run) and its output.
int runProgram(std::vector<std::string> args, const Identity& id, std::string& output) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    auto argv = argvOf(args);
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        return -1;
    }
    if (pid == 0) {
        becomeChild(id, pipeFds[1]);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
        if (n > 0) {
            output.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(pipeFds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
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
    const Identity id = serverIdentity();
    std::string templ = "/tmp/zub-pg-XXXXXX";  // reachable by the server's user, unlike the test's HOME
    if (::mkdtemp(templ.data()) == nullptr) {
        error = "cannot make a directory for the server";
        return false;
    }
    dir_ = templ;
    if (id.drop && ::chown(dir_.c_str(), id.uid, id.gid) != 0) {
        error = "cannot give " + dir_.string() + " to the server's user";
        return false;
    }
    std::string output;
    const std::filesystem::path data = dir_ / "data";
    if (runProgram({(bin_ / "initdb").string(), "-D", data.string(), "-U", kUser, "--auth=trust", "--locale=C",
                    "--encoding=UTF8", "--no-sync"},
                   id, output) != 0) {
        error = "initdb failed: " + output;
        return false;
    }
    const std::string logPath = (dir_ / "server.log").string();
    for (int attempt = 0; attempt < 5 && pid_ < 0; ++attempt) {
        port_ = freeLoopbackPort();
        const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (log < 0 || port_ <= 0) {
            error = "cannot open the server's log or find a free port";
            return false;
        }
        if (id.drop && ::fchown(log, id.uid, id.gid) != 0) {
            ::close(log);
            error = "cannot give the server its log";
            return false;
        }
        std::vector<std::string> args{(bin_ / "postgres").string(), "-D", data.string(), "-p", std::to_string(port_),
                                      "-k", dir_.string(), "-c", "listen_addresses=127.0.0.1", "-c", "fsync=off",
                                      "-c", "max_connections=200", "-c", "full_page_writes=off"};
        auto argv = argvOf(args);
        const pid_t parent = ::getpid();
        const pid_t pid = ::fork();
        if (pid == 0) {
            becomeChild(id, log);
            // The server ends with this process, however it ends (after the change
            // of user, which clears the setting).
            ::prctl(PR_SET_PDEATHSIG, SIGQUIT);
            if (::getppid() != parent) ::_exit(1);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(log);
        if (pid < 0) {
            error = "cannot start the server";
            return false;
        }
        // Ready when it answers; a server that exits (its port was taken meanwhile)
        // is tried again on another port.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (;;) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) break;
            std::string ignored;
            if (runProgram({(bin_ / "pg_isready").string(), "-q", "-h", "127.0.0.1", "-p", std::to_string(port_)},
                           Identity{}, ignored) == 0) {
                pid_ = pid;
                break;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid, SIGQUIT);
                ::waitpid(pid, &status, 0);
                error = "the server did not become ready within 60 s";
                return false;
            }
            ::poll(nullptr, 0, 20);  // pg_isready has no wait of its own below one second
        }
    }
    if (pid_ < 0) {
        error = "the server did not start; its log is " + logPath;
        return false;
    }
    return true;
}

PostgresServer::~PostgresServer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGQUIT);  // immediate shutdown: nothing of it is kept
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

std::string PostgresServer::newDatabase(std::string& error) {
    PostgresServer* server = shared(error);
    if (!server) return {};
    const std::string name = "zub_" + std::to_string(++server->databases_);
    std::string output;
    if (runProgram({(server->bin_ / "createdb").string(),
                    "-h", "127.0.0.1", "-p", std::to_string(server->port_), "-U", kUser, name},
                   Identity{}, output) != 0) {
        error = "createdb failed: " + output;
        return {};
    }
    return "postgresql://" + std::string(kUser) + "@127.0.0.1:" + std::to_string(server->port_) + "/" + name;
}

std::optional<std::string> PostgresServer::query(const std::string& url, const std::string& sql, std::string& error) {
    const std::filesystem::path bin = serverBinaries();
    std::string output;
    if (runProgram({(bin / "psql").string(), "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-d", url, "-c", sql},
                   Identity{}, output) != 0) {
        error = "psql failed: " + output;
        return std::nullopt;
    }
    return output;
}

}  // namespace zubtest
