#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "AgentTestSupport.h"
#include "Channels/email/encode.h"
#include "Channels/email/make_charset.h"
#include "mail_shape.h"

using Osk::EmailChannel::buildEmail;
using Osk::EmailChannel::make_charset;
using Tamtk::Utf8Array;
using namespace testing_support;

namespace {

std::string converted(const char* charset, const std::string& text, unsigned limit = ~0u) {
    const Utf8Array source(text);
    const Osk::EmailChannel::CharsetString out = make_charset(charset, source, limit);
    return std::string(out.bytes.get(), out.length);
}

std::vector<Tamnet::EmailAddr> addresses(std::initializer_list<const char*> texts) {
    std::vector<Tamnet::EmailAddr> out;
    for (const char* t : texts) out.push_back(Tamnet::EmailAddr(std::string(t)));
    return out;
}

std::string mail(const std::string& subject, const std::string& body,
                 std::map<std::string, std::string> headers = {},
                 std::initializer_list<const char*> to = {"a@example.com"}) {
    return buildEmail("UTF-8", 0, Utf8Array("N"), Tamnet::EmailAddr(std::string("s@example.com")),
                      addresses(to), Utf8Array(subject), Utf8Array(body), headers);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

}  // namespace

// Handles are reused per thread: each row converts twice, after `before` when given.
TEST(MakeCharset, Conversions) {
    struct Row {
        const char* charset;
        std::string text;
        unsigned limit;
        std::string expected;  // the bytes, or the message of the failure
        bool fails = false;
        std::string before = "";
    };
    const Row rows[] = {
        {"UTF-8", "Grüße", ~0u, "Grüße"},
        {"UTF-8", "Grüße", 3, "Grü"},
        {"ISO-8859-1", "Grüße", ~0u, "Gr\374\337e"},
        {"ISO-8859-1", "a世b", ~0u, "ab"},  // neither the ideograph nor the square fit
        {"UTF-16LE", "ab", ~0u, std::string("a\0b\0", 4)},  // fast path keeps zero bytes
        {"UTF-16LE", "a世", ~0u, std::string("a\0\x16\x4E", 4)},
        {"KOI8-R", "a■b€", ~0u, "a\224b\224"},  // the square stands in for the euro sign
        {"ISO-8859-1", "abcdef", 3, "abc"},
        {"ISO-8859-1", "abcdef", 6, "abcdef"},
        {"ISO-8859-1", "", ~0u, ""},
        {"UTF-8", "", ~0u, ""},
        {"ISO-2022-JP", "日本", ~0u, "\x1B$BF|K\\\x1B(B"},  // ends back in ASCII
        {"ISO-8859-1", "世界", ~0u, "Returned zero-length conversion", true},
        {"NO-SUCH-CHARSET", "abc", ~0u, "Invalid argument", true},
        {"ISO-8859-1", "ab\xC3", ~0u, "Utf8Array has invalid buffer", true},
        // The failed whole-text attempt stopped inside the JIS shift.
        {"ISO-2022-JP", "本a", ~0u, "\x1B$BK\\\x1B(Ba", false, "日😀"},
        {"ISO-2022-JP", "a", ~0u, "a", false, "日本"},
        // A byte order mark at the start of every conversion.
        {"UTF-16", "ab", ~0u, std::string("\377\376a\0b\0", 6), false, "x"},
        {"ISO-8859-1", "ü", ~0u, "\xFC", false, "a世"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.charset) + " " + row.text + " after " + row.before);
        if (!row.before.empty())
            converted(row.charset, row.before);
        for (int pass = 0; pass < 2; ++pass) {
            try {
                EXPECT_EQ(converted(row.charset, row.text, row.limit), row.expected);
                EXPECT_FALSE(row.fails);
            } catch (const Tamtk::Exception& e) {
                EXPECT_TRUE(row.fails);
                EXPECT_EQ(e.what(), row.expected);
            }
        }
    }
}

TEST(BuildEmail, LineTableInOrder) {
    const std::string text =
        mail("Hi", "body", {{"b-low", "2"}, {"X-Up", "1"}}, {"a@x.org", "b@y.org", "c@z.org"});
    const std::vector<std::string> expected = {
        "To: <a@x.org>,",
        "\t<b@y.org>,",
        "\t<c@z.org>",
        "From: =?UTF-8?B?Tg==?=",
        " <s@example.com>",
        lines(text)[5],
        "Subject: =?UTF-8?B?SGk=?=",
        "X-Up: =?UTF-8?B?MQ==?=",
        "b-low: =?UTF-8?B?Mg==?=",
        "MIME-Version: 1.0",
        "Content-Disposition: inline",
        "Content-Type: text/plain; charset=\"UTF-8\"",
        "Content-Transfer-Encoding: base64",
        "",
        "Ym9keQ==",
    };
    EXPECT_EQ(lines(text), expected);
    EXPECT_EQ(lines(text)[5].rfind("Date: ", 0), 0u);
    EXPECT_THROW(mail("s", "b", {}, {}), std::out_of_range);
}

TEST(BuildEmail, BodyLinesAroundEveryEdge) {
    // Around every line edge: full lines of 76 and a last line of the rest.
    for (std::size_t length : {1u, 2u, 3u, 56u, 57u, 58u, 113u, 114u, 115u, 171u, 172u, 1000u}) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('!' + i % 90);
        const MailShape shape = readMail(mail("s", text), standardHeaders());
        EXPECT_EQ(shape.problems, std::vector<std::string>()) << length;
        EXPECT_EQ(shape.body, text);
    }
}

TEST(BuildEmail, LimitsCountCharactersBeforeConversion) {
    std::string longSubject;
    for (int i = 0; i < 450; ++i) longSubject += "é";  // 2 bytes each
    const std::string text =
        buildEmail("ISO-8859-1", 0, Utf8Array(std::string(250, 'n')),
                   Tamnet::EmailAddr(std::string("s@example.com")), addresses({"a@b.org"}),
                   Utf8Array(longSubject), Utf8Array("b"), {{"X-V", std::string(300, 'v')}});
    std::set<std::string> names = standardHeaders();
    names.insert("X-V");
    MailShape shape = readMail(text, names);
    EXPECT_EQ(decodeWords(shape.headers["Subject"]), std::string(400, '\xE9'));
    EXPECT_EQ(decodeWords(shape.headers["From"]), std::string(200, 'n'));
    EXPECT_EQ(decodeWords(shape.headers["X-V"]), std::string(200, 'v'));
    // 400 one-byte characters after conversion: 7 words of 57 bytes and one of 1.
    EXPECT_NE(text.find("\n\t=?ISO-8859-1?B?6Q==?=\nX-V: "), std::string::npos) << text;
}

// Messages in several charsets, parsed by Python's email package.
TEST(BuildEmail, AnIndependentParserReadsEveryCharset) {
    const std::pair<const char*, const char*> rows[] = {
        {"UTF-8", "Grüße, Привет, 世界, emoji 🚨 "},
        {"ISO-8859-1", "Grüße aus Köln, ça va? Ñandú "},
        {"ISO-8859-15", "Prix 100 € - œuvre Ÿ "},
        {"KOI8-R", "Сервер недоступен, Привет мир "},
        {"Shift_JIS", "サーバー停止 日本語のテキスト "},
        {"GB18030", "服务器宕机 中文测试 "},
    };
    AgentTest::TempDir dir;
    for (const auto& [charset, sample] : rows) {
        const std::string header = std::string(sample) + sample + sample;
        const std::string subject = header + sample, name = "Alerter " + header;
        std::string body;
        for (int i = 0; i < 40; ++i) body += sample + std::string(i % 5 == 4 ? "\n" : "");
        const std::string text = buildEmail(
            charset, 1700000000, Utf8Array(name), Tamnet::EmailAddr(std::string("s@example.com")),
            addresses({"a@x.org", "b@y.org"}), Utf8Array(subject), Utf8Array(body),
            {{"X-Detail", header}, {"X-Plain", "ascii"}});
        const std::string base = dir / charset;
        std::ofstream(base + ".eml", std::ios::binary) << text;
        std::ofstream expected(base + ".expected", std::ios::binary);
        expected << charset << '\0' << subject << '\0' << name << '\0' << header << '\0' << body;
    }
    // The script's complaint, if any, is its output.
    EXPECT_EQ(AgentTest::run(std::string("/usr/bin/python3 ") + COMPOSE_CHECK_SCRIPT + " " +
                             dir.path() + " 2>&1 || true"),
              "6 messages checked\n");
}

// A clear error or a well-formed mail, never a crash; NUL (which XML cannot carry) arrives whole.
TEST(HostileCharsets, AClearErrorOrAWellFormedMail) {
    // A cut three-byte sequence before every byte, and the text cut after every byte.
    const std::string valid = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
    std::vector<std::string> broken;
    for (std::size_t at = 0; at <= valid.size(); ++at) {
        broken.push_back(valid.substr(0, at) + "\xE2\x82" + valid.substr(at));
        broken.push_back(valid.substr(0, at));
    }
    const std::vector<std::string> nul = {std::string("a\0b\r\n\0", 6)};
    // The glibc ISO-2022-CN-EXT overflow of 2024: its longest escapes at every buffer position.
    std::vector<std::string> exotic;
    for (std::size_t ascii = 0; ascii < 40; ++ascii) {
        exotic.push_back(std::string(ascii, 'a') +
                         "\xE5\x8A\x84\xE4\x82\x9A\xE5\xB3\x9B\xE6\xB9\xBF" + "Gr\xC3\xBC\xC3\x9F" +
                         "e");
    }
    const std::string longName(10000, 'A');
    const std::set<std::string> unknown = {"NO-SUCH-CHARSET", "UTF-8\nX-Injected: yes",
                                           "../../../../tmp/x", longName};
    const std::pair<const std::vector<std::string>*, std::vector<std::string>> groups[] = {
        {&nul, {"UTF-8", "ISO-8859-1"}},
        {&broken, {"UTF-8", "ISO-8859-1", "UTF-16", "ISO-2022-JP", "GB18030"}},
        // iconv reads an empty name as the locale's charset
        {&exotic,
         {"UTF-8", "ISO-8859-1", "ISO-2022-CN-EXT", "ISO-2022-CN", "ISO-2022-JP-3", "UTF-7",
          "UTF-16", "UTF-32", "GB18030", "BIG5-HKSCS", "IBM930", "", "NO-SUCH-CHARSET",
          "UTF-8\nX-Injected: yes", "../../../../tmp/x", longName}},
    };
    std::set<std::string> names = standardHeaders();
    names.insert("X-Value");
    for (const auto& [texts, charsets] : groups) {
        for (const std::string& charset : charsets) {
            for (const std::string& text : *texts) {
                SCOPED_TRACE(charset + ": " + text);
                const bool known = !unknown.count(charset);
                const Utf8Array utf8(text.data(), static_cast<unsigned>(text.size()));
                for (unsigned limit : {Osk::EmailChannel::noLimit, 0u, 3u}) {
                    try {
                        EXPECT_LE(make_charset(charset.c_str(), utf8, limit).length,
                                  8 * text.size());
                    } catch (const Tamtk::Exception& e) {
                        EXPECT_NE(std::string(e.what()), "");
                    }
                }
                try {
                    const std::string built = buildEmail(
                        charset.c_str(), 0, utf8, Tamnet::EmailAddr(std::string("s@example.com")),
                        addresses({"r@example.com"}), utf8, utf8, {{"X-Value", text}});
                    EXPECT_TRUE(known) << "an unknown charset was used";
                    const MailShape shape = readMail(built, names);
                    EXPECT_EQ(shape.problems, std::vector<std::string>());
                    EXPECT_NE(built.find("charset=\"" + charset + "\""), std::string::npos);
                    if (texts == &nul) {
                        EXPECT_EQ(shape.body, text);
                        EXPECT_EQ(decodeWords(shape.headers.at("Subject")), text);
                        EXPECT_EQ(decodeWords(shape.headers.at("X-Value")), text);
                    }
                } catch (const Tamtk::Exception& e) {
                    EXPECT_TRUE(!known || texts == &broken) << e.what();
                    if (!known) {
                        EXPECT_NE(std::string(e.what()).find("Invalid argument"),
                                  std::string::npos);
                    }
                }
            }
        }
    }
}
