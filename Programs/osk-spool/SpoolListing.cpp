#include "Programs/osk-spool/SpoolListing.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "Programs/osk-spool/EncodedWords.h"
#include "Toolkit/Exception.h"

namespace Osk {

namespace {

bool _isSubject(const std::string& line) {
    static const char name[] = "subject:";
    if (line.size() < sizeof name - 1) {
        return false;
    }
    for (std::size_t i = 0; i < sizeof name - 1; ++i) {
        if (std::tolower(static_cast<unsigned char>(line[i])) != name[i]) {
            return false;
        }
    }
    return true;
}

SpoolEntry _entry(const EmailAgents::Spool& spool, const std::string& id, bool failed) {
    SpoolEntry entry;
    entry.id = id;
    entry.failed = failed;
    EmailAgents::SpooledMessage message;
    try {
        if (!(failed ? spool.loadFailed(id, message, entry.reason) : spool.load(id, message))) {
            entry.id.clear();  // delivered or moved while we looked
            return entry;
        }
    } catch (const Tamtk::Exception&) {
        // The agent moves such files to failed/ as they are; show when they came.
        struct stat st;
        const std::string path = spool.folder(failed ? EmailAgents::SpoolState::Failed
                                                     : EmailAgents::SpoolState::Waiting) +
                                 "/" + id;
        entry.queued = lstat(path.c_str(), &st) == 0 ? st.st_mtime : 0;
        entry.reason = "the file has no valid envelope";
        return entry;
    }
    entry.queued = message.queued;
    entry.recipients = message.to;
    entry.subject = messageSubject(message.message);
    return entry;
}

std::string _iso8601(std::time_t when) {
    std::tm tm{};
    gmtime_r(&when, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

std::string _join(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& item : items) {
        out += (out.empty() ? "" : ",") + item;
    }
    return out;
}

void _jsonString(std::ostream& out, const std::string& text) {
    static const char hex[] = "0123456789abcdef";
    out << '"';
    for (const char c : validUtf8(text)) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out << '\\' << c;
        } else if (c == '\n') {
            out << "\\n";
        } else if (u < 0x20 || u == 0x7F) {
            out << "\\u00" << hex[u >> 4] << hex[u & 0xF];
        } else {
            out << c;
        }
    }
    out << '"';
}

}  // namespace

std::string messageSubject(const std::string& message) {
    std::string subject;
    bool inSubject = false;
    std::size_t pos = 0;
    while (pos < message.size()) {
        std::size_t eol = message.find('\n', pos);
        if (eol == std::string::npos) {
            eol = message.size();
        }
        std::string line = message.substr(pos, eol - pos);
        pos = eol + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            break;  // the end of the headers
        }
        if (line[0] == ' ' || line[0] == '\t') {
            if (inSubject) {
                subject += line;  // unfolding keeps the blank that began the line
            }
            continue;
        }
        if (inSubject) {
            break;
        }
        if (_isSubject(line)) {
            inSubject = true;
            subject = line.substr(line.find(':') + 1);
        }
    }
    const std::size_t first = subject.find_first_not_of(" \t");
    return first == std::string::npos ? "" : decodeEncodedWords(subject.substr(first));
}

std::vector<SpoolEntry> readSpool(const EmailAgents::Spool& spool) {
    std::vector<SpoolEntry> entries;
    for (const bool failed : {false, true}) {
        for (const std::string& id : failed ? spool.failed() : spool.pending()) {
            SpoolEntry entry = _entry(spool, id, failed);
            if (!entry.id.empty()) {
                entries.push_back(std::move(entry));
            }
        }
    }
    std::stable_sort(entries.begin(), entries.end(), [](const SpoolEntry& a, const SpoolEntry& b) {
        return a.queued != b.queued ? a.queued < b.queued : a.id < b.id;
    });
    return entries;
}

void printText(std::ostream& out, const std::vector<SpoolEntry>& entries) {
    std::size_t failed = 0;
    for (const SpoolEntry& e : entries) {
        out << e.id << "  " << (e.failed ? "failed " : "waiting") << "  " << _iso8601(e.queued)
            << "  " << printableUtf8(_join(e.recipients)) << "  " << printableUtf8(e.subject);
        if (!e.reason.empty()) {
            out << "  [" << printableUtf8(e.reason) << "]";
        }
        out << '\n';
        failed += e.failed ? 1 : 0;
    }
    out << entries.size() << (entries.size() == 1 ? " mail: " : " mails: ")
        << entries.size() - failed << " waiting, " << failed << " failed\n";
}

void printJson(std::ostream& out, const std::vector<SpoolEntry>& entries) {
    out << '[';
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const SpoolEntry& e = entries[i];
        out << (i ? ",\n " : "\n ") << "{\"id\": ";
        _jsonString(out, e.id);
        out << ", \"state\": \"" << (e.failed ? "failed" : "waiting") << "\", \"queued\": \""
            << _iso8601(e.queued) << "\", \"recipients\": [";
        for (std::size_t r = 0; r < e.recipients.size(); ++r) {
            out << (r ? ", " : "");
            _jsonString(out, e.recipients[r]);
        }
        out << "], \"subject\": ";
        _jsonString(out, e.subject);
        out << ", \"reason\": ";
        if (e.reason.empty()) {
            out << "null";
        } else {
            _jsonString(out, e.reason);
        }
        out << '}';
    }
    out << (entries.empty() ? "]\n" : "\n]\n");
}

}  // namespace Osk
