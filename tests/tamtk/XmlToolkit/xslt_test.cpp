#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

const std::string kXsl = "http://www.w3.org/1999/XSL/Transform";

// A channel configuration with the stylesheet inline in a token, its xsl
// prefix declared on the configuration's root as configurations do.
std::string configWith(const std::string& stylesheetBody) {
    return "<Channel xmlns:xsl='" + kXsl +
           "'><Tokens><Token name='t'>"
           "<xsl:stylesheet version='1.0'>" +
           stylesheetBody + "</xsl:stylesheet></Token></Tokens></Channel>";
}

boost::shared_ptr<Tamxml::Xslt> compileInline(const std::string& stylesheetBody) {
    auto token =
        Tamxml::find_first_element(parse(configWith(stylesheetBody))->root(), "Tokens/Token");
    auto sheet = Tamxml::find_first_element(token, "*[local-name()='stylesheet']");
    return Tamxml::make_transform(sheet->copyToNewDoc());
}

std::string run(const boost::shared_ptr<Tamxml::Xslt>& xslt,
                const boost::shared_ptr<const Tamxml::Document>& doc, const std::string& name = "",
                const std::string& value = "") {
    std::ostringstream out;
    Tamxml::transform(out, xslt, doc, name, value);
    // The string form appends the same text to what is already there.
    std::string appended = "kept:";
    Tamxml::transform(appended, xslt, doc, name, value);
    EXPECT_EQ(appended, "kept:" + out.str());
    return out.str();
}

const char* const kLocaleSheet =
    "<xsl:output method='text'/>"
    "<xsl:param name='locale' select=\"'none'\"/>"
    "<xsl:template match='/'>[<xsl:value-of select='$locale'/>|"
    "<xsl:value-of select='/Event/Host'/>]</xsl:template>";

}  // namespace

TEST(XmlXslt, InlineStylesheetRunsWithAStringParameter) {
    auto xslt = compileInline(kLocaleSheet);
    auto event = parse("<Event><Host>web1</Host></Event>");
    const struct {
        const char* name;
        const char* value;
        const char* expected;
    } cases[] = {
        {"locale", "en_GB", "[en_GB|web1]"},
        {"locale", "it's \"both\"", "[it's \"both\"|web1]"},
        {"locale", "concat('x', /Event/Host)", "[concat('x', /Event/Host)|web1]"},  // not XPath
        {"locale", "", "[|web1]"},
        {"", "ignored", "[none|web1]"},
        {"other", "ignored", "[none|web1]"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(xslt, event, c.name, c.value), c.expected) << c.value;
    }
}

TEST(XmlXslt, OutputFollowsXslOutputAndLeavesTheSourceAlone) {
    auto event = parse("<Event> <Host>h &amp; co</Host> </Event>");
    const char* const host = "<xsl:value-of select='/Event/Host'/>";
    const struct {
        std::string body;
        const char* expected;
    } rows[] = {
        {"<xsl:output method='xml' omit-xml-declaration='yes'/><xsl:template match='/'><out>" +
             std::string(host) + "</out></xsl:template>",
         "<out>h &amp; co</out>\n"},
        {"<xsl:output method='text'/><xsl:template match='/'>" + std::string(host) +
             "</xsl:template>",
         "h & co"},
        {"<xsl:output method='text'/><xsl:template match='/'/>", ""},
        {"<xsl:output method='text'/><xsl:strip-space elements='*'/><xsl:template match='/'>"
         "<xsl:value-of select='count(/Event/node())'/></xsl:template>",
         "1"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(run(compileInline(r.body), event), r.expected) << r.body;
    }
    EXPECT_EQ(str(Tamxml::find_first_value(event, "count(/Event/node())")), "3");
}

// One stylesheet and one XPath expression shared by threads, each thread
// also failing an expression (undefined variable) in between.
TEST(XmlXslt, OneStylesheetAndExpressionFromManyThreads) {
    auto xslt = compileInline(kLocaleSheet);
    const Tamxml::XPath failing("/Event[@n=$x]/Host | /Event/Host");
    const Tamxml::XPath host("/Event/Host");
    std::vector<int> good(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const std::string h = std::to_string(t) + "-" + std::to_string(i);
                auto event = parse("<Event><Host>" + h + "</Host></Event>");
                good[t] +=
                    run(xslt, event, "locale", "l" + h) == "[l" + h + "|" + h + "]" &&
                    str(Tamxml::find_first_value(event, host)) == h &&
                    xmlFailure([&] { Tamxml::find_first_value(event, failing); }) != "no exception";
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(good, std::vector<int>(4, 50));
}
