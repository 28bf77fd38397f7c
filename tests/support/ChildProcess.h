// A child process a test talks to line by line: its standard input and output
// are pipes, standard error is inherited or appended to a file. Reads wait on the pipe (poll), never
// sleep. The destructor closes the input, kills the child if it still runs and
// reaps it, so no child outlives a failed test.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zubtest {

class ChildProcess {
public:
    /// Starts argv[0] (looked up in PATH when it has no '/') with this process's
    /// environment, where each "NAME=value" of `environment` replaces or adds one
    /// variable; its standard error is appended to `errorFile` when one is named.
    explicit ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
                          const std::string& errorFile = "");
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    /// Writes `line` and a newline to the child's input.
    bool writeLine(const std::string& line);
    /// The next line of the child's output without its newline (the last one may
    /// have none); std::nullopt at end of output or when nothing complete arrives
    /// within `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void closeInput();
    /// Waits for the child to end: its exit code, or 128 + the signal number.
    int wait();

    /// Runs a command to its end with its input closed and its output dropped
    /// (errors still reach standard error); its exit status as wait() gives it,
    /// or -1 when it cannot be started.
    static int run(const std::vector<std::string>& argv);
    /// Runs a command with its input closed and gives the lines it printed, then
    /// "exit <status>"; reading ends at the end of its output or when no line comes
    /// within `timeout`.
    static std::vector<std::string> outputOf(const std::vector<std::string>& argv,
                                             std::chrono::milliseconds timeout = std::chrono::minutes(5));

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buffer_;
    std::optional<int> status_;
};

/// A loopback TCP port nobody listens on now (bound, then closed): for a server
/// about to start, or for a client that must find nobody there. -1 on failure.
int freeLoopbackPort();

}  // namespace zubtest
