#include "Agents/digest/Digest.h"

#include <algorithm>
#include <iterator>

#include "Agents/common/AgentException.h"
#include "NetToolkit/Base64.h"
#include "NetToolkit/HeaderBlock.h"
#include "NetToolkit/Rfc2047.h"
#include "NetToolkit/Rfc2047Decode.h"
#include "NetToolkit/Rfc2822Date.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/digest";
const std::size_t _lineBytes = 57;  // of text, for 76 Base64 characters

// The field `name` of `mail` as written, folding kept, with its line feed.
std::string _field(const Tamnet::HeaderBlock& block, const char* name) {
    const Tamnet::HeaderField* field = block.find(name);
    return field ? field->text + '\n' : std::string();
}

std::string _value(const Tamnet::HeaderBlock& block, const char* name) {
    const Tamnet::HeaderField* field = block.find(name);
    return field ? field->value : std::string();
}

void _appendBase64Lines(std::string& out, const std::string& bytes) {
    for (std::size_t pos = 0; pos < bytes.size(); pos += _lineBytes) {
        const char* begin = bytes.data() + pos;
        Tamnet::base64(begin, begin + std::min(_lineBytes, bytes.size() - pos),
                       std::back_inserter(out));
        out += '\n';
    }
}

// Alerts, their time span, one line per alert: its date and subject.
std::string _summary(const std::vector<std::string>& mails) {
    std::string lines;
    std::string first;
    std::string last;
    for (const std::string& mail : mails) {
        const Tamnet::HeaderBlock block(mail);
        last = _value(block, "Date");
        first = &mail == &mails.front() ? last : first;
        std::string subject = Tamnet::decodeRfc2047(_value(block, "Subject"));
        for (char& c : subject) {
            if (c == '\r' || c == '\n') {
                c = ' ';  // one line per alert
            }
        }
        lines += last + "  " + subject + '\n';
    }
    return std::to_string(mails.size()) + " alerts, from " + first + " to " + last + ".\n\n" +
           lines;
}

}  // namespace

std::string buildDigest(const std::vector<std::string>& mails, long time,
                        const std::string& messageId) {
    TAMTK_ASSERT(!mails.empty(), _source);
    // A boundary that no line of any part begins with. Mail built by the
    // channel never holds "=_" at a line start; the check makes it certain.
    std::string boundary = "=_digest_" + messageId.substr(1, messageId.find('@') - 1);
    for (int attempt = 0;; ++attempt) {
        bool clash = false;
        for (const std::string& mail : mails) {
            clash = clash || mail.compare(0, boundary.size() + 2, "--" + boundary) == 0 ||
                    mail.find("\n--" + boundary) != std::string::npos;
        }
        if (!clash) {
            break;
        }
        boundary += "_" + std::to_string(attempt);
    }

    const std::string count = std::to_string(mails.size());
    std::string out;
    std::size_t size = 4096;
    for (const std::string& mail : mails) {
        size += mail.size() + boundary.size() + 64;
    }
    out.reserve(size);
    const Tamnet::HeaderBlock front(mails.front());
    out += _field(front, "To");
    out += _field(front, "From");
    out += "Date: " + Tamnet::rfc2822Date(time) + '\n';
    const std::string subject = "Digest of " + count + " alerts";
    out += "Subject: ";
    Tamnet::appendFoldedRfc2047(out, "UTF-8", subject.data(), subject.size(), Tamnet::B);
    out += "Message-ID: " + messageId + '\n';
    out += "Auto-Submitted: auto-generated\n";
    out += "MIME-Version: 1.0\n";
    out += "Content-Type: multipart/digest; boundary=\"" + boundary + "\"\n\n";
    out += "A digest of " + count + " alerts in MIME format.\n";

    out += "\n--" + boundary + '\n';
    out +=
        "Content-Type: text/plain; charset=\"UTF-8\"\n"
        "Content-Disposition: inline\n"
        "Content-Transfer-Encoding: base64\n\n";
    _appendBase64Lines(out, _summary(mails));
    for (const std::string& mail : mails) {
        // The line feed before a delimiter belongs to the delimiter: the
        // part's content is the mail as it is, its own last line feed too.
        out += "\n--" + boundary + '\n';
        out += "Content-Type: message/rfc822\n\n";
        out += mail;
    }
    out += "\n--" + boundary + "--\n";
    return out;
}

}  // namespace EmailAgents
}  // namespace Osk
