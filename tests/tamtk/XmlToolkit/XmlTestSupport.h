#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "AgentTestSupport.h"
#include "Toolkit/Utf8Array.h"
#include "XmlToolkit/Xml.h"

namespace xmltest {

inline boost::shared_ptr<const Tamxml::Document> parse(const std::string& text) {
    return Tamxml::Document::fromMemory(text.data(), text.size());
}

inline std::string str(const boost::shared_ptr<const Tamtk::Utf8Array>& text) {
    return text ? text->str() : std::string("<null>");
}

using AgentTest::TempDir;
using AgentTest::writeFile;

template <class F>
std::string xmlFailure(const F& f) {
    return AgentTest::messageOf<Tamxml::XmlException>(f);
}

// A loopback listener nothing may connect to: a document or stylesheet naming
// it must not reach out. A connection is counted and closed at once, so a
// client that gets through fails fast instead of waiting for an answer.
class Listener {
public:
    Listener() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        sockaddr* any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_TRUE(!bind(fd_, any, size) && !listen(fd_, 4) && !getsockname(fd_, any, &size));
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            for (pollfd waiting{fd_, POLLIN, 0}; !stop_;) {
                const int client = poll(&waiting, 1, 20) > 0 ? accept(fd_, nullptr, nullptr) : -1;
                connections_ += client >= 0 && close(client) == 0;
            }
        });
    }
    ~Listener() {
        stop_ = true;
        thread_.join();
        close(fd_);
    }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + path;
    }
    int connections() const { return connections_; }

private:
    int fd_;
    int port_;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

}  // namespace xmltest
