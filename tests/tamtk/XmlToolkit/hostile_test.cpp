// Hostile documents and stylesheets, one row each: every row ends in a clear
// XmlException or a correct result, within libxml2's and libxslt's limits
// (no crash, no hang, no unbounded memory).

#include <gtest/gtest.h>
#include <libxslt/xslt.h>
#include <pthread.h>

#include <functional>
#include <sstream>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

const std::size_t kMB = 1024 * 1024;

std::string repeated(const std::string& piece, std::size_t times) {
    std::string out;
    out.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) out += piece;
    return out;
}

// An internal entity of `size` bytes referred to `uses` times, in text or
// in an attribute.
std::string quadraticBlowup(std::size_t size, std::size_t uses, bool inAttribute) {
    const std::string head = "<!DOCTYPE e [<!ENTITY a '" + std::string(size, 'x') + "'>]>";
    return inAttribute ? head + "<e v='" + repeated("&a;", uses) + "'/>"
                       : head + "<e>" + repeated("&a;", uses) + "</e>";
}

struct DocumentRow {
    const char* name;
    std::function<std::string()> make;
    const char* refusal;     // part of the message; null when the document is read
    std::size_t valueBytes;  // length of string(/) for a document that is read
};

// Runs `f` on a thread with a 1 MB stack, less than a host thread may have.
void onSmallStack(const std::function<void()>& f) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1024 * 1024);
    pthread_t thread;
    std::function<void()> work = f;
    ASSERT_EQ(pthread_create(
                  &thread, &attr,
                  [](void* p) -> void* {
                      (*static_cast<std::function<void()>*>(p))();
                      return nullptr;
                  },
                  &work),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
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
    const DocumentRow rows[] = {
        // One text node this large is read (libxml2 lets text nodes grow in
        // memory parsing); everything else this large is refused.
        {"100 MB text node", [] { return "<event>" + std::string(100 * kMB, 'x') + "</event>"; },
         nullptr, 100 * kMB},
        {"100 MB attribute value",
         [] { return "<event a='" + std::string(100 * kMB, 'x') + "'/>"; },
         "AttValue length too long", 0},
        {"100 MB comment",
         [] { return "<event><!--" + std::string(100 * kMB, 'x') + "--></event>"; },
         "Comment too big", 0},
        {"100 MB CDATA section",
         [] { return "<event><![CDATA[" + std::string(100 * kMB, 'x') + "]]></event>"; },
         "CData section too big", 0},
        {"100 MB element name", [] { return "<e" + std::string(100 * kMB, 'x') + "/>"; },
         "Name too long", 0},
        {"nesting 100000 deep", [] { return repeated("<a>", 100000) + repeated("</a>", 100000); },
         "Excessive depth in document", 0},
        {"nesting 250 deep", [] { return repeated("<a>", 250) + "x" + repeated("</a>", 250); },
         nullptr, 1},
        {"quadratic blowup in an attribute", [] { return quadraticBlowup(100000, 10000, true); },
         "entity references expand to more than", 0},
        {"quadratic blowup through a nested entity",
         [] {
             return "<!DOCTYPE e [<!ENTITY a '" + std::string(100000, 'x') + "'><!ENTITY b '" +
                    repeated("&a;", 100) + "'>]><e>" + repeated("&b;", 100) + "</e>";
         },
         "entity references expand to more than", 0},
        {"entities nested ten deep, ten uses each",
         [] {
             std::string text = "<!DOCTYPE r [<!ENTITY l0 'lol'>";
             for (int i = 1; i <= 10; ++i) {
                 text += "<!ENTITY l" + std::to_string(i) + " '" +
                         repeated("&l" + std::to_string(i - 1) + ";", 10) + "'>";
             }
             return text + "]><r>&l10;</r>";
         },
         "Detected an entity reference loop", 0},
        {"an entity used a few times",
         [] { return "<!DOCTYPE e [<!ENTITY a 'abc'>]><e>" + repeated("&a;", 5) + "</e>"; },
         nullptr, 15},
    };
    for (const DocumentRow& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string text = row.make();
        if (row.refusal) {
            const std::string message = xmlFailure([&] { parse(text); });
            EXPECT_NE(message.find(row.refusal), std::string::npos) << message.substr(0, 300);
        } else {
            auto doc = parse(text);
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
        {"two templates calling each other",
         "<xsl:template name='a'><xsl:call-template name='b'/></xsl:template>"
         "<xsl:template name='b'><xsl:call-template name='a'/></xsl:template>"
         "<xsl:template match='/'><xsl:call-template name='a'/></xsl:template>"},
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

TEST(XmlHostile, DeepButFiniteRecursionStillWorks) {
    // A recursive template counting down from n; each level is a template
    // call and a parameter, two of the 1000 nested levels allowed.
    auto countdown = [](int n) {
        return "<xsl:template name='r'><xsl:param name='n'/><xsl:if test='$n &gt; 0'>"
               "<xsl:call-template name='r'><xsl:with-param name='n' select='$n - 1'/>"
               "</xsl:call-template></xsl:if><xsl:if test='$n = 0'>bottom</xsl:if></xsl:template>"
               "<xsl:template match='/'><xsl:call-template name='r'><xsl:with-param name='n' "
               "select='" +
               std::to_string(n) + "'/></xsl:call-template></xsl:template>";
    };
    std::string out;
    onSmallStack([&] { EXPECT_NO_THROW(out = transformed(countdown(400))); });
    EXPECT_EQ(out, "bottom");
}
