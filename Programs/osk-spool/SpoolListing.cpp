#include "Programs/osk-spool/SpoolListing.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "NetToolkit/HeaderBlock.h"
#include "NetToolkit/Rfc2047Decode.h"
#include "Toolkit/Exception.h"
#include "Toolkit/Printable.h"

namespace Osk {

namespace {

// `text` with every byte that is not UTF-8 replaced by U+FFFD.
std::string _validUtf8(const std::string& text) {
    static const char replacement[] = "\xEF\xBF\xBD";
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        // The length a lead byte announces, and the smallest value that
        // length may carry (longer forms than needed are not UTF-8).
        std::size_t length = 1;
        unsigned long value = c;
        unsigned long least = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2, value = c & 0x1F, least = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3, value = c & 0x0F, least = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4, value = c & 0x07, least = 0x10000;
        } else if (c >= 0x80) {
            length = 0;
        }
        std::size_t n = 1;
        while (n < length && i + n < text.size() &&
               (static_cast<unsigned char>(text[i + n]) & 0xC0) == 0x80) {
            value = (value << 6) | (static_cast<unsigned char>(text[i + n]) & 0x3F);
            ++n;
        }
        const bool valid = length && n == length && value >= least && value <= 0x10FFFF &&
                           !(value >= 0xD800 && value <= 0xDFFF);
        if (valid) {
            out.append(text, i, n);
        } else {
            out += replacement;
        }
        i += n;
    }
    return out;
}

// A field of a listing line: UTF-8, its control characters escaped as
// osk-host escapes them in its reports.
std::string _printable(const std::string& text) {
    return Tamtk::escapeControls(_validUtf8(text));
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
    for (const char c : _validUtf8(text)) {
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
    const Tamnet::HeaderBlock headers(message);
    const Tamnet::HeaderField* subject = headers.find("Subject");
    return subject ? Tamnet::decodeRfc2047(subject->value) : std::string();
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
        out << _printable(e.id) << "  " << (e.failed ? "failed " : "waiting") << "  "
            << _iso8601(e.queued) << "  " << _printable(_join(e.recipients)) << "  "
            << _printable(e.subject);
        if (!e.reason.empty()) {
            out << "  [" << _printable(e.reason) << "]";
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
