#pragma once

#include <boost/optional.hpp>
#include <boost/regex.hpp>
#include <boost/shared_ptr.hpp>
#include <exception>
#include <map>
#include <set>
#include <string>

#include "Channels/email/token_scan.h"
#include "NetToolkit/EmailAddr.h"
#include "Osk/Channel.h"
#include "Osk/EmailAgent.h"
#include "Toolkit/Triple.h"
#include "Toolkit/Utf8Array.h"
#include "XmlToolkit/Xml.h"

namespace Osk {

// The email alerting channel: renders each event of an enabled group into a
// MIME mail and hands it to the bound email agent.
class email_channel : public Channel {
public:
    // One extra mail header: where its value comes from in the event, and
    // the text used when that yields nothing.
    struct extra_headers {
        boost::optional<Tamxml::XPath> xpath;
        boost::optional<std::string> default_;
    };
    typedef std::map<std::string, extra_headers> HeaderMap;

    struct event_group {
        boost::shared_ptr<const Tamtk::Utf8Array> message;
        // A template like the message's; null: the channel's default subject.
        boost::shared_ptr<const Tamtk::Utf8Array> subject;
        // A template like the subject's naming the incident an alert belongs
        // to; mails of one rendered text form one thread. Null: no thread.
        boost::shared_ptr<const Tamtk::Utf8Array> thread;
        HeaderMap extra_headers;
    };

    // How a placeholder is filled: XPath over the event, a constant, or a stylesheet.
    typedef Tamtk::triple<boost::optional<Tamxml::XPath>, std::string,
                          boost::shared_ptr<Tamxml::Xslt>>
        Token;
    typedef std::map<std::string, Token> TokenMap;
    typedef std::map<unsigned long, event_group> GroupMap;

    email_channel();
    ~email_channel() override;

    bool do_configure(const ChannelCfg& cfg) override;
    void do_log(boost::shared_ptr<ChannelEvent> event) override;
    void do_flush() override;
    void do_shutdown() override;

    // Configuration steps, in the order do_configure runs them.
    void load_defaults(boost::shared_ptr<const Tamxml::Element> defaults);
    void get_charset(boost::shared_ptr<const Tamxml::Element> defaults);
    // The optional Limits element: how long one stylesheet run may take and
    // how much it may write. Refuses values it cannot use.
    void get_limits(boost::shared_ptr<const Tamxml::Element> defaults);
    void populate_extra_headers(boost::shared_ptr<const Tamxml::Element> context, const char* path,
                                HeaderMap& headers);
    void merge_extra_headers(HeaderMap& group, const HeaderMap& defaults);
    bool get_tokens(boost::shared_ptr<const Tamxml::Element> defaults);
    void get_event_group(const ChannelCfg& cfg, const HeaderMap& defaults);
    void load_email_agent(const ChannelCfg& cfg);

    // Findings (Channel::report_finding) of the steps above, made only when
    // the host asks for them. find_token_fault runs inside the handler of
    // the failure that skipped the token; `step` names what failed.
    void find_token_again(const Tamxml::Element& token, const std::string& key);
    void find_token_fault(const Tamxml::Element& token, const std::string& key, const char* step);
    void find_group_faults(const Tamxml::Element& group, const Tamxml::ElementArray& events,
                           const event_group& read);
    void find_template_faults(const Tamtk::Utf8Array& text, const std::string& what);

    // Delivery steps.
    bool get_event_group_info(unsigned long id, boost::shared_ptr<const Tamtk::Utf8Array>& message,
                              HeaderMap& headers,
                              boost::shared_ptr<const Tamtk::Utf8Array>* subject = nullptr,
                              boost::shared_ptr<const Tamtk::Utf8Array>* thread = nullptr);
    void get_msg(boost::shared_ptr<ChannelEvent> event,
                 boost::shared_ptr<const Tamtk::Utf8Array> message, std::string& out);
    // The group's subject template rendered like a message, as one line.
    std::string get_subject(boost::shared_ptr<ChannelEvent> event,
                            boost::shared_ptr<const Tamtk::Utf8Array> subject);
    void get_extra_header_values(boost::shared_ptr<ChannelEvent> event, HeaderMap& headers,
                                 std::map<std::string, std::string>& values);

    // The Message-ID every mail of incident `key` follows up: a hash of the
    // key, so the same in every run and on every host, at the sender's domain.
    std::string thread_id(const std::string& key) const;
    // Removes extra headers that would name a second thread beside it.
    static void drop_thread_headers(std::map<std::string, std::string>& values);

    // One mail of `subject` and `body`, built as every alert is (sender,
    // charset, encoding), sent to `to` (the configured recipients when
    // empty) and waited for: an agent's `queue` parameter is turned to "no",
    // so the answer is the delivery's own. Null when it was delivered, else
    // what the agent threw. Throws when no agent is bound or the mail cannot
    // be built.
    std::exception_ptr do_send_test(const std::string& subject, const std::string& body,
                                    const std::vector<std::string>& to) override;

    // Read-only views for the host program and the tests.
    const TokenMap& tokens() const { return tokens_; }
    const GroupMap& event_groups() const { return event_groups_; }
    EmailChannel::SendEmailFn* send_function() const { return send_email_; }
    const std::map<std::string, std::string>& agent_parameters() const { return agent_params_; }
    const boost::regex& token_expression() const { return token_expr_; }
    const EmailChannel::ToList& recipients() const { return recipients_; }
    const Tamtk::Utf8Array& subject() const { return subject_; }
    const Tamnet::EmailAddr& sender() const { return sender_; }
    const Tamtk::Utf8Array& sender_name() const { return sender_name_; }
    const Tamtk::Utf8Array& charset() const { return charset_; }
    const char* locale() const { return locale_; }
    const Tamxml::TransformLimits& stylesheet_limits() const { return stylesheet_limits_; }

private:
    TokenMap tokens_;
    // Placeholders of tokens that failed to load: they still cut a message.
    std::set<std::string> unloaded_tokens_;
    // Where each token name and event id was first seen (findings only).
    std::map<std::string, std::string> token_lines_;
    std::map<unsigned long, std::string> event_lines_;
    GroupMap event_groups_;
    EmailChannel::SendEmailFn* send_email_;
    std::map<std::string, std::string> agent_params_;
    boost::regex token_expr_;
    // The same search as token_expr_, faster, when all token names are plain.
    internal::token_scan token_scan_;
    EmailChannel::ToList recipients_;
    Tamtk::Utf8Array subject_;
    Tamnet::EmailAddr sender_;
    Tamtk::Utf8Array sender_name_;
    Tamtk::Utf8Array charset_;
    char locale_[64];
    Tamxml::TransformLimits stylesheet_limits_;
};

namespace internal {
// Copies environment variable `name` into `buffer` with a bounded copy of at
// most `size` bytes; leaves `buffer` alone when the variable is unset.
void _copy_env_locale(const char* name, char* buffer, unsigned int size);
}  // namespace internal

}  // namespace Osk

// The plug-in's only exported symbol. The host is C++ and looks it up by its
// plain name, so a C++ return type behind C linkage is intended.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
extern "C" __attribute__((visibility("default"))) boost::shared_ptr<Osk::Channel> createChannel();
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
