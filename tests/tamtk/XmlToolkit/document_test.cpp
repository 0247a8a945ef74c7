#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "XmlTestSupport.h"

using namespace xmltest;
using Tamxml::Document;

TEST(XmlDocument, ParsesFromMemoryAndFromFile) {
    const std::string text = "<?xml version='1.0'?><Channel><Default kind='x'/></Channel>";
    TempDir dir;
    for (const auto& doc : {parse(text), Document::fromFile(writeFile(dir / "config.xml", text))}) {
        ASSERT_TRUE(doc && doc->root());
        EXPECT_EQ(doc->root()->name(), "Channel");
        EXPECT_EQ(doc->root()->get(), xmlDocGetRootElement(doc->get()));
    }
    EXPECT_THROW(Document::adopt(nullptr), Tamtk::NullPointerException);
}

// Each refusal carries libxml2's or libxslt's report, and nothing reaches standard error.
TEST(XmlDocument, ErrorsCarryTheLibrariesReport) {
    TempDir dir;
    auto doc = parse("<Event><Host>h1</Host></Event>");
    auto compile = [](const std::string& body) {
        return Tamxml::make_transform(parse(
            "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>" +
            body + "</xsl:stylesheet>"));
    };
    auto stop = compile(
        "<xsl:template match='/'><xsl:message terminate='yes'>stop: <xsl:value-of "
        "select='/Event/Host'/></xsl:message></xsl:template>");
    std::ostringstream out;
    std::string text = "kept";
    const std::string missing = dir / "missing.xml";
    const std::string broken = writeFile(dir / "broken.xml", "<a>");
    const struct {
        std::function<void()> op;
        std::vector<std::string> parts;
    } rows[] = {
        {[] { parse("<a>\n<b></a>"); },
         {"Could not parse XML document", "Opening and ending tag mismatch: b line 2 and a",
          "line 2"}},
        {[] { parse(""); }, {"Document is empty"}},
        {[&] { Document::fromFile(missing); }, {missing, "No such file or directory"}},
        {[&] { Document::fromFile(broken); }, {broken}},
        {[] { Tamxml::XPath("/a["); }, {"Could not compile XPath expression '/a['", "Invalid"}},
        {[] { Tamxml::XPath(""); }, {"Invalid expression"}},
        {[&] { Tamxml::find_first_value(doc, Tamxml::XPath("nosuch(/Event)")); },
         {"Could not evaluate XPath expression 'nosuch(/Event)'", "Unregistered function"}},
        {[&] { Tamxml::find_elements(doc, Tamxml::XPath("/p:Event")); },
         {"Undefined namespace prefix"}},
        {[&] {
             compile("<xsl:template match='/'><xsl:value-of select='/Event/['/></xsl:template>");
         },
         {"Could not compile stylesheet", "could not compile select expression '/Event/['"}},
        {[] { Tamxml::make_transform(parse("<notxsl/>")); }, {"not a stylesheet"}},
        {[&] { Tamxml::transform(out, stop, doc, "", ""); },
         {"Could not apply stylesheet", "stop: h1"}},
        {[&] { Tamxml::transform(text, stop, doc, "", ""); }, {"Could not apply stylesheet"}},
    };
    testing::internal::CaptureStderr();
    for (const auto& r : rows) {
        const std::string message = xmlFailure(r.op);
        for (const std::string& part : r.parts) {
            EXPECT_NE(message.find(part), std::string::npos) << message;
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(out.str() + text, "kept") << "a failed transformation writes nothing";
    EXPECT_EQ(str(Tamxml::find_first_value(doc, "/Event/Host")), "h1");
}

TEST(XmlDocument, TextIsTheWholeContentWithReferencesResolved) {
    auto doc = parse(
        "<!DOCTYPE r [<!ENTITY who 'world'>]>"
        "<r a='1'>Hello <b>big</b> &who;&amp;<![CDATA[<raw>]]> &#xE9;</r>");
    boost::shared_ptr<const Tamxml::Attr> attr = doc->root()->attr("a");
    EXPECT_EQ(str(doc->root()->text()), "Hello big world&<raw> \xC3\xA9");
    EXPECT_EQ(str(parse("<r/>")->root()->text()), "");
    doc.reset();
    EXPECT_EQ(str(attr->value()), "1") << "an attribute keeps its document alive";
}

TEST(XmlDocument, CopyToNewDocKeepsNamespacesInScope) {
    auto doc = parse(
        "<c:Channel xmlns:c='urn:c' xmlns:x='urn:x' xmlns='urn:default'>"
        "<c:Token><x:part select='x:y'><inner/></x:part></c:Token></c:Channel>");
    auto part = Tamxml::find_first_element(doc->root(), "*/*");
    ASSERT_TRUE(part);
    boost::shared_ptr<Document> copy = part->copyToNewDoc();
    xmlNodePtr root = xmlDocGetRootElement(copy->get());
    EXPECT_EQ(copy->root()->name(), "x:part");
    EXPECT_EQ(part->get()->doc, doc->get()) << "the original is untouched";
    // Every prefix of the original scope still means the same here.
    for (const char* prefix : {"c", "x", ""}) {
        xmlNsPtr ns = xmlSearchNs(copy->get(), *prefix ? root : root->children,
                                  *prefix ? reinterpret_cast<const xmlChar*>(prefix) : nullptr);
        ASSERT_NE(ns, nullptr) << prefix;
        EXPECT_STREQ(reinterpret_cast<const char*>(ns->href),
                     (*prefix ? std::string("urn:") + prefix : "urn:default").c_str());
    }
}
