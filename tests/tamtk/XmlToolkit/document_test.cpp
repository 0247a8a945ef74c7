#include <gtest/gtest.h>

#include "XmlTestSupport.h"

using namespace xmltest;
using Tamxml::Document;
using Tamxml::Element;

TEST(XmlDocument, ParsesFromMemoryAndFromFile) {
    const std::string text = "<?xml version='1.0'?><Channel><Default kind='x'/></Channel>";
    TempDir dir;
    const std::string path = dir.write("config.xml", text);

    for (const auto& doc : {parse(text), Document::fromFile(path)}) {
        ASSERT_TRUE(doc);
        ASSERT_TRUE(doc->root());
        EXPECT_EQ(doc->root()->name(), "Channel");
        EXPECT_EQ(doc->root()->get(), xmlDocGetRootElement(doc->get()));
    }
}

TEST(XmlDocument, ParseErrorCarriesLibxml2Report) {
    const std::string message = xmlFailure([] { parse("<a>\n<b></a>"); });
    EXPECT_NE(message.find("Could not parse XML document"), std::string::npos) << message;
    EXPECT_NE(message.find("Opening and ending tag mismatch: b line 2 and a"), std::string::npos)
        << message;
    EXPECT_NE(message.find("line 2"), std::string::npos) << message;

    EXPECT_NE(xmlFailure([] { parse(""); }).find("Document is empty"), std::string::npos);
}

TEST(XmlDocument, FileErrorsNameTheFile) {
    TempDir dir;
    const std::string missing = dir.file("missing.xml");
    const std::string message = xmlFailure([&] { Document::fromFile(missing); });
    EXPECT_NE(message.find(missing), std::string::npos) << message;
    EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;

    const std::string broken = dir.write("broken.xml", "<a>");
    EXPECT_NE(xmlFailure([&] { Document::fromFile(broken); }).find(broken), std::string::npos);
}

TEST(XmlDocument, ReportsNothingOnStandardError) {
    testing::internal::CaptureStderr();
    xmlFailure([] { parse("<a><b></a>"); });
    xmlFailure([] { Tamxml::XPath("/a["); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(XmlDocument, AdoptTakesOwnershipAndRefusesNull) {
    xmlDocPtr raw = xmlReadMemory("<r/>", 4, nullptr, nullptr, 0);
    boost::shared_ptr<Document> doc = Document::adopt(raw);
    EXPECT_EQ(doc->get(), raw);
    EXPECT_THROW(Document::adopt(nullptr), Tamtk::NullPointerException);
}

TEST(XmlDocument, ElementsKeepTheirDocumentAlive) {
    boost::shared_ptr<const Element> root = parse("<r a='1'>text</r>")->root();
    boost::shared_ptr<const Tamxml::Attr> attr = root->attr("a");
    root.reset();
    EXPECT_EQ(str(attr->value()), "1");
}

TEST(XmlDocument, TextIsTheWholeContentWithReferencesResolved) {
    auto doc = parse(
        "<!DOCTYPE r [<!ENTITY who 'world'>]>"
        "<r>Hello <b>big</b> &who;&amp;<![CDATA[<raw>]]> &#xE9;</r>");
    EXPECT_EQ(str(doc->root()->text()), "Hello big world&<raw> \xC3\xA9");
    EXPECT_EQ(str(parse("<r/>")->root()->text()), "");
}

TEST(XmlDocument, CopyToNewDocKeepsNamespacesInScope) {
    auto doc = parse(
        "<c:Channel xmlns:c='urn:c' xmlns:x='urn:x' xmlns='urn:default'>"
        "<c:Token><x:part select='x:y'><inner/></x:part></c:Token></c:Channel>");
    auto part = Tamxml::find_first_element(doc->root(), "*/*");
    ASSERT_TRUE(part);
    boost::shared_ptr<Document> copy = part->copyToNewDoc();

    xmlNodePtr root = xmlDocGetRootElement(copy->get());
    ASSERT_NE(root, nullptr);
    EXPECT_NE(root, part->get());
    EXPECT_EQ(copy->root()->name(), "x:part");
    // Every prefix of the original scope still means the same here.
    for (const char* prefix : {"c", "x"}) {
        xmlNsPtr ns = xmlSearchNs(copy->get(), root, reinterpret_cast<const xmlChar*>(prefix));
        ASSERT_NE(ns, nullptr) << prefix;
        EXPECT_EQ(std::string("urn:") + prefix, reinterpret_cast<const char*>(ns->href));
    }
    xmlNsPtr byDefault = xmlSearchNs(copy->get(), root->children, nullptr);
    ASSERT_NE(byDefault, nullptr);
    EXPECT_STREQ(reinterpret_cast<const char*>(byDefault->href), "urn:default");
    // The original is untouched.
    EXPECT_EQ(part->get()->doc, doc->get());
}
