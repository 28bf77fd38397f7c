// A helper program that runs in a network namespace of its own (it calls
// unshare() at its start), so a test can change links and routes with `ip`,
// entered into that namespace with nsenter, without touching the machine's real
// network. The namespace has no name and ends with the helper, also when a test
// fails half-way. Such tests need root; without it the helper says why.
//
//   zubtest::NetNamespace ns("reachability_netns_helper");
//   if (!ns.problem().empty()) GTEST_SKIP() << ns.problem();
//   ASSERT_EQ(ns.ip("link set lo up"), 0);
//   EXPECT_EQ(ns.ask("status"), "status 0 ...");
//
// The helper's side of the protocol is serveNamespace below: "ready" once inside
// the namespace (or "skip <reason>" and exit 77), then one line per command line,
// and exit 0 on "quit".
#pragma once

#include "support/ChildProcess.h"

#include <functional>
#include <string>
#include <vector>

namespace zubtest {

class NetNamespace {
public:
    /// Starts the helper program `name` (built next to the tests).
    explicit NetNamespace(const std::string& name);
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    /// "" when the namespace is there, else why not.
    std::string problem() const;
    /// Runs `ip` with the blank-separated `args` inside the namespace; its exit code.
    int ip(const std::string& args);
    /// Sends a command and returns the helper's next line.
    std::string ask(const std::string& command);
    /// The helper's next line (for lines it prints unasked).
    std::string next();
    /// Sends "quit" and returns everything the helper still prints until it exits.
    std::vector<std::string> finish();
    int exitCode() const { return exitCode_; }

    /// A veth pair zv0/zv1, both up, once zv0 has its carrier (waited for through
    /// the helper, on the kernel's notices).
    bool addLink();

private:
    ChildProcess child_;
    std::string first_;
    int exitCode_ = -1;
};

/// For helpers: prints a line and flushes; safe from any thread.
void say(const std::string& line);

/// For helpers, their whole main: moves this process into a network namespace of
/// its own and prints "ready" (or "skip <reason>" and returns 77), then answers
/// each command line "<command> <arg>" with the line `answer` returns (none when
/// it returns ""), until "quit" or the end of input; returns 0. It answers
/// "carrier <if> <0|1>" itself, once the kernel's link notices show the carrier
/// (IFF_RUNNING) as asked ("timeout" after 10 s): the kernel reports carrier
/// changes a little later than the command that caused them.
int serveNamespace(const std::function<std::string(const std::string& command, const std::string& arg)>& answer);

}  // namespace zubtest
