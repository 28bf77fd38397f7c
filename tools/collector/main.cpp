// zub-collector: the reference report and identifier server, and its query commands.
//
// Serving prints one machine-readable line on stdout once the socket is bound:
//   {"event":"listening","address":"127.0.0.1","port":47800,"db":"zub-collector.db"}
// and, after an orderly stop, {"event":"stopped","stored":N}. Per-request log
// lines go to stderr. SIGINT and SIGTERM stop the server: requests in progress
// are answered and committed before the database is closed.
#include "CollectorServer.h"
#include "DashboardServer.h"
#include "Metrics.h"
#include "EventStore.h"
#include "Migrate.h"
#include "OnlineConfig.h"
#include "Options.h"
#include "Queries.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <thread>

#if defined(__SANITIZE_THREAD__)
#define ZUB_COLLECTOR_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZUB_COLLECTOR_TSAN 1
#endif
#endif

#ifdef ZUB_COLLECTOR_TSAN
// ThreadSanitizer cannot follow the synchronisation inside the HTTP library, which
// comes prebuilt without instrumentation, and reports its internal copies between
// worker threads. Reports whose access is made from inside that library are
// therefore set aside; everything the collector's own code does stays checked.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }
#endif

namespace {

using namespace zubcollector;

// Settles the dashboard's access token: read from its file when one is named, and
// required when the dashboard listens beyond loopback. False (and why) when the
// server must not start.
bool settleDashboardToken(DashboardOptions& dashboard, std::string& error) {
    if (!dashboard.enabled) return true;
    if (!dashboard.tokenFile.empty()) {
        std::ifstream file(dashboard.tokenFile);
        std::string line;
        if (!file || !std::getline(file, line)) {
            error = "cannot read the dashboard token from " + dashboard.tokenFile;
            return false;
        }
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (const std::string problem = tokenProblem(line); !problem.empty()) {
            error = "the dashboard token in " + dashboard.tokenFile + " cannot be used: " + problem;
            return false;
        }
        dashboard.token = line;
    }
    if (dashboard.token.empty() && !DashboardServer::isLoopback(dashboard.address)) {
        error = "the dashboard would listen on " + dashboard.address +
                ", beyond loopback, without an access token: give --dashboard-token or --dashboard-token-file";
        return false;
    }
    return true;
}

int serve(ServeOptions options) {
    // Signals are taken by one thread with sigwait, so they never interrupt the
    // others; every thread started below inherits this mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    RequestLog log(options.quiet);
    OnlineConfig config;
    std::string error;
    if (!options.configPath.empty()) {
        auto loaded = OnlineConfig::load(options.configPath, error);
        if (!loaded) {
            std::cerr << "zub-collector: " << error << "\n";
            return 2;
        }
        config = std::move(*loaded);
    }
    if (!settleDashboardToken(options.dashboard, error)) {
        std::cerr << "zub-collector: " << error << "\n";
        return 2;
    }
    Metrics metrics(options.dbPath);
    CollectorServer server(options, config, log, metrics);
    const int port = server.bind(error);
    if (port <= 0) {
        std::cerr << "zub-collector: " << error << "\n";
        return 1;
    }
    std::unique_ptr<DashboardServer> dashboard;
    int dashboardPort = -1;
    if (options.dashboard.enabled) {
        dashboard = std::make_unique<DashboardServer>(options.dashboard, options.dbPath, metrics, log);
        dashboardPort = dashboard->bind(error);
        if (dashboardPort <= 0) {
            std::cerr << "zub-collector: " << error << "\n";
            return 1;
        }
    }
    StoreSettings settings;
    settings.retentionDays = options.retentionDays;
    auto store = EventStore::open(options.dbPath, error, settings);
    if (!store) {
        std::cerr << "zub-collector: " << error << "\n";
        return 1;
    }
    zub::Value ready = zub::Value::object();
    ready["event"] = "listening";
    ready["address"] = options.address;
    ready["port"] = port;
    ready["db"] = Database::displayName(options.dbPath);
    if (dashboard) {
        const std::string& host = options.dashboard.address;
        const bool v6 = host.find(':') != std::string::npos;
        ready["dashboard"] = "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(dashboardPort) + "/";
    }
    std::printf("%s\n", ready.dump(-1, ' ', false, zub::Value::error_handler_t::replace).c_str());
    std::fflush(stdout);
    log.always("zub-collector listening on " + options.address + ":" + std::to_string(port) + ", database " +
               Database::displayName(options.dbPath) + (config.empty() ? "" : ", configuration " + options.configPath) +
               (options.faults.any() ? ", faults on" : "") +
               (dashboard ? ", dashboard on " + options.dashboard.address + ":" + std::to_string(dashboardPort) +
                                (options.dashboard.token.empty() ? "" : " (token required)")
                          : ""));
    std::thread dashboardThread;
    std::atomic<bool> dashboardEnded{false};
    if (dashboard) {
        dashboardThread = std::thread([&] {
            if (!dashboard->run()) log.always("zub-collector: the dashboard stopped serving");
            dashboardEnded = true;
        });
    }

    std::atomic<bool> finished{false};
    std::thread signalThread([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (finished.load()) return;  // woken by main() after serving ended by itself
        log.always(std::string("received ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ", stopping");
        // stop() only acts once the accept loop runs, and must be called once: wait
        // for the loop if the signal came first.
        while (!finished.load()) {
            if (server.running()) {
                server.stop();
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    // The dashboard stops with the report server, whichever way that ends. Its
    // stop() acts only once its loop runs, so wait for that (or for its end).
    auto stopDashboard = [&] {
        if (!dashboard) return;
        while (!dashboardEnded.load()) {
            if (dashboard->running()) {
                dashboard->stop();
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        dashboardThread.join();
    };

    const bool served = server.run(*store);
    finished = true;
    pthread_kill(signalThread.native_handle(), SIGTERM);  // blocked here: only wakes sigwait
    signalThread.join();
    stopDashboard();

    store->close();
    log.always("zub-collector stopped; " + std::to_string(store->storedEvents()) + " events stored this run");
    zub::Value stopped = zub::Value::object();
    stopped["event"] = "stopped";
    stopped["stored"] = store->storedEvents();
    std::printf("%s\n", stopped.dump().c_str());
    std::fflush(stdout);
    return served ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        const CommandLine line = parseCommandLine(args, std::cout, std::cerr);
        switch (line.command) {
            case CommandLine::Command::Exit:
                return line.exitCode;
            case CommandLine::Command::Stats:
                return runStats(line.stats, std::cout, std::cerr);
            case CommandLine::Command::Events:
                return runEvents(line.events, std::cout, std::cerr);
            case CommandLine::Command::Migrate:
                return runMigrate(line.migrate, std::cout, std::cerr);
            case CommandLine::Command::Serve:
                return serve(line.serve);
        }
    } catch (const std::exception& e) {
        std::cerr << "zub-collector: " << e.what() << "\n";
    }
    return 1;
}
