// Hostile documents and stylesheets, one row each: every row ends in a clear
// XmlException or a correct result, within libxml2's and libxslt's limits
// (no crash, no hang, no unbounded memory).

#include <gtest/gtest.h>
#include <libxml/parserInternals.h>
#include <libxslt/xslt.h>
#include <pthread.h>

#include <functional>
#include <sstream>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

// libxml2's bounds without XML_PARSE_HUGE; each row goes just past one.
const std::size_t kText = XML_MAX_TEXT_LENGTH + 1;
const std::size_t kName = XML_MAX_NAME_LENGTH + 1;
const std::size_t kDepth = 258;

std::string repeated(const std::string& piece, std::size_t times) {
    std::string out;
    out.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) out += piece;
    return out;
}

std::string entityLoop() {
    std::string text = "<!DOCTYPE r [<!ENTITY l0 'lol'>";
    for (int i = 1; i <= 10; ++i) {
        text += "<!ENTITY l" + std::to_string(i) + " '" +
                repeated("&l" + std::to_string(i - 1) + ";", 10) + "'>";
    }
    return text + "]><r>&l10;</r>";
}

// Runs `f` on a thread with a 1 MB stack, less than a host thread may have.
void onSmallStack(std::function<void()> f) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1 << 20);
    pthread_t thread;
    auto call = [](void* p) -> void* {
        return (*static_cast<std::function<void()>*>(p))(), nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, call, &f), 0);
    pthread_join(thread, nullptr);
}

std::string transformed(const std::string& templates) {
    const std::string sheet =
        "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
        "<xsl:output method='text'/>" +
        templates + "</xsl:stylesheet>";
    std::ostringstream out;
    Tamxml::transform(out, Tamxml::make_transform(parse(sheet)), parse("<event><a/></event>"), "",
                      "");
    return out.str();
}

}  // namespace

TEST(XmlHostile, DocumentsStayWithinTheParserLimits) {
    const std::string x(kText, 'x');
    // An entity of 100000 bytes used often enough to pass the bound on its
    // own, in text, in an attribute, and through a nested entity.
    const std::string entity = "<!DOCTYPE e [<!ENTITY a '" + std::string(100000, 'x') + "'>";
    const std::string uses = repeated("&a;", kText / 100000 + 1);
    const struct {
        const char* name;
        std::string text;
        const char* refusal;     // part of the message; null when the document is read
        std::size_t valueBytes;  // length of string(/) for a document that is read
    } rows[] = {
        // Text nodes may grow past the bound in memory parsing; nothing else may.
        {"long text node", "<event>" + x + "</event>", nullptr, kText},
        {"long attribute value", "<event a='" + x + "'/>", "AttValue length too long", 0},
        {"long comment", "<event><!--" + x + "--></event>", "Comment too big", 0},
        {"long CDATA section", "<event><![CDATA[" + x + "]]></event>", "CData section too big", 0},
        {"long element name", "<e" + std::string(kName, 'x') + "/>", "Name too long", 0},
        {"nesting too deep", repeated("<a>", kDepth) + repeated("</a>", kDepth),
         "Excessive depth in document", 0},
        {"nesting at the bound", repeated("<a>", kDepth - 1) + "x" + repeated("</a>", kDepth - 1),
         nullptr, 1},
        {"blowup in text", entity + "]><e>" + uses + "</e>", "expand to more than", 0},
        {"blowup in an attribute", entity + "]><e v='" + uses + "'/>", "expand to more than", 0},
        {"blowup through a nested entity",
         entity + "<!ENTITY b '" + repeated("&a;", kText / 100000 + 1) + "'>]><e>&b;</e>",
         "expand to more than", 0},
        {"entities nested ten deep, ten uses each", entityLoop(),
         "Detected an entity reference loop", 0},
        {"an entity used a few times", entity + "]><e>" + repeated("&a;", 5) + "</e>", nullptr,
         500000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.refusal) {
            const std::string message = xmlFailure([&] { parse(row.text); });
            EXPECT_NE(message.find(row.refusal), std::string::npos) << message.substr(0, 300);
        } else {
            auto doc = parse(row.text);
            auto value = Tamxml::find_first_value(doc, "string(/)");
            ASSERT_TRUE(value);
            EXPECT_EQ(value->length(), row.valueBytes);
        }
    }
}

TEST(XmlHostile, StylesheetsThatRecurseWithoutEndAreStopped) {
    struct Row {
        const char* name;
        std::string templates;
    };
    std::string variablesEach = "<xsl:template name='r'><xsl:param name='n' select='0'/>";
    for (char v = 'a'; v <= 'q'; ++v) {
        variablesEach += std::string("<xsl:variable name='") + v + "' select='$n'/>";
    }
    variablesEach +=
        "<xsl:call-template name='r'><xsl:with-param name='n' select='$n + 1'/></xsl:call-template>"
        "</xsl:template><xsl:template match='/'><xsl:call-template name='r'/></xsl:template>";
    const Row rows[] = {
        {"named template calling itself",
         "<xsl:template name='r'><xsl:call-template name='r'/></xsl:template>"
         "<xsl:template match='/'><xsl:call-template name='r'/></xsl:template>"},
        {"recursion through a variable",
         "<xsl:template match='/'><xsl:variable name='v'><xsl:apply-templates select='/'/>"
         "</xsl:variable><xsl:value-of select='$v'/></xsl:template>"},
        {"recursion piling up parameters", variablesEach},
    };
    // The limits hold for every transformation, whatever another user of
    // libxslt in the process set as its defaults.
    const int savedDepth = xsltMaxDepth, savedVars = xsltMaxVars;
    xsltMaxDepth = 1000000;
    xsltMaxVars = 10000000;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::string message;
        onSmallStack([&] { message = xmlFailure([&] { transformed(row.templates); }); });
        EXPECT_NE(message.find("infinite template recursion"), std::string::npos)
            << message.substr(0, 300);
    }
    xsltMaxDepth = savedDepth;
    xsltMaxVars = savedVars;
}

// A countdown of 400 levels, each a template call and a parameter: two of
// the 1000 nested levels allowed.
TEST(XmlHostile, DeepButFiniteRecursionStillWorks) {
    std::string out;
    onSmallStack([&] {
        EXPECT_NO_THROW(out = transformed(
                            "<xsl:template name='r'><xsl:param name='n' select='400'/>"
                            "<xsl:if test='$n &gt; 0'><xsl:call-template name='r'><xsl:with-param "
                            "name='n' select='$n - 1'/></xsl:call-template></xsl:if><xsl:if "
                            "test='$n = 0'>bottom</xsl:if></xsl:template><xsl:template "
                            "match='/'><xsl:call-template name='r'/></xsl:template>"));
    });
    EXPECT_EQ(out, "bottom");
}
