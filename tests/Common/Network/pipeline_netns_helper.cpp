// A host application in a network namespace of its own (see support/NetNamespace.h),
// so a test can take the device offline and bring it back with `ip` while the
// whole report pipeline runs. Its clock is a SteppingClock that only "cycle" and
// "advance" move; debug lines are kept. Commands, one a line:
//   serve               -> "serving <base URL>": a wire-speaking server on 127.0.0.1
//                          (bring "lo" up first)
//   start <report URL>  -> "started <waiting>": a registered device starts the
//                          library (strategy 8, smart reporting on) and reports 3
//                          pages; the session event makes the fourth
//   url <report URL>    -> "url set"
//   advance             -> "advanced": the clock moves 61 s (past the resend delay)
//   cycle               -> the clock moves 61 s and one report cycle runs to its end;
//                          "cycle attempted <a> retried <r> waiting <w> retry <n>
//                          unknown-host <h>": events whose last attempt is this
//                          cycle, the sum of their failed-attempt counts, the two
//                          dictionaries' sizes, and how many posts failed as an
//                          unknown host (-1003)
//   track               -> "tracked": one more custom event, filed
//   break-watch         -> "broken" once the reachability watch of the report queue
//                          reads from /dev/null instead of its netlink socket (so its
//                          next wait or read fails), "no watch" when none is found
//   await <text>        -> "seen" once a debug line contains the text, "timeout"
//                          after 60 s
//   count <text>        -> "count <n>": debug lines containing the text
//   arrived             -> "arrived <events the server received> waiting <events
//                          still waiting or retrying>"
#include "Common/ZUBProConfig.h"
#include "Dal/ZUBDeviceIDDal.h"
#include "Dal/ZUBEventDal.h"
#include "Pro/ZUBEventLogic.h"
#include "support/NetNamespace.h"
#include "support/ReportPipeline.h"
#include "support/SteppingClock.h"

#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The library's debug lines, kept for "await" and "count".
class DebugLines {
public:
    DebugLines() {
        ZUBPro::setDebugEnable(true);
        zub::setLogSink([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
            changed_.notify_all();
        });
    }
    bool await(const std::string& text) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return countLocked(text) > 0; });
    }
    std::size_t count(const std::string& text) {
        std::lock_guard lock(mutex_);
        return countLocked(text);
    }

private:
    std::size_t countLocked(const std::string& text) const {
        std::size_t n = 0;
        for (const auto& line : lines_) n += line.find(text) != std::string::npos;
        return n;
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;  // guarded by mutex_
};

std::string midURLFor(const std::string& reportURL) {
    const auto path = reportURL.find("/mstat/report");
    return (path == std::string::npos ? reportURL : reportURL.substr(0, path)) + "/?t=ios&ver=2.0";
}

// The inodes of this namespace's rtnetlink sockets that listen to notice groups:
// /proc/self/net/netlink has "sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode".
std::set<unsigned long> subscribedRouteSockets() {
    std::set<unsigned long> inodes;
    std::ifstream table("/proc/self/net/netlink");
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string sk, groups, rmem, wmem, dump, locks, drops;
        int protocol = -1;
        long pid = 0;
        unsigned long inode = 0;
        if (fields >> sk >> protocol >> pid >> groups >> rmem >> wmem >> dump >> locks >> drops >> inode &&
            protocol == 0 && std::stoul(groups, nullptr, 16) != 0) {
            inodes.insert(inode);
        }
    }
    return inodes;
}

// Points the report queue's watch (the one subscribed rtnetlink socket of this
// process) at /dev/null.
bool breakWatch() {
    const auto inodes = subscribedRouteSockets();
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        const std::string target = std::filesystem::read_symlink(entry.path(), ec).string();
        unsigned long inode = 0;
        if (ec || std::sscanf(target.c_str(), "socket:[%lu]", &inode) != 1 || !inodes.contains(inode)) continue;
        const int fd = std::stoi(entry.path().filename().string());
        const int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (devnull < 0) return false;
        const bool replaced = ::dup3(devnull, fd, O_CLOEXEC) == fd;
        ::close(devnull);
        return replaced;
    }
    return false;
}

std::vector<std::shared_ptr<ZUBProEvent>> storedEvents() {
    ZUBEventDal& store = ZUBEventDal::getInstance();
    std::lock_guard lock(store.eventListLock());
    std::vector<std::shared_ptr<ZUBProEvent>> out;
    for (const auto& [key, event] : store.toReportEvents()) out.push_back(event);
    for (const auto& [key, event] : store.retryEvents()) out.push_back(event);
    return out;
}

}  // namespace

int main() {
    zubtest::SteppingClock clock(1'719'835'200);  // 2024-07-01 12:00 UTC, far from midnight
    ::setenv("TZ", "UTC", 1);
    DebugLines debug;
    std::unique_ptr<zubtest::WireServer> server;
    const int code = zubtest::serveNamespace([&](const std::string& command, const std::string& arg) -> std::string {
        if (command == "serve") {
            server = std::make_unique<zubtest::WireServer>();
            server->start();
            return "serving " + server->url("");
        }
        if (command == "start") {
            zub::setBundleInfo("CFBundleIdentifier", "com.example.netns");
            ZUBDeviceIDDal::getInstance().saveMID("netns-mid");
            ZUBProConfig::getInstance().setReportURL(arg);
            ZUBProConfig::getInstance().setMidURL(midURLFor(arg));
            ZUBPro::startWithAppKey("netns-key");
            for (int i = 0; i < 3; ++i) ZUBPro::trackPage("netns-" + std::to_string(i), 5);
            if (!zubtest::settlePipeline()) return "unsettled";
            return "started " + std::to_string(storedEvents().size());
        }
        if (command == "url") {
            ZUBProConfig::getInstance().setReportURL(arg);
            return "url set";
        }
        if (command == "advance") {
            clock.advanceSeconds(61);
            return "advanced";
        }
        if (command == "cycle") {
            clock.advanceSeconds(61);
            const std::uint64_t now = static_cast<std::uint64_t>(clock.microsSinceEpoch() / 1'000'000);
            ZUBEventLogic::getInstance().reportEvents();
            if (!zubtest::settlePipeline()) return "unsettled";
            std::size_t attempted = 0;
            std::int64_t retried = 0;
            for (const auto& event : storedEvents()) {
                attempted += event->lastReportTs() == now;
                retried += event->retryNum();
            }
            return "cycle attempted " + std::to_string(attempted) + " retried " + std::to_string(retried) + " waiting " +
                   std::to_string(zubtest::waitingKeys().size()) + " retry " + std::to_string(zubtest::retryKeys().size()) +
                   " unknown-host " + std::to_string(debug.count("Code=-1003"));
        }
        if (command == "track") {
            ZUBPro::trackCustomEvent("netns-later");
            return zubtest::settlePipeline() ? "tracked" : "unsettled";
        }
        if (command == "break-watch") return breakWatch() ? "broken" : "no watch";
        if (command == "await") return debug.await(arg) ? "seen" : "timeout";
        if (command == "count") return "count " + std::to_string(debug.count(arg));
        if (command == "arrived") {
            std::set<std::string> received;
            if (server) {
                for (const auto& report : server->reports()) {
                    for (const auto& m5 : zubtest::m5sOf(report.json.value_or(zub::Value()))) received.insert(m5);
                }
            }
            return "arrived " + std::to_string(received.size()) + " waiting " + std::to_string(storedEvents().size());
        }
        return "unknown " + command;
    });
    zub::setLogSink(nullptr);
    return code;
}
