// A real HTTP server on 127.0.0.1 with a free port, run on its own thread for the
// lifetime of the object. Tests register handlers on server() before start().
#pragma once

#include <httplib.h>

#include <string>
#include <thread>

namespace zubtest {

class LoopbackServer {
public:
    /// By default every connection serves one request and closes, so stopping
    /// never waits for an idle kept-alive connection. With keepAlive the server
    /// keeps connections open (idle ones close after one second).
    explicit LoopbackServer(bool keepAlive = false);
    ~LoopbackServer() { stop(); }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    httplib::Server& server() { return server_; }
    /// Binds a free loopback port and starts serving; the socket is listening when
    /// this returns, so clients may connect at once.
    void start();
    void stop();
    int port() const { return port_; }
    std::string url(const std::string& pathAndQuery) const;

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = -1;
};

}  // namespace zubtest
