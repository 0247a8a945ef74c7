#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "Toolkit/Utf8Array.h"
#include "XmlToolkit/Xml.h"

namespace xmltest {

inline boost::shared_ptr<const Tamxml::Document> parse(const std::string& text) {
    return Tamxml::Document::fromMemory(text.data(), text.size());
}

inline std::string str(const boost::shared_ptr<const Tamtk::Utf8Array>& text) {
    return text ? text->str() : std::string("<null>");
}

// A fresh directory under the system's temporary directory, removed with
// everything in it when it goes.
class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "xmltoolkit-XXXXXX").string();
        EXPECT_NE(mkdtemp(&pattern[0]), nullptr);
        path_ = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }

    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }

private:
    std::string path_;
};

// The message of the XmlException `f` raises; fails the test when it raises none.
template <class F>
std::string xmlFailure(F f) {
    try {
        f();
    } catch (const Tamxml::XmlException& e) {
        return e.what();
    }
    ADD_FAILURE() << "no Tamxml::XmlException raised";
    return std::string();
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
