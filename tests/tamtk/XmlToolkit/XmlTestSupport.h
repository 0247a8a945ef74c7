#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

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
// everything in it when the fixture ends.
class TempDir {
  public:
    TempDir() {
        std::string pattern = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") +
                              "/xmltoolkit-XXXXXX";
        const char* made = mkdtemp(&pattern[0]);
        EXPECT_NE(made, nullptr);
        path_ = pattern;
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }

  private:
    std::string path_;
};

inline bool exists(const std::string& path) {
    return std::ifstream(path).good();
}

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

}  // namespace xmltest
