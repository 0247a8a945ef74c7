#pragma once

// What the charset, assembly, configuration and event-rendering targets
// share: the charsets they try, a channel that counts its reports instead of
// printing them, the recording agent they bind, and the mail shape every
// built mail must have.

#include <cstddef>
#include <set>
#include <string>

#include "Channels/email/email_channel.h"
#include "mail_shape.h"  // tests/support

namespace fuzzing {

using testing_support::standardHeaders;

// The common, the stateful, the multi-byte, the exotic and the unknown; the
// last holds a line feed, a name the configuration refuses before any mail
// is built.
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

struct CountingChannel : Osk::email_channel {
    CountingChannel();
    std::size_t reports = 0;
};

// The recording email agent, a module built beside the fuzz targets.
const char* agentPath();

// Aborts, showing the mail, when it does not have the shape readMail
// states (tests/support/mail_shape.h), `expectedHeaders` among it.
void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

// A configuration or event document from fuzz bytes; null when they are
// not well-formed XML.
boost::shared_ptr<const Tamxml::Document> parseOrNull(const char* data, std::size_t size);

// Renders `event` and checks what came of it: do_log returns normally; an
// event of no group sends nothing and reports nothing; an event of a group
// sends exactly one mail or reports why not (nothing is lost silently); a
// sent mail has the shape of checkMail, with `expectedExtraHeaders` as its
// extra headers (not checked when null).
void logAndCheck(CountingChannel& channel, const boost::shared_ptr<Osk::ChannelEvent>& event,
                 const std::set<std::string>* expectedExtraHeaders);

}  // namespace fuzzing
