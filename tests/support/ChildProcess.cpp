#include "support/ChildProcess.h"

#include <algorithm>
#include <utility>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zubtest {
namespace {

std::vector<char*> argvPointers(const std::vector<std::string>& argv) {
    std::vector<char*> out;
    for (const auto& a : argv) out.push_back(const_cast<char*>(a.c_str()));
    out.push_back(nullptr);
    return out;
}

// This process's environment with the given "NAME=value" entries replacing or
// adding variables.
std::vector<std::string> mergedEnvironment(const std::vector<std::string>& overrides) {
    std::vector<std::string> out;
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const bool replaced = std::any_of(overrides.begin(), overrides.end(),
                                          [&](const std::string& o) { return nameOf(o) == nameOf(entry); });
        if (!replaced) out.push_back(entry);
    }
    out.insert(out.end(), overrides.begin(), overrides.end());
    return out;
}

int decodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return decodeStatus(status);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                           const std::string& errorFile) {
    if (argv.empty()) return;
    int toChild[2], fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0) return;
    if (::pipe2(fromChild, O_CLOEXEC) != 0) {
        ::close(toChild[0]);
        ::close(toChild[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    if (!errorFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    }
    auto args = argvPointers(argv);
    const std::vector<std::string> env = mergedEnvironment(environment);
    auto envp = argvPointers(env);
    pid_t pid = -1;
    const int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(toChild[0]);
    ::close(fromChild[1]);
    if (rc != 0) {
        ::close(toChild[1]);
        ::close(fromChild[0]);
        return;
    }
    pid_ = pid;
    in_ = toChild[1];
    out_ = fromChild[0];
    // A child that dies must not kill the test with SIGPIPE on the next write.
    std::signal(SIGPIPE, SIG_IGN);
}

ChildProcess::~ChildProcess() {
    closeInput();
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        status_ = reap(pid_);
    }
    if (out_ >= 0) ::close(out_);
}

bool ChildProcess::writeLine(const std::string& line) {
    if (in_ < 0) return false;
    const std::string data = line + "\n";
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(in_, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto nl = buffer_.find('\n');
        if (nl != std::string::npos) {
            std::string line = buffer_.substr(0, nl);
            buffer_.erase(0, nl + 1);
            return line;
        }
        if (out_ < 0) {
            if (buffer_.empty()) return std::nullopt;
            return std::exchange(buffer_, {});  // the last line, without a newline
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd p{out_, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[4096];
        const ssize_t n = ::read(out_, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(out_);
            out_ = -1;
            continue;  // hand out what is buffered, if a complete line is there
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

void ChildProcess::closeInput() {
    if (in_ >= 0) {
        ::close(in_);
        in_ = -1;
    }
}

int ChildProcess::wait() {
    if (pid_ <= 0) return -1;
    if (!status_) status_ = reap(pid_);
    return *status_;
}

int ChildProcess::run(const std::vector<std::string>& argv) {
    return std::stoi(outputOf(argv, std::chrono::hours(1)).back().substr(5));  // "exit <status>"
}

std::vector<std::string> ChildProcess::outputOf(const std::vector<std::string>& argv,
                                                std::chrono::milliseconds timeout) {
    ChildProcess child(argv);
    child.closeInput();
    std::vector<std::string> lines;
    while (auto line = child.readLine(timeout)) lines.push_back(*line);
    lines.push_back("exit " + std::to_string(child.wait()));
    return lines;
}

int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

}  // namespace zubtest
