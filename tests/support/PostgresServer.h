// A real PostgreSQL server for tests: Debian's binaries (/usr/lib/postgresql/<version>/bin),
// a fresh cluster (a copy of one that initdb made once, kept in /tmp) in a temporary
// directory, listening on a free loopback port with its socket in that directory.
// Run as an unprivileged user ("nobody") when the tests run as root, as the server
// refuses root. Started on first use, once per test process, from the test's main
// thread; stopped and removed when the process ends (and stopped by the kernel if
// the process dies first).
//
//   std::string error;
//   std::string url = zubtest::PostgresServer::newDatabase(error);  // "postgresql://zub@127.0.0.1:PORT/zub_1"
//   ASSERT_FALSE(url.empty()) << error;
//
// Missing binaries are a failure, not a reason to skip: scripts/deps installs them.
#pragma once

#include "support/ChildProcess.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace zubtest {

class PostgresServer {
public:
    /// A new, empty database on this process's server (started if need be): its
    /// URL, or "" and why in `error`.
    static std::string newDatabase(std::string& error);
    /// Runs SQL on the database at `url` with psql; its output (unaligned, tuples
    /// only), or nullopt and why in `error`.
    static std::optional<std::string> query(const std::string& url, const std::string& sql, std::string& error);

    ~PostgresServer();
    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

private:
    PostgresServer() = default;
    static PostgresServer* shared(std::string& error);
    bool start(std::string& error);

    std::filesystem::path bin_;
    std::filesystem::path dir_;
    std::unique_ptr<ChildProcess> server_;
    int port_ = -1;
    int databases_ = 0;
};

}  // namespace zubtest
