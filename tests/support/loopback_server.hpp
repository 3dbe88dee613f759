#pragma once
// A plain-HTTP server on 127.0.0.1 at a free port, for code that makes requests. Routes are set
// up before the server starts, so handlers never race with registration. The build compiles
// this header with the library's own options (its pkg-config entry), so the two agree.

#include <httplib.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace kestrel::test_support {

class LoopbackServer {
  public:
    explicit LoopbackServer(const std::function<void(httplib::Server&)>& routes) {
        routes(server_);
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) {
            throw std::runtime_error("cannot bind a loopback port");
        }
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // stop() does nothing until the accept loop runs, and the destructor relies on it.
        while (!server_.is_running()) {
            std::this_thread::yield();
        }
    }
    ~LoopbackServer() {
        server_.stop();
        thread_.join();
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const { return port_; }

    // "http://127.0.0.1:<port>" followed by `pathAndQuery`.
    std::string url(std::string_view pathAndQuery) const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(pathAndQuery);
    }

  private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

}  // namespace kestrel::test_support
