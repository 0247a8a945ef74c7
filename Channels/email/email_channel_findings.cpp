// What the configuration steps accept without a word, told to a host that
// asks (osk-host --check): definitions that are skipped, placeholders that
// cut a template short or name no token, groups that never send.

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "Channels/email/email_channel.h"
#include "Toolkit/Abi.h"

namespace Osk {

namespace {

std::string _line(const Tamxml::Element& element) {
    return "line " + std::to_string(xmlGetLineNo(element.get()));
}

bool _nameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
           c == ':';
}

// Text in [from, to) that reads like a placeholder ("%hots%") but that the
// token expression does not match, so it goes out as written.
std::vector<std::string> _lookalikes(const char* from, const char* to) {
    std::vector<std::string> found;
    for (const char* at = std::find(from, to, '%'); at != to; at = std::find(at + 1, to, '%')) {
        const char* close = at + 1;
        while (close != to && _nameChar(*close)) {
            ++close;
        }
        if (close > at + 1 && close != to && *close == '%') {
            found.emplace_back(at, close + 1);
            at = close - 1;  // the closing "%" may open the next one
        }
    }
    return found;
}

}  // namespace

void email_channel::find_token_again(const Tamxml::Element& token, const std::string& key) {
    const auto first = token_lines_.insert(std::make_pair(key, _line(token)));
    if (!first.second) {
        report_finding("the token " + key + " is defined again at " + _line(token) + " (first at " +
                       first.first->second + "): the first definition that loads is used");
    }
}

void email_channel::find_token_fault(const Tamxml::Element& token, const std::string& key,
                                     const char* step) {
    if (key.empty()) {
        report_finding("the token at " + _line(token) + " has no name: the channel skips it");
        return;
    }
    std::string why;
    try {
        throw;  // the failure being handled
    } catch (const Tamtk::Exception& e) {
        why = e.what();
    } catch (const std::exception& e) {
        why = e.what();
    } catch (...) {
        why = Tamtk::internal::abi::current_exception();
    }
    report_finding("the token " + key + " (" + _line(token) + ") does not load: " + step + why);
}

void email_channel::find_group_faults(const Tamxml::Element& group,
                                      const Tamxml::ElementArray& events, const event_group& read) {
    const std::string where = _line(group);
    if (events.empty()) {
        report_finding("the event group at " + where +
                       " has no enabled event: it never sends mail");
    }
    for (const auto& event : events) {
        const unsigned long id = event->attr("id")->value_cast<unsigned long>();
        const auto first = event_lines_.insert(std::make_pair(id, where));
        if (!first.second) {
            report_finding("event id " + std::to_string(id) + " is enabled again at " +
                           _line(*event) + ": only the event group at " + first.first->second +
                           " sends mail for it");
        }
    }
    find_template_faults(*read.message, "the message of the event group at " + where);
    if (read.subject) {
        find_template_faults(*read.subject, "the subject of the event group at " + where);
    }
    if (read.thread) {
        find_template_faults(*read.thread, "the thread of the event group at " + where);
    }
}

// Walks the template with the token expression itself, as get_msg does.
void email_channel::find_template_faults(const Tamtk::Utf8Array& text, const std::string& what) {
    const char* const begin = text.data();
    const char* const end = begin + text.length();
    const char* after = begin;
    const auto lookalikes = [&](const char* to) {
        for (const std::string& lookalike : _lookalikes(after, to)) {
            report_finding(what + " has " + lookalike +
                           ", which names no token: it is sent as written");
        }
    };
    for (boost::cregex_iterator it(begin, end, token_expr_), stop; it != stop; ++it) {
        const std::string match((*it)[0].first, (*it)[0].second);
        lookalikes((*it)[0].first);
        if (tokens_.count(match) == 0) {
            report_finding(
                what + " is cut at " + match +
                (unloaded_tokens_.count(match) != 0
                     ? ": that token does not load, so the placeholder and all text after it are "
                       "left out of every mail"
                     : ": the last token's placeholder followed by \"%\" is read as one "
                       "placeholder that names no token, and the text from there on is left out"));
            return;
        }
        after = (*it)[0].second;
    }
    lookalikes(end);
}

}  // namespace Osk
