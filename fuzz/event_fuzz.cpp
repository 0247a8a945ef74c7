// Event rendering: do_log on any event XML with XPath, stylesheet and constant
// tokens and extra headers from the event, in three charsets. do_log never
// throws, no event is lost silently, no value from the event adds a header.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <memory>
#include <set>

#include "ChannelHarness.h"
#include "FuzzCheck.h"

namespace {

std::string _configuration(const std::string& charset) {
    return R"XML(<?xml version="1.0" encoding="UTF-8"?>
<Channel>
  <Default>
    <RecipientList><Recipient value="ops@example.com"/><Recipient value="oncall@example.org"/></RecipientList>
    <Sender name="Alerter" email="alerts@example.com"/>
    <Subject value="Alert"/>
    <Charset enabled="yes" locale="" charset=")XML" +
           charset + R"XML("/>
    <ExtraHeaders><Header name="X-Host" xpath="/event/host" default="unknown"/></ExtraHeaders>
  </Default>
  <Tokens>
    <Token name="host" xpath="/event/host"/>
    <Token name="attr" xpath="/event/@severity"/>
    <Token name="text" xpath="string(/event)"/>
    <Token name="count" xpath="count(//*)"/>
    <Token name="sev" default="HIGH"/>
    <Token name="summary">
      <xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:output method="text" encoding="UTF-8"/>
        <xsl:param name="locale"/>
        <xsl:template match="/">
          <xsl:value-of select="$locale"/>
          <xsl:for-each select="/event/*">
            <xsl:text>&#10;- </xsl:text><xsl:value-of select="name()"/>: <xsl:value-of select="."/>
            <xsl:for-each select="@*"> <xsl:value-of select="name()"/>=<xsl:value-of select="."/></xsl:for-each>
          </xsl:for-each>
        </xsl:template>
      </xsl:stylesheet>
    </Token>
  </Tokens>
  <EventGroup enabled="yes">
    <Message>Host %host% (%attr%) is %sev%: %summary%
Full text: %text% in %count% elements</Message>
    <ExtraHeaders>
      <Header name="X-Detail" xpath="/event/detail"/>
      <Header name="X-Group" default="g1"/>
    </ExtraHeaders>
    <Event id="7" enabled="yes"/>
  </EventGroup>
  <EventGroup enabled="yes">
    <Message>%text%</Message>
    <Event id="8" enabled="yes"/>
  </EventGroup>
  <EmailAgent lib=")XML" +
           FUZZ_AGENT_PATH + R"XML("/>
</Channel>
)XML";
}

// One channel per charset, configured once (after static initialisation).
std::unique_ptr<fuzzing::CountingChannel[]> _channels;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TAM_LANG", "fr_FR.UTF-8", 1);  // the stylesheet's locale parameter
    const char* const charsets[] = {"UTF-8", "ISO-8859-15", "ISO-2022-JP"};
    _channels.reset(new fuzzing::CountingChannel[3]);
    for (int i = 0; i < 3; ++i) {
        const std::string xml = _configuration(charsets[i]);
        fuzzing::check(_channels[i].do_configure(
                           Osk::ChannelCfg(Tamxml::Document::fromMemory(xml.data(), xml.size()))) &&
                           _channels[i].reports == 0,
                       "the event target's configuration is refused");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const int which = data[0] % 3;
    const unsigned long id = 6 + (data[0] / 3) % 3;  // 6 belongs to no group
    boost::shared_ptr<const Tamxml::Document> doc =
        fuzzing::parseOrNull(reinterpret_cast<const char*>(data + 1), size - 1);
    if (!doc)
        return 0;

    std::set<std::string> expected = {"X-Host"};
    if (id == 7) {
        expected.insert("X-Group");
        if (Tamxml::find_first_value(doc, "/event/detail"))
            expected.insert("X-Detail");
    }
    fuzzing::logAndCheck(_channels[which], id, doc, &expected);
    return 0;
}
