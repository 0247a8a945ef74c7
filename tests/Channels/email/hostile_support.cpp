#include "hostile_support.h"

namespace testing_support {

std::string hostileConfig(const std::string& message, const std::string& extraTokens) {
    std::string xml = replaced(baseConfig(), R"(<Token name="sev" default="HIGH"/>)",
                               R"(<Token name="detail" xpath="/event/detail"/>)" + extraTokens);
    xml = replaced(xml, "<Message>Host %host% is %sev%</Message>", "<Message>" + message + "</Message>");
    xml = replaced(xml, R"(<Header name="X-Group" default="g1"/>)",
                   R"(<Header name="X-Group" default="g1"/><Header name="X-Detail" xpath="/event/detail"/>)");
    return replaced(xml, R"(charset="ISO-8859-15")", R"(charset="UTF-8")");
}

std::set<std::string> hostileHeaders(bool withDetail) {
    std::set<std::string> names = standardHeaders();
    names.insert({"X-Host", "X-Group"});
    if (withDetail) names.insert("X-Detail");
    return names;
}

Outcome deliverBetween(ReportingChannel& channel, const std::string& xml) {
    TestAgent agent;
    agent.reset();
    channel.reports.clear();
    Outcome outcome;

    channel.do_log(event(7, "<event><host>before</host></event>"));
    const std::size_t reportsBefore = channel.reports.size();
    boost::shared_ptr<Osk::ChannelEvent> hostile;
    try {
        hostile = event(7, xml);
    } catch (const Tamxml::XmlException& e) {
        outcome.parseError = e.what();
    }
    if (hostile) {
        EXPECT_NO_THROW(channel.do_log(hostile));
    }
    outcome.reports.assign(channel.reports.begin() + reportsBefore, channel.reports.end());
    const std::size_t afterHostile = agent.count();
    channel.do_log(event(7, "<event><host>after</host></event>"));

    // The ordinary events on both sides arrive, each once, as themselves.
    EXPECT_EQ(agent.count(), afterHostile + 1);
    EXPECT_GE(afterHostile, 1u);
    if (agent.count() < 2 || afterHostile < 1) return outcome;
    MailShape first = readMail(agent.message(0), hostileHeaders(false));
    MailShape last = readMail(agent.message(agent.count() - 1), hostileHeaders(false));
    EXPECT_EQ(first.problems, std::vector<std::string>());
    EXPECT_EQ(last.problems, std::vector<std::string>());
    EXPECT_EQ(decodeWords(first.headers["X-Host"]), "before");
    EXPECT_EQ(decodeWords(last.headers["X-Host"]), "after");
    EXPECT_LE(afterHostile, 2u) << "one event, one mail at most";
    if (afterHostile == 2) {
        outcome.sent = true;
        outcome.mail = agent.message(1);
    }
    return outcome;
}

}  // namespace testing_support
