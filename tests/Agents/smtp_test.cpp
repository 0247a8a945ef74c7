#include <gtest/gtest.h>

#include "Agents/smtp/Spool.h"
#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> spoolFiles(const TempDir& dir, const char* sub) {
    return listDir(dir / (std::string("spool/") + sub));
}

}  // namespace

TEST(SmtpAgent, SendsTheEnvelopeAndTheMessageWithCrLfAndDotStuffing) {
    SmtpTestServer server;
    SmtpAgent agent(settingsFor(server.url()));
    struct Case {
        std::string message;
        std::string arrives;  // as the server stores it
    };
    const std::vector<Case> cases = {
        {"To: <b@x.example>\nSubject: s\n\nbody\n",
         "To: <b@x.example>\r\nSubject: s\r\n\r\nbody\r\n"},
        {"To: <b@x.example>\n\n.\n..two\n.three\nend\n",
         "To: <b@x.example>\r\n\r\n.\r\n..two\r\n.three\r\nend\r\n"},
        {".first line is a dot line\n", ".first line is a dot line\r\n"},
        {"no final line feed", "no final line feed\r\n"},
        {"already\r\nCRLF\r\n", "already\r\nCRLF\r\n"},
        {"\xc3\xa9\xff bytes\n", "\xc3\xa9\xff bytes\r\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(
            sendFailure(agent, "alerts@src.example", {"b@x.example", "c@y.example"}, c.message),
            "");
    }
    const auto got = server.messages();
    ASSERT_EQ(got.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(got[i].data, cases[i].arrives) << "case " << i;
        EXPECT_EQ(got[i].from, "alerts@src.example");
        EXPECT_EQ(got[i].to, (std::vector<std::string>{"b@x.example", "c@y.example"}));
    }
}

TEST(SmtpAgent, OneConnectionServesManyMessagesUnlessReuseIsOff) {
    for (bool reuse : {true, false}) {
        SmtpTestServer server;
        SmtpSettings settings = settingsFor(server.url());
        settings.reuseConnection = reuse;
        SmtpAgent agent(settings);
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(sendFailure(agent, "a@b", {"c@d"}, "n: " + std::to_string(i) + "\n"), "");
        }
        EXPECT_EQ(server.messages().size(), 20u);
        EXPECT_EQ(server.connections(), reuse ? 1 : 20);
    }
}

TEST(SmtpAgent, AConnectionClosedByTheServerIsReopened) {
    SmtpTestServer::Options options;
    options.idleTimeout = 0.2;
    SmtpTestServer server(options);
    SmtpAgent agent(settingsFor(server.url()));
    EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "first\n"), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the server hangs up
    EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "second\n"), "");
    // A server that crashed and came back.
    server.kill();
    server.start();
    EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "third\n"), "");
    EXPECT_EQ(server.messages().size(), 3u);
    EXPECT_EQ(server.connections(), 3);
}

TEST(SmtpAgent, AHungServerDoesNotHoldUpShutdown) {
    SmtpTestServer server;
    const auto start = std::chrono::steady_clock::now();
    {
        SmtpAgent agent(settingsFor(server.url(), {{"timeout", "60"}}));
        EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "x\n"), "");
        server.freeze(true);  // the open connection now gets no answer to QUIT
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - start);
    server.freeze(false);
    EXPECT_LT(seconds.count(), 30) << "closing waited for the 60 s timeout";
}

TEST(SmtpAgent, TemporaryAndPermanentRefusalsOfTheMessage) {
    struct Case {
        const char* reply;
        bool spool;
        const char* pending;  // where the message ends up: "new", "failed" or ""
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"451 4.3.0 queue full",
         true,
         "new",
         {"451 4.3.0 queue full", "kept in the spool", "retried"}},
        {"451 4.3.0 queue full", false, "", {"451 4.3.0 queue full", "lost", "no spool"}},
        {"554 5.6.0 content refused",
         true,
         "failed",
         {"refused the message: 554 5.6.0 content refused", "/failed"}},
        {"554 5.6.0 content refused", false, "", {"554 5.6.0 content refused", "lost", "no spool"}},
    };
    for (const Case& c : cases) {
        SmtpTestServer server;
        TempDir dir;
        SmtpAgent agent(
            settingsFor(server.url(), c.spool ? Params{{"spool", dir / "spool"}} : Params{}));
        const std::string message = std::string("X-Test-Reply: ") + c.reply + "\n\nbody\n";
        const std::string text = sendFailure(agent, "a@b", {"c@d", "e@f"}, message);
        for (const std::string& part : c.expected) {
            EXPECT_TRUE(contains(text, part)) << "'" << part << "' not in: " << text;
        }
        EXPECT_TRUE(server.messages().empty());
        if (!c.spool) {
            continue;
        }
        const std::string sub = c.pending == std::string("new") ? "new" : "failed/new";
        const auto files = spoolFiles(dir, sub.c_str());
        ASSERT_EQ(files.size(), 1u) << c.reply;
        SpooledMessage spooled;
        ASSERT_TRUE(Spool::parse(readFile(dir / ("spool/" + sub + "/" + files[0])), spooled));
        EXPECT_EQ(spooled.from, "a@b");
        EXPECT_EQ(spooled.to, (std::vector<std::string>{"c@d", "e@f"}));
        EXPECT_EQ(spooled.message, message);
        EXPECT_EQ(spoolFiles(dir, sub == "new" ? "failed/new" : "new").size(), 0u);
    }
}

TEST(SmtpAgent, PartlyRefusedRecipientsGetTheMessageFiledSeparately) {
    SmtpTestServer server;
    TempDir dir;
    SmtpAgent agent(settingsFor(server.url(), {{"spool", dir / "spool"}}));
    const std::string text = sendFailure(
        agent, "a@b", {"one@x", "r550.gone@x", "two@x", "r450.busy@x"}, "To: all\n\nbody\n");
    EXPECT_TRUE(contains(text, "refused the recipient r550.gone@x (550 5.1.1")) << text;
    EXPECT_TRUE(contains(text, "delivery failed for now to r450.busy@x (450 4.2.0")) << text;
    EXPECT_TRUE(contains(text, "delivered to the other 2 of 4 recipients")) << text;

    const auto got = server.messages();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].to, (std::vector<std::string>{"one@x", "two@x"}));

    SpooledMessage later, failed;
    ASSERT_EQ(spoolFiles(dir, "new").size(), 1u);
    ASSERT_TRUE(Spool::parse(readFile(dir / ("spool/new/" + spoolFiles(dir, "new")[0])), later));
    EXPECT_EQ(later.to, std::vector<std::string>{"r450.busy@x"});
    ASSERT_EQ(spoolFiles(dir, "failed/new").size(), 1u);
    const std::string failedText =
        readFile(dir / ("spool/failed/new/" + spoolFiles(dir, "failed/new")[0]));
    ASSERT_TRUE(Spool::parse(failedText, failed));
    EXPECT_EQ(failed.to, std::vector<std::string>{"r550.gone@x"});
    EXPECT_TRUE(contains(failedText, "X-Spool-Failure: r550.gone@x: 550 5.1.1")) << failedText;

    // Everyone refused for good: the whole message goes to failed/.
    const std::string all = sendFailure(agent, "a@b", {"r500.a@x", "r551.b@x"}, "body\n");
    EXPECT_TRUE(contains(all, "refused all recipients r500.a@x (500 5.1.1")) << all;
    EXPECT_EQ(spoolFiles(dir, "failed/new").size(), 2u);
}

TEST(SmtpAgent, StartTlsWithAuthPlain) {
    SmtpTestServer::Options options;
    options.starttls = true;
    options.requireStarttls = true;
    options.auth = "alerter:s3cret-Pa55";
    SmtpTestServer server(options);
    const Params tls = {{"starttls", "required"}, {"ca_file", Certificate::get().cert}};

    Params good = tls;
    good.insert({{"username", "alerter"}, {"password", "s3cret-Pa55"}});
    SmtpAgent agent(settingsFor(server.url(), good));
    EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "secret report\n"), "");
    const auto got = server.messages();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0].tls);
    EXPECT_TRUE(got[0].auth);

    Params wrong = tls;
    wrong.insert({{"username", "alerter"}, {"password", "wrong-Pa55word"}});
    SmtpAgent denied(settingsFor(server.url(), wrong));
    const std::string text = sendFailure(denied, "a@b", {"c@d"}, "x\n");
    EXPECT_TRUE(contains(text, "535")) << text;
    EXPECT_TRUE(contains(text, "lost")) << text;
    EXPECT_FALSE(contains(text, "wrong-Pa55word")) << text;
    EXPECT_FALSE(contains(text, "alerter")) << text;

    // Without the certificate's issuer the server is not trusted.
    Params untrusted = {
        {"starttls", "required"}, {"username", "alerter"}, {"password", "s3cret-Pa55"}};
    SmtpAgent unverified(settingsFor(server.url(), untrusted));
    const std::string tlsText = sendFailure(unverified, "a@b", {"c@d"}, "x\n");
    EXPECT_TRUE(contains(tlsText, "certificate did not verify")) << tlsText;
    EXPECT_TRUE(contains(tlsText, "ca_file")) << tlsText;
    EXPECT_EQ(server.messages().size(), 1u);
}

TEST(SmtpAgent, ImplicitTlsAndMissingStartTls) {
    SmtpTestServer::Options options;
    options.implicitTls = true;
    SmtpTestServer smtps(options);
    SmtpAgent agent(settingsFor(smtps.url(), {{"ca_file", Certificate::get().cert}}));
    EXPECT_EQ(sendFailure(agent, "a@b", {"c@d"}, "over TLS\n"), "");
    ASSERT_EQ(smtps.messages().size(), 1u);
    EXPECT_TRUE(smtps.messages()[0].tls);

    SmtpTestServer plain;
    SmtpAgent required(settingsFor(plain.url(), {{"starttls", "required"}}));
    const std::string text = sendFailure(required, "a@b", {"c@d"}, "x\n");
    EXPECT_TRUE(contains(text, "could not be delivered now")) << text;
    SmtpAgent optional(settingsFor(plain.url(), {{"starttls", "try"}}));
    EXPECT_EQ(sendFailure(optional, "a@b", {"c@d"}, "x\n"), "");
    EXPECT_EQ(plain.messages().size(), 1u);
}

TEST(SmtpAgent, CredentialsNeverCrossAnUnencryptedLink) {
    SmtpTestServer::Options options;
    options.auth = "alerter:s3cret-Pa55";  // offered without STARTTLS
    SmtpTestServer server(options);
    const Params credentials = {{"username", "alerter"}, {"password", "s3cret-Pa55"}};

    SmtpAgent byDefault(settingsFor(server.url(), credentials));
    const std::string text = sendFailure(byDefault, "a@b", {"c@d"}, "x\n");
    EXPECT_TRUE(contains(text, "does not offer STARTTLS")) << text;
    EXPECT_TRUE(contains(text, "allow_plaintext_auth")) << text;
    EXPECT_EQ(server.authCommands(), 0);

    Params allowed = credentials;
    allowed.insert({"allow_plaintext_auth", "yes"});
    SmtpAgent plaintext(settingsFor(server.url(), allowed));
    EXPECT_EQ(sendFailure(plaintext, "a@b", {"c@d"}, "x\n"), "");
    ASSERT_EQ(server.messages().size(), 1u);
    EXPECT_TRUE(server.messages()[0].auth);
}

TEST(SmtpAgent, SpooledMessagesAreRetriedOldestFirstWithoutANewAlert) {
    TempDir dir;
    SmtpTestServer server;
    server.kill();  // keeps its port for the restart
    SmtpAgent agent(settingsFor(server.url(), {{"spool", dir / "spool"}}));
    for (int i = 0; i < 5; ++i) {
        const std::string text = sendFailure(agent, "a@b", {"c@d"}, "n" + std::to_string(i) + "\n");
        EXPECT_TRUE(contains(text, "kept in the spool \"" + dir / "spool" + "\"")) << text;
    }
    EXPECT_EQ(agent.waiting(), 5u);
    server.start();
    ASSERT_TRUE(waitFor([&] { return agent.waiting() == 0; }, 60));
    const auto got = server.messages();
    ASSERT_EQ(got.size(), 5u);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(got[i].data, "n" + std::to_string(i) + "\r\n");
    }
}

TEST(SmtpAgent, ASpoolLeftByAnEarlierRunIsDeliveredOnStart) {
    TempDir dir;
    SmtpTestServer server;
    server.kill();
    {
        SmtpAgent earlier(settingsFor(server.url(), {{"spool", dir / "spool"}}));
        EXPECT_NE(sendFailure(earlier, "a@b", {"c@d", "e@f"}, "left over\n"), "");
    }
    ASSERT_EQ(spoolFiles(dir, "new").size(), 1u);
    server.start();
    SmtpAgent later(settingsFor(server.url(), {{"spool", dir / "spool"}}));
    ASSERT_TRUE(waitFor([&] { return later.waiting() == 0; }, 60));
    ASSERT_EQ(server.messages().size(), 1u);
    EXPECT_EQ(server.messages()[0].to, (std::vector<std::string>{"c@d", "e@f"}));
}

TEST(SmtpAgent, AServerDyingBeforeItConfirmsGetsTheMessageAgain) {
    TempDir dir;
    SmtpTestServer::Options options;
    options.dieOnce = dir / "died";
    SmtpTestServer server(options);
    SmtpAgent agent(settingsFor(server.url(), {{"spool", dir / "spool"}}));
    const std::string text = sendFailure(agent, "a@b", {"c@d"}, "X-Test-Die: yes\n\nbody\n");
    EXPECT_TRUE(contains(text, "may have taken the message already")) << text;
    EXPECT_TRUE(contains(text, "kept in the spool")) << text;
    server.waitForExit();
    server.start();
    // The retry backoff doubles from one second: on a loaded machine the
    // restarted server may first be met only after 15 s.
    ASSERT_TRUE(waitFor([&] { return agent.waiting() == 0; }, 60));
    // Taken twice: once by the server that died, once after the restart.
    EXPECT_EQ(server.messages().size(), 2u);
}

TEST(SmtpAgent, AddressesAndRecipientListAreChecked) {
    SmtpTestServer server;
    SmtpAgent agent(settingsFor(server.url()));
    EXPECT_TRUE(contains(sendFailure(agent, "a@b", {}, "x"), "no recipients"));
    EXPECT_TRUE(
        contains(sendFailure(agent, "a@b", {"c@d\r\nRCPT TO:<e@f>"}, "x"), "control character"));
    EXPECT_TRUE(server.messages().empty());
}

TEST(SmtpSettings, ParametersAreCheckedAndSecretsNeverShown) {
    TempDir dir;
    writeFile(dir / "pw", "from-file-Pa55\n");
    struct Case {
        Params params;
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {{}, {"\"url\" is required"}},
        {{{"url", "http://h"}}, {"\"url\"", "smtp://host:port"}},
        {{{"url", "smtp://"}}, {"without a host"}},
        {{{"url", "smtp://u:Hidden-Pa55@h"}}, {"\"url\" must not contain a user name"}},
        {{{"url", "smtp://h"}, {"starttls", "maybe"}}, {"\"starttls\"", "no, try, required"}},
        {{{"url", "smtp://h"}, {"verify_peer", "2"}}, {"\"verify_peer\"", "yes or no"}},
        {{{"url", "smtp://h"}, {"timeout", "0"}}, {"\"timeout\"", "above 0"}},
        {{{"url", "smtp://h"}, {"timeout", "5s"}}, {"\"timeout\"", "\"5s\""}},
        {{{"url", "smtp://h"}, {"ca_file", dir / "none"}}, {"\"ca_file\"", "cannot be read"}},
        {{{"url", "smtp://h"}, {"password", "Hidden-Pa55"}},
         {"\"password\" is given without \"username\""}},
        {{{"url", "smtp://h"}, {"username", "u"}}, {"\"username\" is given without"}},
        {{{"url", "smtp://h"},
          {"username", "u"},
          {"password", "Hidden-Pa55"},
          {"password_file", dir / "pw"}},
         {"both given"}},
        {{{"url", "smtp://h"}, {"username", "u"}, {"password_file", dir / "none"}},
         {"\"password_file\"", "cannot be read"}},
        {{{"url", "smtp://h"}, {"spol", "/x"}}, {"unknown parameter \"spol\"", "spool"}},
        {{{"url", "smtp://h"}, {"starttls", "no"}, {"username", "u"}, {"password", "Hidden-Pa55"}},
         {"\"starttls\"", "unencrypted", "allow_plaintext_auth"}},
    };
    for (const Case& c : cases) {
        std::string text;
        try {
            SmtpSettings::fromParams(c.params);
        } catch (const AgentParamException& e) {
            text = e.what();
        }
        for (const std::string& part : c.expected) {
            EXPECT_TRUE(contains(text, part)) << "'" << part << "' not in: " << text;
        }
        EXPECT_FALSE(contains(text, "Hidden-Pa55")) << text;
    }

    const SmtpSettings defaults = SmtpSettings::fromParams({{"url", "smtp://h:25"}});
    EXPECT_EQ(defaults.starttls, StartTls::Try);
    EXPECT_TRUE(defaults.verifyPeer);
    EXPECT_EQ(defaults.timeoutMs, 30000);
    EXPECT_EQ(defaults.spool, "");
    const SmtpSettings fromFile = SmtpSettings::fromParams({{"url", "smtps://h"},
                                                            {"username", "u"},
                                                            {"password_file", dir / "pw"},
                                                            {"timeout", "2.5"}});
    EXPECT_EQ(fromFile.password, "from-file-Pa55");
    EXPECT_EQ(fromFile.timeoutMs, 2500);
}

TEST(SmtpWireFormat, EveryLineEndsInCrLf) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},           {"a\nb", "a\r\nb"},   {"a\r\nb\n", "a\r\nb\r\n"},
        {"a\rb", "a\r\nb"}, {"\n\n", "\r\n\r\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(toWireFormat(c.first.c_str()), c.second);
    }
}

TEST(SmtpSpool, FilesKeepTheEnvelopeAndRejectGarbage) {
    SpooledMessage m{
        "", {"a@b", "\"odd > name\"@c"}, "X-Spool-To: not envelope\n\nbody", 1700000000};
    SpooledMessage back;
    ASSERT_TRUE(Spool::parse(Spool::format(m, "550 no\r\nsecond line"), back));
    EXPECT_EQ(back.from, "");
    EXPECT_EQ(back.to, m.to);
    EXPECT_EQ(back.message, m.message);
    EXPECT_EQ(back.queued, m.queued);
    for (const char* bad : {"", "To: x\n\nbody", "X-Spool-From: a\nX-Spool-Queued: 1\nbody",
                            "X-Spool-From: a\nX-Spool-To: b\nX-Spool-Queued: soon\n"}) {
        EXPECT_FALSE(Spool::parse(bad, back)) << bad;
    }
}
