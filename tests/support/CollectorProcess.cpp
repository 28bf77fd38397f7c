#include "support/CollectorProcess.h"

#include "support/PostgresServer.h"
#include "support/TempHome.h"

#include "Common/Network/ZUBHttp.h"
#include "Common/ZUBProHelper.h"

#include <httplib.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zubtest {
namespace {

std::atomic<int> instanceCounter{0};
std::atomic<CollectorProcess::Store> currentStore{CollectorProcess::Store::Sqlite};

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

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

int retOf(const std::optional<zub::Value>& reply) {
    if (!reply || !reply->is_object() || !reply->contains("ret") || !(*reply)["ret"].is_number_integer()) return -1;
    return (*reply)["ret"].get<int>();
}

int runDemoHost(const std::string& collectorUrl, const std::string& app) {
#ifdef ZUB_DEMO_PATH
    const std::filesystem::path home = TempHome::makeDir("user-" + app);
    for (int launch = 0; launch < 2; ++launch) {
        ChildProcess demo({ZUB_DEMO_PATH, "--collector", collectorUrl, "--app-key", app, "--pause-ms", "0"},
                          {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / ".config").string(),
                           "XDG_DATA_HOME=" + (home / ".local/share").string()});
        while (demo.readLine(std::chrono::seconds(120))) {  // its input stays open: it runs its whole script
        }
        if (const int code = demo.wait(); code != 0) return code;
    }
    return 0;
#else
    (void)collectorUrl, (void)app;
    return -1;
#endif
}

zub::Value keyedBatch(const std::string& app, int client, int batch, int events) {
    zub::Value body = zub::Value::array();
    for (int i = 0; i < events; ++i) {
        body.push_back({{"ky", app}, {"si", 1000 + client}, {"ts", 1700000000 + batch}, {"et", 1000},
                        {"ui", "ui-" + app + "-" + std::to_string(client)}, {"mid", "mid-" + app + "-" + std::to_string(client)},
                        {"idx", batch * events + i}, {"ei", "tap"},
                        {"m5", std::to_string(client) + "-" + std::to_string(batch) + "-" + std::to_string(i)}});
    }
    return body;
}

void expectStoredOnce(const std::map<std::string, int>& stored, const std::vector<int>& batches, int events,
                      bool nothingElse) {
    std::size_t expected = 0;
    for (std::size_t c = 0; c < batches.size(); ++c) {
        expected += static_cast<std::size_t>(batches[c] * events);
        for (int b = 0; b < batches[c]; ++b) {
            for (int i = 0; i < events; ++i) {
                const std::string key = std::to_string(c) + "-" + std::to_string(b) + "-" + std::to_string(i);
                const auto found = stored.find(key);
                EXPECT_EQ(found == stored.end() ? 0 : found->second, 1) << "event " << key;
            }
        }
    }
    EXPECT_TRUE(!nothingElse || stored.size() == expected) << stored.size() << " keys stored, " << expected << " sent";
}

bool CollectorProcess::available() {
#ifdef ZUB_COLLECTOR_PATH
    return true;
#else
    return false;
#endif
}

std::string CollectorProcess::binaryPath() {
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
    // Standard error goes to a file, so that no pipe can fill up and stall the command.
    const std::filesystem::path err =
        TempHome::makeDir("run-" + std::to_string(::getpid()) + "-" + std::to_string(instanceCounter++)) / "err";
    std::vector<std::string> full{binaryPath()};
    full.insert(full.end(), args.begin(), args.end());
    ChildProcess command(full, {}, err.string());
    command.closeInput();
    while (auto line = command.readLine(std::chrono::minutes(5))) result.out += *line + "\n";
    const int code = command.wait();
    result.exitCode = code >= 0 && code < 128 ? code : -1;
    result.err = readFile(err);
    std::error_code ec;
    std::filesystem::remove_all(err.parent_path(), ec);
    return result;
}

void CollectorProcess::useStore(Store store) { currentStore = store; }

std::string storeName(const testing::TestParamInfo<CollectorProcess::Store>& info) {
    return info.param == CollectorProcess::Store::Postgres ? "Postgres" : "Sqlite";
}

void PrintTo(CollectorProcess::Store store, std::ostream* out) { *out << storeName({store, 0}); }

CollectorProcess::CollectorProcess(std::vector<std::string> extraArgs, std::filesystem::path db)
    : extraArgs_(std::move(extraArgs)), db_(std::move(db)) {
    const std::filesystem::path dir =
        TempHome::makeDir("collector-" + std::to_string(::getpid()) + "-" + std::to_string(instanceCounter++));
    if (db_.empty()) db_ = currentStore == Store::Postgres ? PostgresServer::newDatabase(failure_) : (dir / "collector.db").string();
    logPath_ = dir / "collector.log";
}

CollectorProcess::~CollectorProcess() { stop(); }

bool CollectorProcess::start() {
    if (db_.empty()) return false;  // no database could be made: failure() says why
    if (running()) return true;
    failure_.clear();
    output_.clear();
    if (!available()) {
        failure_ = "this build has no collector";
        return false;
    }
    std::vector<std::string> args{binaryPath(), "--port", "0", "--db", db_.string()};
    args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
    child_ = std::make_unique<ChildProcess>(args, std::vector<std::string>{}, logPath_.string());
    const auto line = child_->readLine(std::chrono::seconds(60));
    if (line) {
        output_ = *line + "\n";
        const zub::Value ready = zub::Value::parse(*line, nullptr, false);
        if (ready.is_object() && ready.value("event", "") == "listening" && ready.contains("port") &&
            ready["port"].is_number_integer()) {
            port_ = ready["port"].get<int>();
            return true;
        }
        failure_ = "unexpected first line: " + *line;
    } else {
        failure_ = "the collector did not start (or exited) within 60 s";
    }
    const int code = stop();
    failure_ += " (exit code " + std::to_string(code) + "); log:\n" + log();
    return false;
}

int CollectorProcess::stop() {
    if (!child_) return -1;
    ::kill(child_->pid(), SIGTERM);
    // Keep reading stdout so that the final line is captured and the child never blocks on it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (auto line = child_->readLine(std::chrono::seconds(60))) output_ += *line + "\n";
    if (std::chrono::steady_clock::now() >= deadline) ::kill(child_->pid(), SIGKILL);  // do not hang the test
    const int code = child_->wait();
    child_.reset();
    port_ = -1;
    return code >= 0 && code < 128 ? code : -1;
}

void CollectorProcess::kill() {
    if (!child_) return;
    ::kill(child_->pid(), SIGKILL);
    child_->wait();
    child_.reset();
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

std::string CollectorProcess::log() const { return readFile(logPath_); }

std::optional<zub::Value> CollectorProcess::post(const std::string& pathAndQuery, const zub::Value& body,
                                                 std::int64_t maxSeconds) const {
    const std::string text = body.dump();
    return ZUBHttp::getInstance().httpPost(zub::Data(text.begin(), text.end()), maxSeconds, url(pathAndQuery));
}

zub::Value CollectorProcess::queryJson(const std::string& command, const std::vector<std::string>& more,
                                       zub::Value what) {
    std::vector<std::string> args{command, "--db", db_.string(), "--json"};
    args.insert(args.end(), more.begin(), more.end());
    const CommandResult result = run(args);
    zub::Value parsed = zub::Value::parse(result.out, nullptr, false);
    if (result.exitCode == 0 && parsed.type() == what.type()) return parsed;
    failure_ = command + " --json failed (" + std::to_string(result.exitCode) + "): " + result.err;
    return what.is_array() ? what : zub::Value(nullptr);
}

zub::Value CollectorProcess::storedEvents(const std::vector<std::string>& filters) {
    return queryJson("events", filters, zub::Value::array());
}

std::map<std::string, int> CollectorProcess::storedKeys() {
    std::map<std::string, int> keys;
    for (const auto& row : storedEvents()) ++keys[row["event"].value("m5", "")];
    return keys;
}

zub::Value CollectorProcess::stats(const std::vector<std::string>& more) {
    return queryJson("stats", more, zub::Value::object());
}

}  // namespace zubtest
