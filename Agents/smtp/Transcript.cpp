#include "Agents/smtp/Transcript.h"

#include <algorithm>
#include <cstring>

namespace Osk {
namespace EmailAgents {

namespace {

bool _startsWith(const std::string& text, const char* prefix) {
    const std::size_t n = std::strlen(prefix);
    if (text.size() < n) {
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        char c = text[i];
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
        if (c != prefix[i]) {
            return false;
        }
    }
    return true;
}

std::string _stripLineEnd(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

bool _isCode(const std::string& line) {
    return line.size() >= 3 && line[0] >= '1' && line[0] <= '5' && line[1] >= '0' &&
           line[1] <= '9' && line[2] >= '0' && line[2] <= '9';
}

// A word that may be an encoded credential: long, of the Base64 alphabet
// only, and with a character that words of prose lack.
bool _looksEncoded(const std::string& word) {
    bool unusual = false;
    for (char c : word) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool other = (c >= '0' && c <= '9') || c == '+' || c == '/' || c == '=';
        if (!letter && !other) {
            return false;
        }
        unusual = unusual || other;
    }
    return word.size() >= 16 && unusual;
}

// `text` without the secrets and without anything that looks like one.
std::string _scrub(const std::string& text, const std::vector<std::string>& secrets) {
    std::string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t end = std::min(text.find(' ', pos), text.size());
        std::string word = text.substr(pos, end - pos);
        for (const std::string& secret : secrets) {
            std::size_t at;
            while (!secret.empty() && (at = word.find(secret)) != std::string::npos) {
                word.replace(at, secret.size(), "***");
            }
        }
        out += (pos ? " " : "") + (_looksEncoded(word) ? "***" : word);
        pos = end + 1;
    }
    return out;
}

}  // namespace

void Transcript::reset() {
    *this = Transcript();
}

void Transcript::sent(const char* data, std::size_t size) {
    // Only the command verb and a recipient's address are kept: other lines
    // may be credentials (AUTH and its answers).
    const std::string line = _stripLineEnd(std::string(data, size));
    if (_startsWith(line, "AUTH ")) {
        stage_ = Stage::Auth;
        const std::size_t mechanismEnd = line.find(' ', 5);
        if (mechanismEnd != std::string::npos) {
            secrets_.push_back(line.substr(mechanismEnd + 1));  // the initial response
        }
    } else if (stage_ == Stage::Auth && last_.code == 334) {
        secrets_.push_back(line);  // the answer to a challenge
    } else if (_startsWith(line, "MAIL FROM:")) {
        stage_ = Stage::Mail;
    } else if (_startsWith(line, "RCPT TO:")) {
        stage_ = Stage::Rcpt;
        std::string address = line.substr(8);
        const std::size_t open = address.find('<');
        const std::size_t close = address.rfind('>');
        if (open != std::string::npos && close != std::string::npos && close > open) {
            address = address.substr(open + 1, close - open - 1);
        }
        rcpts_.emplace_back(address, Reply());
    } else if (_startsWith(line, "DATA")) {
        stage_ = Stage::Data;
    } else {
        stage_ = Stage::Other;
    }
    partial_.clear();
    pending_.clear();
}

void Transcript::received(const char* data, std::size_t size) {
    partial_.append(data, size);
    std::size_t eol;
    while ((eol = partial_.find('\n')) != std::string::npos) {
        const std::string line = _stripLineEnd(partial_.substr(0, eol));
        partial_.erase(0, eol + 1);
        if (!_isCode(line)) {
            continue;
        }
        const std::string piece = line.size() > 4 ? line.substr(4) : std::string();
        if (!piece.empty()) {
            if (!pending_.empty()) {
                pending_ += ' ';
            }
            pending_ += piece;
        }
        // "250-..." continues the reply, "250 ..." (or a bare code) ends it.
        if (line.size() == 3 || line[3] != '-') {
            Reply reply;
            reply.code = std::stoi(line.substr(0, 3));
            reply.text = line.substr(0, 3) + (pending_.empty() ? "" : " " + pending_);
            pending_.clear();
            complete(reply);
        }
    }
}

void Transcript::complete(Reply reply) {
    if (stage_ == Stage::Auth) {
        reply.text = _scrub(reply.text, secrets_);
        last_ = reply;
        return;  // the exchange goes on until a command of another kind
    }
    last_ = reply;
    switch (stage_) {
        case Stage::Mail:
            mail_ = reply;
            break;
        case Stage::Rcpt:
            if (!rcpts_.empty()) {
                rcpts_.back().second = reply;
            }
            break;
        case Stage::Data:
            data_ = reply;
            if (reply.code == 354) {
                stage_ = Stage::Body;
                return;
            }
            break;
        case Stage::Body:
            endOfData_ = reply;
            break;
        case Stage::Auth:
        case Stage::Other:
            break;
    }
    stage_ = Stage::Other;
}

}  // namespace EmailAgents
}  // namespace Osk
