// Broken UTF-8 and unknown or exotic charsets, one row each: a clear error
// or a well-formed mail, never a crash.

#include <gtest/gtest.h>

#include "Channels/email/encode.h"
#include "Channels/email/make_charset.h"
#include "channel_fixture.h"

using namespace testing_support;

namespace {

// One-, two-, three- and four-byte characters.
const std::string kText = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";

std::string mailOf(const char* charset, const std::string& text) {
    const Tamtk::Utf8Array utf8(text.data(), static_cast<unsigned>(text.size()));
    return Osk::EmailChannel::buildEmail(charset, 0, utf8, Tamnet::EmailAddr("s@example.com"),
                                         {Tamnet::EmailAddr("r@example.com")}, utf8, utf8,
                                         {{"X-Value", text}});
}

std::set<std::string> mailHeaders() {
    std::set<std::string> names = standardHeaders();
    names.insert("X-Value");
    return names;
}

}  // namespace

TEST(HostileCharsets, TruncatedSequenceAtEveryPosition) {
    // A three-byte sequence cut after two bytes, put before every byte of
    // the text, and the text cut after every byte: each conversion fails
    // with the toolkit's exception or gives a well-formed mail.
    std::vector<std::string> texts;
    for (std::size_t at = 0; at <= kText.size(); ++at) {
        texts.push_back(kText.substr(0, at) + "\xE2\x82" + kText.substr(at));
        texts.push_back(kText.substr(0, at));
    }
    for (const std::string& text : texts) {
        for (const char* charset : {"UTF-8", "ISO-8859-1", "UTF-16", "ISO-2022-JP", "GB18030"}) {
            SCOPED_TRACE(std::string(charset) + " after " + std::to_string(&text - &texts[0]));
            const Tamtk::Utf8Array utf8(text.data(), static_cast<unsigned>(text.size()));
            for (unsigned limit : {Osk::EmailChannel::noLimit, 0u, 3u}) {
                try {
                    const Osk::EmailChannel::CharsetString out =
                        Osk::EmailChannel::make_charset(charset, utf8, limit);
                    EXPECT_LE(out.length, 8 * text.size());
                } catch (const Tamtk::Exception& e) {
                    EXPECT_NE(std::string(e.what()), "");
                }
            }
            try {
                EXPECT_EQ(readMail(mailOf(charset, text), mailHeaders()).problems,
                          std::vector<std::string>());
            } catch (const Tamtk::Exception& e) {
                EXPECT_NE(std::string(e.what()), "");
            }
        }
    }
}

// XML has no NUL; given straight to the assembly, NUL in every text ends up
// encoded: the mail stays one C string and every value arrives whole.
TEST(HostileCharsets, NulIsEncoded) {
    const std::string nul("a\0b\r\n\0", 6);
    for (const char* charset : {"UTF-8", "ISO-8859-1"}) {
        SCOPED_TRACE(charset);
        MailShape shape = readMail(mailOf(charset, nul), mailHeaders());
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, nul);
        EXPECT_EQ(decodeWords(shape.headers["Subject"]), nul);
        EXPECT_EQ(decodeWords(shape.headers["X-Value"]), nul);
    }
}

TEST(HostileCharsets, ExoticCharsetsConvertAndUnknownOnesFailClearly) {
    // Characters whose designations make ISO-2022-CN-EXT write its longest
    // escape sequences (the glibc overflow of 2024), after every count of
    // ASCII so that the escapes fall on every position of the output buffer.
    const std::string cjk = "\xE5\x8A\x84\xE4\x82\x9A\xE5\xB3\x9B\xE6\xB9\xBF";
    struct Row {
        const char* charset;
        bool known;
    };
    const Row rows[] = {{"ISO-2022-CN-EXT", true},
                        {"ISO-2022-CN", true},
                        {"ISO-2022-JP-3", true},
                        {"UTF-7", true},
                        {"UTF-16", true},
                        {"UTF-32", true},
                        {"GB18030", true},
                        {"BIG5-HKSCS", true},
                        {"IBM930", true},
                        // iconv reads an empty name as the locale's charset
                        {"NO-SUCH-CHARSET", false},
                        {"", true},
                        {"UTF-8\nX-Injected: yes", false},
                        {"../../../../tmp/x", false}};
    const std::string longName(10000, 'A');
    for (const Row& row : rows) {
        SCOPED_TRACE(row.charset);
        for (std::size_t ascii = 0; ascii < 40; ++ascii) {
            const std::string text = std::string(ascii, 'a') + cjk +
                                     "Gr\xC3\xBC\xC3\x9F"
                                     "e";
            try {
                const std::string mail = mailOf(row.charset, text);
                EXPECT_TRUE(row.known) << "an unknown charset was used";
                EXPECT_EQ(readMail(mail, mailHeaders()).problems, std::vector<std::string>());
                EXPECT_NE(mail.find(std::string("charset=\"") + row.charset + "\""),
                          std::string::npos);
            } catch (const Tamtk::Exception& e) {
                EXPECT_FALSE(row.known) << e.what();
                EXPECT_NE(std::string(e.what()).find("Invalid argument"), std::string::npos)
                    << e.what();
            }
        }
    }
    EXPECT_THROW(mailOf(longName.c_str(), "x"), Tamtk::Exception);

    // A channel configured with an unknown charset reports every event it
    // cannot build: none is dropped silently.
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(replaced(
        hostileConfig(), R"(locale="" charset="UTF-8")", R"(locale="" charset="X-NO-SUCH")"))));
    TestAgent agent;
    for (int i = 0; i < 3; ++i) channel.do_log(event(7, "<event><host>h</host></event>"));
    EXPECT_EQ(agent.count(), 0u);
    ASSERT_EQ(channel.reports.size(), 3u);
    EXPECT_EQ(channel.reports[0].severity, "warning");
    EXPECT_NE(channel.reports[0].text.find("Invalid argument"), std::string::npos)
        << channel.reports[0].text;
}
