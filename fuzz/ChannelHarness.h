#pragma once

// What the charset, assembly, configuration and event-rendering targets
// share. The recording agent they bind is FUZZ_AGENT_PATH.

#include <cstddef>
#include <set>
#include <string>

#include "Channels/email/email_channel.h"
#include "mail_shape.h"  // tests/support

namespace fuzzing {

using testing_support::standardHeaders;

// The common, stateful, multi-byte, exotic and unknown; the last (with a line
// feed) the configuration refuses before any mail is built.
inline const char* const charsets[] = {"UTF-8",           "utf-8",         "ISO-8859-1",
                                       "ISO-8859-15",     "US-ASCII",      "CP1252",
                                       "KOI8-R",          "UTF-16",        "UTF-16LE",
                                       "UTF-32",          "UCS-2",         "UTF-7",
                                       "SHIFT_JIS",       "EUC-JP",        "ISO-2022-JP",
                                       "ISO-2022-KR",     "ISO-2022-CN",   "ISO-2022-CN-EXT",
                                       "GB18030",         "BIG5",          "BIG5-HKSCS",
                                       "EUC-TW",          "TSCII",         "IBM1390",
                                       "UTF-8//TRANSLIT", "ASCII//IGNORE", "",
                                       "NO-SUCH-CHARSET", "x-unknown",     "UTF-8\n"};

// Counts its reports instead of printing them.
struct CountingChannel : Osk::email_channel {
    CountingChannel() {
        set_reporter([this](const Tamlog::severity_mask&, const std::string&) { ++reports; });
    }
    std::size_t reports = 0;
};

// Aborts, showing the mail, when readMail finds its shape wrong.
void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

// Null when the bytes are not well-formed XML.
boost::shared_ptr<const Tamxml::Document> parseOrNull(const char* data, std::size_t size);

// Renders event `id`: do_log returns normally; an event of no group sends and
// reports nothing; one of a group sends one mail or reports why not; a sent
// mail has the shape of checkMail with `expectedExtraHeaders` (when given).
void logAndCheck(CountingChannel& channel, unsigned long id,
                 const boost::shared_ptr<const Tamxml::Document>& event,
                 const std::set<std::string>* expectedExtraHeaders);

}  // namespace fuzzing
