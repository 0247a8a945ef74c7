// Turning one event into a mail and handing it to the agent.

#include <ctime>
#include <exception>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "Channels/email/email_channel.h"
#include "Channels/email/encode.h"
#include "Toolkit/Abi.h"

namespace Osk {

namespace {
const char* const _source = "email_channel";

const Tamxml::Document& _document_of(const ChannelEvent& event) {
    if (!event.document()) {
        throw Tamtk::NullPointerException(Tamtk::ExceptionString("event without a document"),
                                          TAMTK_HERE(_source));
    }
    return *event.document();
}
}  // namespace

void email_channel::do_log(boost::shared_ptr<ChannelEvent> event) {
    // Until the agent has the mail, any failure loses the alert; after, the
    // type of the agent's exception tells (EmailAgent.h), never its text.
    bool handedOver = false;
    const auto count = [&](const std::exception_ptr& failure) {
        if (!handedOver || !EmailChannel::alertKept(failure)) {
            count_lost_alert();
        }
    };
    try {
        if (!event) {
            return;
        }
        boost::shared_ptr<const Tamtk::Utf8Array> message;
        boost::shared_ptr<const Tamtk::Utf8Array> subjectTemplate;
        boost::shared_ptr<const Tamtk::Utf8Array> threadTemplate;
        HeaderMap headers;
        if (!get_event_group_info(event->id(), message, headers, &subjectTemplate,
                                  &threadTemplate)) {
            return;  // not an event of this channel
        }
        std::string rendered;
        get_msg(event, message, rendered);
        const Tamtk::Utf8Array body(std::move(rendered));
        const long now = static_cast<long>(std::time(nullptr));

        std::map<std::string, std::string> values;
        get_extra_header_values(event, headers, values);

        const Tamtk::Utf8Array subject =
            subjectTemplate ? Tamtk::Utf8Array(get_subject(event, subjectTemplate)) : subject_;

        // An event whose key renders empty names no incident: it starts no thread.
        std::string thread;
        if (threadTemplate) {
            const std::string key = get_subject(event, threadTemplate);
            if (!key.empty()) {
                thread = thread_id(key);
                drop_thread_headers(values);
            }
        }

        // The values are not needed afterwards: handed over, not copied.
        const std::string mail =
            EmailChannel::buildEmail(charset_.c_str(), now, sender_name_, sender_, recipients_,
                                     subject, body, std::move(values), thread);
        if (send_email_ == nullptr) {
            throw Tamtk::NullPointerException(Tamtk::ExceptionString("no email agent is bound"),
                                              TAMTK_HERE(_source));
        }
        handedOver = true;
        count_sent_alert();
        send_email_(sender_, recipients_, mail.c_str(), agent_params_);
    } catch (const ConfigException& e) {
        std::ostringstream text;
        text << "Channel config exception: [ " << e << " ]";
        report_error(Tamlog::sev::warning, text.str());
        count(std::current_exception());
    } catch (const Tamtk::Exception& e) {
        std::ostringstream text;
        text << "Tamtk exception:: [ " << e << " ]";
        report_error(Tamlog::sev::warning, text.str());
        count(std::current_exception());
    } catch (...) {
        report_error(Tamlog::sev::warning,
                     "Other exception: [ " + Tamtk::internal::abi::current_exception() + " ]");
        count(std::current_exception());
    }
}

void email_channel::get_msg(boost::shared_ptr<ChannelEvent> event,
                            boost::shared_ptr<const Tamtk::Utf8Array> message, std::string& out) {
    try {
        // The template's text plus room for the values of its placeholders,
        // so that the body is rarely moved while it is built.
        out.reserve(message->length() + 1024);
        // Boost 1.74 crashes iterating an empty expression instead of throwing.
        if (token_expr_.empty()) {
            throw std::invalid_argument("Invalid regular expression object");
        }
        const char* const begin = message->data();
        const char* const end = begin + message->length();
        const char* copied = begin;
        // Fills one placeholder match; false when the match is no token
        // (extra closing "%" or a token that failed to load), which ends the
        // message there.
        const auto fill = [&](const char* matchBegin, const char* matchEnd) {
            TokenMap::const_iterator token = tokens_.find(std::string(matchBegin, matchEnd));
            if (token == tokens_.end()) {
                return false;
            }
            out.append(copied, matchBegin);
            copied = matchEnd;
            if (token->second.third) {
                _document_of(*event);
                // Written straight onto the body; a stylesheet that fails
                // part-way adds nothing to it.
                Tamxml::transform(out, token->second.third, event->document(), "locale", locale_,
                                  stylesheet_limits_);
            } else if (token->second.first) {
                _document_of(*event);
                boost::shared_ptr<const Tamtk::Utf8Array> value =
                    Tamxml::find_first_value(event->document(), *token->second.first);
                if (value) {
                    out.append(value->data(), value->length());
                }
            } else {
                out += token->second.second;
            }
            return true;
        };
        if (token_scan_.usable()) {
            const char* matchBegin;
            const char* matchEnd;
            for (const char* from = begin; token_scan_.find(from, end, matchBegin, matchEnd);
                 from = matchEnd) {
                if (!fill(matchBegin, matchEnd)) {
                    return;
                }
            }
        } else {
            for (boost::cregex_iterator it(begin, end, token_expr_), stop; it != stop; ++it) {
                if (!fill((*it)[0].first, (*it)[0].second)) {
                    return;
                }
            }
        }
        out.append(copied, end);
    } catch (const Tamtk::Exception& e) {
        std::ostringstream text;
        text << "Tamtk exception [" << e << "]";
        report_error(Tamlog::sev::critical, text.str());
    } catch (...) {
        report_error(Tamlog::sev::critical,
                     "Other exception [" + Tamtk::internal::abi::current_exception() + "]");
    }
}

std::string email_channel::get_subject(boost::shared_ptr<ChannelEvent> event,
                                       boost::shared_ptr<const Tamtk::Utf8Array> subject) {
    std::string out;
    get_msg(event, subject, out);
    // Encoded words would keep a line break from adding a header line, but a
    // reader would still show it: a subject is one line, and a template
    // written over several lines of the configuration reads as one.
    for (char& c : out) {
        if (c == '\r' || c == '\n' || c == '\t') {
            c = ' ';
        }
    }
    const std::string::size_type first = out.find_first_not_of(' ');
    if (first == std::string::npos) {
        return std::string();
    }
    return out.substr(first, out.find_last_not_of(' ') - first + 1);
}

void email_channel::get_extra_header_values(boost::shared_ptr<ChannelEvent> event,
                                            HeaderMap& headers,
                                            std::map<std::string, std::string>& values) {
    for (const auto& header : headers) {
        if (header.second.xpath) {
            _document_of(*event);
            boost::shared_ptr<const Tamtk::Utf8Array> value =
                Tamxml::find_first_value(event->document(), *header.second.xpath);
            if (value) {
                values[header.first] = value->str();
                continue;
            }
        }
        if (header.second.default_ && !header.second.default_->empty()) {
            values.insert(std::make_pair(header.first, *header.second.default_));
        }
    }
}

}  // namespace Osk
