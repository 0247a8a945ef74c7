#pragma once

// The server's answers to one SMTP transaction, read from libcurl's protocol
// trace. libcurl tells only the last reply; which recipients were refused,
// and whether the message itself was sent before a link broke, can only be
// seen by following the dialogue. Replies to the AUTH exchange keep
// nothing of what the client sent there: a server may quote it back, and
// the replies end up in reports.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Osk {
namespace EmailAgents {

struct Reply {
    int code = 0;      // 0: no reply came
    std::string text;  // all lines, without line ends, joined by blanks
};

class Transcript {
public:
    // Forget everything: a new transaction begins.
    void reset();
    // A command line libcurl sent (its protocol trace "header out").
    void sent(const char* data, std::size_t size);
    // Reply lines from the server (its protocol trace "header in").
    void received(const char* data, std::size_t size);

    const Reply& mail() const { return mail_; }
    // One entry per RCPT command, in order: the address and its reply.
    const std::vector<std::pair<std::string, Reply>>& recipients() const { return rcpts_; }
    const Reply& data() const { return data_; }
    // Whether the server invited the message (354), so it may hold it now.
    bool messageSent() const { return data_.code == 354; }
    // The reply to the message itself, after its final dot.
    const Reply& endOfData() const { return endOfData_; }
    // The last complete reply of the dialogue, whatever its command.
    const Reply& last() const { return last_; }

private:
    enum class Stage { Other, Auth, Mail, Rcpt, Data, Body };
    void complete(Reply reply);

    Stage stage_ = Stage::Other;
    std::string partial_;  // an incomplete reply line
    std::string pending_;  // the texts of a multi-line reply so far
    Reply mail_;
    Reply data_;
    Reply endOfData_;
    Reply last_;
    std::vector<std::pair<std::string, Reply>> rcpts_;
    std::vector<std::string> secrets_;  // what the client sent in the AUTH exchange
};

}  // namespace EmailAgents
}  // namespace Osk
