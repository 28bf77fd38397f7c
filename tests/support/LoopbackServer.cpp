#include "support/LoopbackServer.h"

#include <stdexcept>

namespace zubtest {

LoopbackServer::LoopbackServer(bool keepAlive) {
    if (keepAlive) {
        server_.set_keep_alive_timeout(1);
    } else {
        server_.set_keep_alive_max_count(1);
    }
}

void LoopbackServer::start() {
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("could not bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs, so wait for it to start.
    while (!server_.is_running()) std::this_thread::yield();
}

void LoopbackServer::stop() {
    if (thread_.joinable()) {
        server_.stop();
        thread_.join();
    }
}

std::string LoopbackServer::url(const std::string& pathAndQuery) const {
    return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

}  // namespace zubtest
