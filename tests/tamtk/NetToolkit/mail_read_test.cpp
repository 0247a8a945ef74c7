#include <gtest/gtest.h>

#include <string>

#include "NetToolkit/HeaderBlock.h"
#include "NetToolkit/Rfc2047Decode.h"

namespace {

// A word that cannot be read as text stays as written, with the blanks around it.
TEST(MailRead, EncodedWordsDecodeToUtf8) {
    const struct {
        const char* value;
        const char* text;  // null: the value as it is
    } rows[] = {
        // Words cut inside a character (the channel cuts by bytes) are joined first.
        {"=?UTF-8?B?U3TD?=\t=?UTF-8?B?tnJ1bmc=?=", "Störung"},
        {"=?iso-8859-1?q?a_b=FC= 9c?=", "a bü\tc"},
        {"=?UTF-8*de?Q?x?=", "x"},
        {"plain =?UTF-8?B?eA==?= and =?ISO-8859-1?B?9g==?=  =?UTF-8?B?eg==?= end",
         "plain x and öz end"},
        {"=?utf-8?B?eA==?= =?NO-SUCH-CHARSET?B?eQ==?= =?UTF-8?B?eg==?= =?utf-8?Q?=C3?= "
         "=?UTF-8?Q?=B6?=",
         "x =?NO-SUCH-CHARSET?B?eQ==?= zö"},
        {"=?UTF-8?B?/w==?=", nullptr},
        {"=?UTF-8?B?e?=", nullptr},
        {"=?UTF-8?Q?=G0?=", nullptr},
        {"=?UTF-8?X?x?=", nullptr},
        {"=?UTF-8?B?broken", nullptr},
        {"=?UTF-8?B?e A=?=", nullptr},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Tamnet::decodeRfc2047(row.value), row.text ? row.text : row.value) << row.value;
    }
}

// Only the header block is read, up to the first empty line or the end.
TEST(MailRead, HeaderFieldsAreFoundUnfoldedInAnyCase) {
    const struct {
        const char* message;
        const char* name;
        const char* value;  // null: no such field
        const char* text;
    } rows[] = {
        {"To: a\nSubject: one\n two\n\nSubject: body\n", "subject", "one two",
         "Subject: one\n two"},
        {"To: a\r\nSUBJECT:\r\n\t=?x?=\r\n\r\nbody", "Subject", "=?x?=", "SUBJECT:\r\n\t=?x?="},
        // A continuation of a line that is no field belongs to no field.
        {"Message-ID : <o@x>\nno colon\n Subject: x\n", "message-id", "<o@x>",
         "Message-ID : <o@x>"},
        {"X: 1\nX: 2\n\n", "x", "1", "X: 1"},
        {"To: a\n\nSubject: s\n", "Subject", nullptr, ""},
    };
    for (const auto& row : rows) {
        const Tamnet::HeaderBlock block(row.message);
        const Tamnet::HeaderField* field = block.find(row.name);
        ASSERT_EQ(field != nullptr, row.value != nullptr) << row.message;
        if (field) {
            EXPECT_EQ(field->value + "|" + field->text, std::string(row.value) + "|" + row.text);
        }
    }
    EXPECT_TRUE(Tamnet::HeaderBlock(" lead\nBad Name: v\n\xC3\xA9: v\n: v\n").fields().empty());
}

}  // namespace
