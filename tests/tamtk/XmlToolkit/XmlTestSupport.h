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

// A loopback listener that nothing should ever connect to: proves that a
// document or stylesheet naming it did not reach out. Connections are
// counted and closed at once, so a client that does get through fails fast
// instead of waiting for an answer.
class Listener {
public:
    Listener() {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 4), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            while (!stop_) {
                pollfd waiting{fd_, POLLIN, 0};
                if (poll(&waiting, 1, 20) > 0) {
                    const int client = accept(fd_, nullptr, nullptr);
                    if (client >= 0) {
                        ++connections_;
                        close(client);
                    }
                }
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
