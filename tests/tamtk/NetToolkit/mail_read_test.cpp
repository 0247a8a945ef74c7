#include <gtest/gtest.h>

#include <string>

#include "NetToolkit/Base64Decode.h"
#include "NetToolkit/HeaderBlock.h"
#include "NetToolkit/Rfc2047Decode.h"

namespace {

// Text that is not Base64 leaves what was read before as it was.
TEST(MailRead, Base64OfBadTextIsRefused) {
    const struct {
        const char* text;
        const char* bytes;  // null: refused
    } rows[] = {
        {"TWFu", "Man"}, {"TWE", "Ma"},    {"TQ==", "M"},     {"", ""},         {"T", nullptr},
        {"TQ=", "M"},    {"TW=u", nullptr}, {"TW u", nullptr}, {"TQ===", nullptr}, {"TWFu\n", nullptr},
    };
    for (const auto& row : rows) {
        std::string out = "kept:";
        const bool ok = Tamnet::unbase64(row.text, std::string(row.text).size(), out);
        EXPECT_EQ(ok, row.bytes != nullptr) << row.text;
        EXPECT_EQ(out, std::string("kept:") + (row.bytes ? row.bytes : "")) << row.text;
    }
}

// A word that cannot be read as text stays as written, with the blanks around it.
TEST(MailRead, EncodedWordsDecodeToUtf8) {
    const struct {
        const char* value;
        const char* text;  // null: the value as it is
    } rows[] = {
        // Words cut inside a character (the channel cuts by bytes) are joined first.
        {"=?UTF-8?B?U3TD?=\t=?UTF-8?B?tnJ1bmc=?=", "Störung"},
        {"=?ISO-8859-1?B?U3T2cnVuZw==?=", "Störung"},
        {"=?iso-8859-1?q?a_b=FC= 9c?=", "a bü\tc"},
        {"=?UTF-8*de?Q?x?=", "x"},
        {"=?ISO-2022-JP?B?GyRCJUYlOSVIGyhC?=", "テスト"},
        {"plain =?UTF-8?B?eA==?= and =?UTF-8?B?eQ==?=  =?UTF-8?B?eg==?= end", "plain x and yz end"},
        {"=?ISO-8859-1?B?9g==?= =?UTF-8?B?w7Y=?=", "öö"},
        {"=?UTF-8?B?eA==?= =?NO-SUCH-CHARSET?B?eQ==?= =?UTF-8?B?eg==?=",
         "x =?NO-SUCH-CHARSET?B?eQ==?= z"},
        {"=?UTF-8?B?/w==?=", nullptr},
        {"=?UTF-8//IGNORE?B?/3g=?=", nullptr},
        {"=?UTF-8?B?e?=", nullptr},
        {"=?UTF-8?Q?=G0?=", nullptr},
        {"=?UTF-8?Q?a=?=", nullptr},
        {"=?UTF-8?X?x?=", nullptr},
        {"=?UTF-8?B?broken", nullptr},
        {"=?UTF-8?B?e A=?=", nullptr},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Tamnet::decodeRfc2047(row.value), row.text ? row.text : row.value) << row.value;
    }
}

TEST(MailRead, HeaderFieldsAreFoundUnfoldedInAnyCase) {
    const struct {
        const char* message;
        const char* name;
        const char* value;  // null: no such field
        const char* text;
        const char* body;
        const char* lineEnd;
    } rows[] = {
        {"To: a\nSubject: one\n two\n\nSubject: body\n", "subject", "one two", "Subject: one\n two",
         "Subject: body\n", "\n"},
        {"To: a\r\nSUBJECT:\r\n\t=?x?=\r\n\r\nbody", "Subject", "=?x?=", "SUBJECT:\r\n\t=?x?=",
         "body", "\r\n"},
        {"Message-ID : <o@x>\nno colon\n Subject: in it\n", "message-id", "<o@x>",
         "Message-ID : <o@x>", "", "\n"},
        {"X: 1\nX: 2\n\n", "x", "1", "X: 1", "", "\n"},
        {" lead\nBad Name: v\n\xC3\xA9: v\n: v\n\n", "Bad Name", nullptr, "", "", "\n"},
        {"To: a\n\nSubject: s\n", "Subject", nullptr, "", "Subject: s\n", "\n"},
    };
    for (const auto& row : rows) {
        const std::string message = row.message;
        const Tamnet::HeaderBlock block(message);
        const Tamnet::HeaderField* field = block.find(row.name);
        ASSERT_EQ(field != nullptr, row.value != nullptr) << message;
        if (field) {
            EXPECT_EQ(field->value, row.value) << message;
            EXPECT_EQ(field->text, row.text) << message;
        }
        EXPECT_EQ(message.substr(block.bodyOffset()), row.body) << message;
        EXPECT_STREQ(block.lineEnd(), row.lineEnd) << message;
    }
    EXPECT_EQ(Tamnet::HeaderBlock(" lead\nBad Name: v\n\xC3\xA9: v\n: v\n").fields().size(), 0u);
}

}  // namespace
