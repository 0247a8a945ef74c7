#include <gtest/gtest.h>

#include <sstream>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

const std::string kSecret = "TOPSECRET-4f1c";

class XmlSecurity : public testing::Test {
  protected:
    void SetUp() override {
        secretFile = dir.write("secret.txt", kSecret);
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(listener.connections(), 0);
    }

    // Everything a reader of `doc` could see, as text: its serialised form
    // (entity references left as references) and its XPath string value.
    static std::string visible(const boost::shared_ptr<const Tamxml::Document>& doc) {
        xmlChar* dump = nullptr;
        int size = 0;
        xmlDocDumpMemory(doc->get(), &dump, &size);
        std::string all(reinterpret_cast<const char*>(dump), size);
        xmlFree(dump);
        return all + str(Tamxml::find_first_value(doc, "string(/)")) + str(doc->root()->text());
    }

    // Parses `text` from memory and from a file; a document that parses must
    // not show the secret, and neither may the error of one that does not.
    void expectSecretNotRead(const std::string& text) {
        const std::string path = dir.write("doc.xml", text);
        for (int fromFile = 0; fromFile < 2; ++fromFile) {
            try {
                auto doc = fromFile ? Tamxml::Document::fromFile(path) : parse(text);
                EXPECT_EQ(visible(doc).find(kSecret), std::string::npos) << visible(doc);
            } catch (const Tamxml::XmlException& e) {
                EXPECT_EQ(std::string(e.what()).find(kSecret), std::string::npos) << e.what();
            }
        }
    }

    std::string applyStylesheet(const std::string& body) {
        const std::string sheet =
            "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform' "
            "xmlns:exsl='http://exslt.org/common' extension-element-prefixes='exsl'>" +
            body + "</xsl:stylesheet>";
        auto xslt = Tamxml::make_transform(parse(sheet));
        std::ostringstream out;
        Tamxml::transform(out, xslt, parse("<Event/>"), "", "");
        return out.str();
    }

    TempDir dir;
    std::string secretFile;
    Listener listener;
};

}  // namespace

TEST_F(XmlSecurity, ExternalEntityNamingALocalFileIsNotRead) {
    for (const std::string& ref : {"file://" + secretFile, secretFile}) {
        expectSecretNotRead("<!DOCTYPE r [<!ENTITY x SYSTEM '" + ref + "'>]><r>&x;</r>");
        expectSecretNotRead("<!DOCTYPE r [<!ENTITY x SYSTEM '" + ref + "'>]><r a='&x;'/>");
    }
}

TEST_F(XmlSecurity, ExternalDtdAndParameterEntitiesAreNotLoaded) {
    const std::string dtd = dir.write(
        "ext.dtd", "<!ATTLIST r leak CDATA '" + kSecret + "'><!ENTITY leak '" + kSecret + "'>");
    expectSecretNotRead("<!DOCTYPE r SYSTEM '" + dtd + "'><r>&leak;</r>");
    expectSecretNotRead("<!DOCTYPE r [<!ENTITY % p SYSTEM '" + dtd + "'> %p;]><r>&leak;</r>");

    auto doc = parse("<!DOCTYPE r SYSTEM '" + dtd + "'><r/>");
    EXPECT_FALSE(doc->root()->attr("leak"));  // the DTD's default attribute never arrived
}

TEST_F(XmlSecurity, NetworkResourcesAreNotFetched) {
    expectSecretNotRead("<!DOCTYPE r SYSTEM '" + listener.url("x.dtd") + "'><r/>");
    expectSecretNotRead("<!DOCTYPE r [<!ENTITY x SYSTEM '" + listener.url("x") + "'>]><r>&x;</r>");
}

TEST_F(XmlSecurity, EntityExpansionStaysWithinLimits) {
    std::string laughs = "<!DOCTYPE r [<!ENTITY l0 'lol'>";
    for (int i = 1; i <= 10; ++i) {
        const std::string prev = "&l" + std::to_string(i - 1) + ";";
        std::string value;
        for (int j = 0; j < 10; ++j) value += prev;
        laughs += "<!ENTITY l" + std::to_string(i) + " '" + value + "'>";
    }
    laughs += "]><r>&l10;</r>";
    EXPECT_THROW(parse(laughs), Tamxml::XmlException);
}

TEST_F(XmlSecurity, StylesheetMayNotReadFiles) {
    for (const std::string& file : {std::string("/etc/passwd"), secretFile}) {
        const std::string message = xmlFailure([&] {
            applyStylesheet(
                "<xsl:output method='text'/><xsl:template match='/'>"
                "<xsl:copy-of select=\"document('" +
                file + "')\"/></xsl:template>");
        });
        EXPECT_NE(message.find("read rights for " + file + " denied"), std::string::npos)
            << message;
        EXPECT_EQ(message.find(kSecret), std::string::npos);
        EXPECT_EQ(message.find("root:"), std::string::npos);
    }
}

TEST_F(XmlSecurity, StylesheetMayNotWriteFilesOrMakeDirectories) {
    for (const std::string& target : {dir.file("written.txt"), dir.file("sub/written.txt")}) {
        for (const char* element : {"exsl:document", "xsl:document"}) {
            const std::string message = xmlFailure([&] {
                applyStylesheet(std::string("<xsl:template match='/'><") + element + " href='" +
                                target + "' method='text'>" + kSecret + "</" + element +
                                "></xsl:template>");
            });
            EXPECT_NE(message.find("write rights for " + target + " denied"), std::string::npos)
                << element << ": " << message;
            EXPECT_FALSE(exists(target)) << target;
        }
    }
    EXPECT_FALSE(exists(dir.file("sub")));
}

TEST_F(XmlSecurity, StylesheetMayNotUseTheNetwork) {
    const std::string url = listener.url("doc.xml");
    const std::string message = xmlFailure([&] {
        applyStylesheet("<xsl:template match='/'><xsl:copy-of select=\"document('" + url +
                        "')\"/></xsl:template>");
    });
    EXPECT_NE(message.find("denied"), std::string::npos) << message;
}

TEST_F(XmlSecurity, StylesheetMayNotImportOrIncludeFiles) {
    const std::string other =
        dir.write("other.xsl",
                  "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                  "<xsl:template match='/'>" +
                      kSecret + "</xsl:template></xsl:stylesheet>");
    for (const char* how : {"import", "include"}) {
        const std::string message = xmlFailure(
            [&] { applyStylesheet(std::string("<xsl:") + how + " href='" + other + "'/>"); });
        EXPECT_NE(message.find("Could not compile stylesheet"), std::string::npos) << message;
        EXPECT_NE(message.find("'" + other + "' is not allowed"), std::string::npos) << message;
    }
}
