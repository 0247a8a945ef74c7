#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <utility>
#include <vector>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

const std::string kSecret = "TOPSECRET-4f1c";

class XmlSecurity : public testing::Test {
protected:
    void SetUp() override {
        secretFile = writeFile(dir / "secret.txt", kSecret);
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
        const std::string path = writeFile(dir / "doc.xml", text);
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

TEST_F(XmlSecurity, DocumentsReadNoFileAndNoNetworkResource) {
    const std::string dtd = writeFile(dir / "ext.dtd", "<!ATTLIST r leak CDATA '" + kSecret +
                                                           "'><!ENTITY leak '" + kSecret + "'>");
    std::vector<std::string> documents = {
        "<!DOCTYPE r SYSTEM '" + dtd + "'><r>&leak;</r>",
        "<!DOCTYPE r [<!ENTITY % p SYSTEM '" + dtd + "'> %p;]><r>&leak;</r>",
        "<!DOCTYPE r SYSTEM '" + listener.url("x.dtd") + "'><r/>",
        "<!DOCTYPE r [<!ENTITY x SYSTEM '" + listener.url("x") + "'>]><r>&x;</r>",
    };
    for (const std::string& ref : {"file://" + secretFile, secretFile}) {
        documents.push_back("<!DOCTYPE r [<!ENTITY x SYSTEM '" + ref + "'>]><r>&x;</r>");
        documents.push_back("<!DOCTYPE r [<!ENTITY x SYSTEM '" + ref + "'>]><r a='&x;'/>");
    }
    for (const std::string& text : documents) {
        expectSecretNotRead(text);
    }
    auto doc = parse("<!DOCTYPE r SYSTEM '" + dtd + "'><r/>");
    EXPECT_FALSE(doc->root()->attr("leak")) << "the DTD's default attribute never arrived";
}

// Every way out of the stylesheet sandbox is refused with a message that names it.
TEST_F(XmlSecurity, StylesheetsReadWriteAndFetchNothing) {
    const std::string other =
        writeFile(dir / "other.xsl",
                  "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                  "<xsl:template match='/'>" +
                      kSecret + "</xsl:template></xsl:stylesheet>");
    auto copyOf = [](const std::string& uri) {
        return "<xsl:output method='text'/><xsl:template match='/'><xsl:copy-of "
               "select=\"document('" +
               uri + "')\"/></xsl:template>";
    };
    std::vector<std::pair<std::string, std::string>> rows = {
        {copyOf("/etc/passwd"), "read rights for /etc/passwd denied"},
        {copyOf(secretFile), "read rights for " + secretFile + " denied"},
        {copyOf(listener.url("doc.xml")), "denied"},
        {"<xsl:import href='" + other + "'/>", "'" + other + "' is not allowed"},
        {"<xsl:include href='" + other + "'/>", "'" + other + "' is not allowed"},
    };
    for (const std::string& target : {dir / "written.txt", dir / "sub/written.txt"}) {
        for (const std::string element : {"exsl:document", "xsl:document"}) {
            rows.push_back({"<xsl:template match='/'><" + element + " href='" + target +
                                "' method='text'>" + kSecret + "</" + element + "></xsl:template>",
                            "write rights for " + target + " denied"});
        }
    }
    for (const auto& row : rows) {
        const std::string message = xmlFailure([&] { applyStylesheet(row.first); });
        EXPECT_NE(message.find(row.second), std::string::npos) << message;
        EXPECT_EQ(message.find(kSecret), std::string::npos);
        EXPECT_EQ(message.find("root:"), std::string::npos);
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "sub"));
    EXPECT_FALSE(std::filesystem::exists(dir / "written.txt"));
}
