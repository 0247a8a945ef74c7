#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

#include "Agents/common/Spool.h"
#include "Agents/maildir/MaildirAgent.h"
#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

}  // namespace

TEST(SmtpAgent, SendsTheEnvelopeAndTheMessageWithCrLfAndDotStuffing) {
    SmtpTestServer server;
    SmtpAgent agent(settingsFor(server.url()));
    const std::string added = "Message-ID: <ID>\r\nAuto-Submitted: auto-generated\r\n";
    // As sent, and as it arrives.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"To: <b@x>\nSubject: s\n\nbody\n", added + "To: <b@x>\r\nSubject: s\r\n\r\nbody\r\n"},
        {"To: <b@x>\n\n.\n..two\n.three\nend\n",
         added + "To: <b@x>\r\n\r\n.\r\n..two\r\n.three\r\nend\r\n"},
        {".first line is a dot line\n", added + ".first line is a dot line\r\n"},
        {"no final line feed", added + "no final line feed\r\n"},
        {"already\r\nCRLF\r\n", added + "already\r\nCRLF\r\n"},
        {"\xc3\xa9\xff bytes\n", added + "\xc3\xa9\xff bytes\r\n"},
        {"lone\rcarriage return\n", added + "lone\r\ncarriage return\r\n"},
        // Headers of the mail's own are kept, wherever and however spelt.
        {"To: a\nmessage-id : <o@x>\n\nb\n",
         added.substr(18) + "To: a\r\nmessage-id : <o@x>\r\n\r\nb\r\n"},
        {"AUTO-SUBMITTED: x\nMessage-ID: <o@x>\n\nb\n",
         "AUTO-SUBMITTED: x\r\nMessage-ID: <o@x>\r\n\r\nb\r\n"},
        // Only the header counts: the body may say anything.
        {"To: a\n\nMessage-ID: <body@x>\n", added + "To: a\r\n\r\nMessage-ID: <body@x>\r\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sendFailure(agent, "a@b", {"c@d", "e@f"}, c.first), "");
    }
    // An envelope that cannot be sent as given is not sent at all.
    EXPECT_TRUE(contains(sendFailure(agent, "a@b", {}, "x"), "no recipients"));
    EXPECT_TRUE(
        contains(sendFailure(agent, "a@b", {"c@d\r\nRCPT TO:<e@f>"}, "x"), "control character"));
    const auto got = server.messages();
    ASSERT_EQ(got.size(), cases.size());
    std::set<std::string> ids;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        std::string data = got[i].data;
        if (data.compare(0, 13, "Message-ID: <") == 0) {
            const std::size_t end = data.find('>');
            const std::string id = data.substr(13, end - 13);
            EXPECT_TRUE(contains(id, "@")) << data;
            ids.insert(id);
            data.replace(13, end - 13, "ID");
        }
        EXPECT_EQ(data, cases[i].second) << "case " << i;
        EXPECT_EQ(got[i].from, "a@b");
        EXPECT_EQ(got[i].to, (std::vector<std::string>{"c@d", "e@f"}));
    }
    EXPECT_EQ(ids.size(), 8u) << "every mail has its own Message-ID";
}

TEST(SmtpAgent, OneConnectionServesManyMessagesUnlessReuseIsOff) {
    SmtpTestServer server;
    for (bool reuse : {true, false}) {
        SmtpSettings settings = settingsFor(server.url());
        settings.reuseConnection = reuse;
        SmtpAgent agent(settings);
        const int before = server.connections();
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(sendFailure(agent, "a@b", {"c@d"}, "n: " + std::to_string(i) + "\n"), "");
        }
        EXPECT_EQ(server.connections() - before, reuse ? 1 : 10);
    }
    EXPECT_EQ(server.messages().size(), 20u);
}

// Refused for now: retried from spool/new; for good: spool/failed/new; no spool: lost.
TEST(SmtpAgent, WhereARefusedMessageOrRecipientEndsUp) {
    struct Case {
        const char* to;
        const char* reply;  // the server's answer to the message itself
        bool spool;
        const char* arrived;  // recipients at the server, in spool/new, in spool/failed/new
        const char* waiting;
        const char* failed;
        std::vector<std::string> says;
    };
    const std::vector<Case> cases = {
        {"c@d e@f", "451 4.3.0 full", true, "", "c@d e@f", "", {"kept in the spool", "retried"}},
        {"c@d e@f", "451 4.3.0 full", false, "", "", "", {"it is lost: no spool"}},
        {"c@d e@f", "554 5.6.0 no", true, "", "", "c@d e@f", {"the message: 554", "/failed"}},
        {"c@d e@f", "554 5.6.0 no", false, "", "", "", {"it is lost: no spool"}},
        {"a@x r550.b@x c@x r450.d@x",
         "",
         true,
         "a@x c@x",
         "r450.d@x",
         "r550.b@x",
         {"the recipient r550.b@x (550 5.1.1", "for now to r450.d@x (450 4.2.0", "other 2 of 4"}},
        {"r500.a@x r551.b@x", "", true, "", "", "r500.a@x r551.b@x", {"all recipients r500.a@x"}},
    };
    SmtpTestServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.to) + " " + c.reply);
        TempDir dir;
        SmtpAgent agent(
            settingsFor(server.url(), c.spool ? Params{{"spool", dir / "spool"}} : Params{}));
        const std::size_t before = server.messages().size();
        const std::string message = std::string("X-Test-Reply: ") + c.reply + "\n\nbody\n";
        const std::string text = sendFailure(agent, "a@b", words(c.to), message);
        EXPECT_EQ(missingFrom(text, c.says), "") << text;
        EXPECT_TRUE(contains(text, c.reply)) << text;
        const auto got = server.messages();
        ASSERT_EQ(got.size() - before, *c.arrived ? 1u : 0u);
        if (*c.arrived) {
            EXPECT_EQ(got.back().to, words(c.arrived));
        }
        if (!c.spool) {
            continue;
        }
        Spool spool(dir / "spool");
        std::string failure;
        for (const bool waiting : {true, false}) {
            const std::vector<std::string> names = waiting ? spool.pending() : spool.failed();
            const std::vector<std::string> expected = words(waiting ? c.waiting : c.failed);
            ASSERT_EQ(names.size(), expected.empty() ? 0u : 1u) << waiting;
            SpooledMessage kept;
            if (names.empty() || !(waiting ? spool.load(names[0], kept)
                                           : spool.loadFailed(names[0], kept, failure))) {
                continue;
            }
            EXPECT_EQ(kept.from, "a@b");
            EXPECT_EQ(kept.to, expected);
            // With the Message-ID it was first sent with, so a retry is the same mail.
            EXPECT_EQ(kept.message.compare(0, 13, "Message-ID: <"), 0) << kept.message;
            EXPECT_EQ(kept.message.substr(kept.message.size() - message.size()), message);
        }
        if (*c.failed) {
            EXPECT_TRUE(contains(failure, " 5")) << failure;
        }
    }
}

// TLS and AUTH as servers offer them; no failure text shows a credential.
TEST(SmtpAgent, TlsAndCredentials) {
    SmtpTestServer::Options options[5];
    options[0].starttls = options[0].requireStarttls = true;  // then AUTH PLAIN
    options[0].auth = options[2].auth = "alerter:s3cret-Pa55";
    options[0].echoAuth = true;  // what the client sent, quoted in the refusal
    options[1].implicitTls = options[3].implicitTls = options[4].implicitTls = true;
    options[3].tls12Only = true;
    options[4].clientCertificate = true;
    SmtpTestServer secure(options[0]), smtps(options[1]), plainAuth(options[2]), plain,
        tls12(options[3]), knowsSender(options[4]);
    const std::string ca = Certificate::get().cert;
    const Params asSender = {
        {"ca_file", ca}, {"client_certificate", ca}, {"client_key", Certificate::get().key}};
    TempDir dir;
    writeFile(dir / "pw", "s3cret-Pa55\n");
    const Params login = {{"username", "alerter"}, {"password", "s3cret-Pa55"}};
    const Params fromFile = {{"username", "alerter"}, {"password_file", dir / "pw"}};
    const Params tls = {{"starttls", "required"}, {"ca_file", ca}};
    const auto with = [](Params params, const Params& more) {
        params.insert(more.begin(), more.end());
        return params;
    };
    struct Case {
        SmtpTestServer& server;
        Params params;
        std::vector<std::string> failure;  // empty: delivered
        bool tls;                          // when delivered
    };
    const std::vector<Case> cases = {
        {secure, with(fromFile, tls), {}, true},
        {secure,
         with(tls, {{"username", "alerter"}, {"password", "wrong-Pa55"}}),
         {"535 5.7.8 refused", "lost"},
         false},
        {smtps, {{"ca_file", ca}}, {}, true},
        {tls12, {{"ca_file", ca}, {"tls_min_version", "1.2"}}, {}, true},
        {tls12,
         {{"ca_file", ca}, {"tls_min_version", "1.3"}},
         {"could not be delivered now"},
         false},
        {knowsSender, asSender, {}, true},
        {knowsSender, {{"ca_file", ca}}, {"could not be delivered now"}, false},
        {plain, {{"starttls", "required"}}, {"could not be delivered now"}, false},
        {plain, {{"starttls", "try"}}, {}, false},
        {plainAuth, login, {"does not offer STARTTLS", "allow_plaintext_auth"}, false},
        {plainAuth, with(login, {{"allow_plaintext_auth", "yes"}}), {}, false},
    };
    const std::string echoed = run("printf '\\0alerter\\0wrong-Pa55' | base64 -w0");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.server.url() +
                     (c.params.count("starttls") ? " " + c.params.at("starttls") : ""));
        const std::size_t before = c.server.messages().size();
        const int authBefore = c.server.authCommands();
        SmtpAgent agent(settingsFor(c.server.url(), c.params));
        const std::string text = sendFailure(agent, "a@b", {"c@d"}, "secret report\n");
        EXPECT_EQ(missingFrom(text, c.failure), "") << text;
        EXPECT_FALSE(contains(text, "Pa55") || contains(text, "alerter") || contains(text, echoed))
            << text;
        const auto got = c.server.messages();
        ASSERT_EQ(got.size() - before, c.failure.empty() ? 1u : 0u);
        if (c.failure.empty()) {
            EXPECT_EQ(got.back().tls, c.tls);
            EXPECT_EQ(got.back().auth, c.params.count("username") != 0);
        } else if (&c.server == &plainAuth) {
            EXPECT_EQ(c.server.authCommands(), authBefore) << "credentials sent in the clear";
        }
    }
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
    // The backoff doubles from 1 s: on a loaded machine the restart may be met after 15 s.
    ASSERT_TRUE(waitFor([&] { return agent.waiting() == 0; }, 60));
    // Taken twice: once by the server that died, once after the restart.
    EXPECT_EQ(server.messages().size(), 2u);
}

TEST(SmtpAgent, FallbackRelaysAreTriedInOrderAndTheOneThatWorkedIsKept) {
    const std::string dead = "smtp://127.0.0.1:" + std::to_string(freePort());
    SmtpTestServer::Options busyOptions, refusingOptions;
    busyOptions.mailReply = "451 4.3.2 busy";
    refusingOptions.mailReply = "554 5.7.1 not from you";
    SmtpTestServer busy(busyOptions), refusing(refusingOptions), live;
    const std::string refused = "SMTP agent (" + refusing.url() + "): the server refused";
    struct Case {
        std::string urls;
        std::size_t arrivesLive;            // of two messages
        std::vector<std::string> expected;  // in the first message's exception
    };
    const std::vector<Case> cases = {
        {dead + " " + live.url(), 2, {}},
        {busy.url() + "  " + live.url(), 2, {}},
        // A permanent refusal is final, and the text names that relay.
        {refusing.url() + " " + live.url(), 0, {refused, "554 5.7.1"}},
        // Nobody takes it: the last relay is named, and the others' answers.
        {dead + " " + busy.url(),
         0,
         {"(" + busy.url() + "): ", "451 4.3.2", "tried before: " + dead}},
    };
    for (const Case& c : cases) {
        const std::size_t before = live.messages().size();
        const int busyConnections = busy.connections();
        SmtpAgent agent(settingsFor(c.urls));
        const std::string text = sendFailure(agent, "a@b", {"c@d"}, "first\n");
        sendFailure(agent, "a@b", {"c@d"}, "second\n");
        EXPECT_EQ(live.messages().size() - before, c.arrivesLive) << c.urls;
        EXPECT_EQ(missingFrom(text, c.expected), "") << text;
        if (c.arrivesLive == 2 && c.urls.find(busy.url()) == 0) {
            EXPECT_EQ(busy.connections() - busyConnections, 1) << "the working relay is kept";
        }
    }
}

TEST(SmtpAgent, DrainDeliversTheSpoolOverSeveralConnections) {
    SmtpTestServer::Options options;
    options.delay = 0.02;
    SmtpTestServer server(options);
    for (unsigned connections : {1u, 4u}) {
        SCOPED_TRACE(connections);
        TempDir dir;
        const int connectionsBefore = server.connections();
        const std::size_t before = server.messages().size();
        SmtpSettings settings = settingsFor(
            server.url(), {{"spool", dir / "spool"}, {"connections", std::to_string(connections)}});
        settings.retryFirst = std::chrono::seconds(60);  // only drain() delivers
        SmtpAgent agent(settings);
        Spool spool(dir / "spool");  // as an earlier run left it
        for (int i = 0; i < 20; ++i) {
            const std::string to = i == 7 ? "r550.gone@x" : i == 9 ? "r450.busy@x" : "c@d";
            spool.put({"a@b", {to}, "n" + std::to_string(i) + "\n", 0});
        }
        // Put there by hand: a bare CR would end the RCPT command early.
        writeFile(spool.folder(SpoolState::Waiting) + "/cr",
                  "X-Spool-From: a@b\nX-Spool-To: c@d\rRCPT TO:<e@f>\nX-Spool-Queued: 1\n\nx\n");
        const SmtpAgent::DrainResult result = agent.drain(std::chrono::seconds(60));
        EXPECT_FALSE(result.locked);
        EXPECT_EQ(result.delivered, 18u);
        EXPECT_EQ(result.failed, 2u);
        EXPECT_EQ(result.waiting, 1u);
        ASSERT_EQ(result.problems.size(), 3u);
        EXPECT_EQ(spool.failed().size(), 2u);
        EXPECT_EQ(server.messages().size() - before, 18u);
        // One per worker, and a new one after each refusal (a failed connection is not reused).
        EXPECT_EQ(server.connections() - connectionsBefore, static_cast<int>(connections) + 2);
        // The mail still waiting is tried again and stays.
        EXPECT_EQ(agent.drain(std::chrono::seconds(10)).waiting, 1u);
    }
}

TEST(SmtpAgent, WhatWaitsIsDrainedForABoundedTimeAtTeardown) {
    struct Case {
        const char* drain;
        bool serverUp;
        std::size_t left;
        const char* says;  // on standard error
    };
    const std::vector<Case> cases = {
        {"30", true, 0, "5 spooled mails delivered before exit; 0 mails wait in the spool"},
        {"0", true, 5, "5 mails wait in the spool"},
        {"30", false, 5, "the server could not be reached"},
    };
    SmtpTestServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.drain);
        TempDir dir;
        server.kill();
        const std::size_t before = server.messages().size();
        SmtpSettings settings =
            settingsFor(server.url(), {{"spool", dir / "spool"}, {"drain", c.drain}});
        settings.retryFirst = settings.retryMax = std::chrono::seconds(60);
        {
            SmtpAgent agent(settings);
            for (int i = 0; i < 5; ++i) {
                EXPECT_NE(sendFailure(agent, "a@b", {"c@d"}, "x\n"), "");
            }
            if (c.serverUp) {
                server.start();
            }
            testing::internal::CaptureStderr();
        }
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(listDir(dir / "spool/new").size(), c.left);
        EXPECT_EQ(server.messages().size() - before, 5 - c.left);
        EXPECT_TRUE(contains(said, c.says)) << said;
        EXPECT_TRUE(contains(said, dir / "spool")) << said;
    }
}

TEST(SmtpAgent, ACertificateThatDoesNotVerifyIsSpooledAndRetriedOnlyAtTheLongestPause) {
    SmtpTestServer::Options options;
    options.starttls = true;
    SmtpTestServer server(options);
    TempDir dir;
    run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
        " -subj /CN=other -keyout " +
        dir / "other.key" + " -out " + dir / "other.pem" + " 2>/dev/null");
    const std::vector<Params> cases = {
        {{"starttls", "required"}},  // the system's authorities do not know it
        {{"starttls", "try"}},       // offered, so taken, so checked
        {{"starttls", "required"}, {"ca_file", dir / "other.pem"}},
    };
    // Side by side, so that one pause serves them all.
    std::vector<std::unique_ptr<TempDir>> spools;
    std::vector<std::unique_ptr<SmtpAgent>> agents;
    for (Params params : cases) {
        spools.emplace_back(new TempDir);
        params.insert({"spool", *spools.back() / "spool"});
        SmtpSettings settings = settingsFor(server.url(), params);
        settings.retryMax = std::chrono::seconds(3);
        agents.emplace_back(new SmtpAgent(settings));
        for (int i = 0; i < 3; ++i) {
            const std::string text = sendFailure(*agents.back(), "a@b", {"c@d"}, "x\n");
            EXPECT_EQ(
                missingFrom(text, {i == 0 ? "certificate did not verify" : "could not be reached",
                                   "kept in the spool"}),
                "")
                << text;
        }
    }
    // Retried at the shortest pause, each would have come back several times by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    for (const auto& agent : agents) {
        EXPECT_EQ(agent->waiting(), 3u);
    }
    EXPECT_EQ(server.connections(), 3) << "retried before the longest pause";
    EXPECT_TRUE(server.messages().empty());
}

TEST(AgentLeftovers, WhatACrashLeftInTmpIsRemovedOnStart) {
    // A writer that is gone for sure: a child that has ended.
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
    const long day = 24 * 3600;
    const std::string byGone = "1.M1P" + std::to_string(gone) + "Q1.host";
    struct Case {
        bool spool;  // else a Maildir
        std::string name;
        long age;  // seconds
        bool removed;
    };
    const std::vector<Case> cases = {
        {true, byGone, 0, true},
        {true, "1.M1P" + std::to_string(getpid()) + "Q1.host", 0, false},  // still writing
        {true, "made-elsewhere", 0, false},
        {true, "made-elsewhere-long-ago", 2 * day, true},
        {false, byGone, 0, false},
        {false, byGone + "-old", 2 * day, true},
        {false, "just-under", day + day / 2 - 60, false},
    };
    TempDir dir;
    for (const char* sub : {"spool", "spool/tmp", "maildir", "maildir/tmp"}) {
        mkdir((dir / sub).c_str(), 0700);
    }
    for (const Case& c : cases) {
        const std::string path = dir / ((c.spool ? "spool/tmp/" : "maildir/tmp/") + c.name);
        writeFile(path, "half a mail");
        const struct timeval times[2] = {{time(nullptr) - c.age, 0}, {time(nullptr) - c.age, 0}};
        utimes(path.c_str(), times);
    }
    // The agent clears its spool's tmp/ as it starts; no server needs to answer.
    { SmtpAgent agent(settingsFor("smtp://127.0.0.1:1", {{"spool", dir / "spool"}})); }
    deliverToMaildir(MaildirSettings::fromParams({{"path", dir / "maildir"}}), "To: a\n\nb\n");
    for (const Case& c : cases) {
        const auto left = listDir(dir / (c.spool ? "spool/tmp" : "maildir/tmp"));
        EXPECT_EQ(std::find(left.begin(), left.end(), c.name) == left.end(), c.removed) << c.name;
    }
}

TEST(SmtpSettings, ParametersAreCheckedAndSecretsNeverShown) {
    TempDir dir;
    struct Case {
        Params params;
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {{{"url", "http://h"}}, {"\"url\"", "smtp://host:port"}},
        {{{"url", "smtp://"}}, {"without a host"}},
        {{{"url", "smtp://u:Hidden-Pa55@h"}}, {"\"url\" must not contain a user name"}},
        {{{"url", "smtp://h"}, {"starttls", "maybe"}}, {"\"starttls\"", "no, try, required"}},
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
        {{{"url", "smtp://h"}, {"queue", "yes"}}, {"\"queue\"", "without \"spool\""}},
        {{{"url", "smtp://h"}, {"tls_min_version", "1.1"}}, {"\"tls_min_version\"", "1.2, 1.3"}},
        {{{"url", "smtp://h"}, {"client_key", dir / "k"}}, {"\"client_key\" is given without"}},
        {{{"url", "smtp://h"},
          {"auth", "oauth2"},
          {"username", "u"},
          {"oauth2_token_command", "/bin/true"},
          {"password", "Hidden-Pa55"}},
         {"\"password\" is given while auth is \"oauth2\""}},
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
        EXPECT_EQ(missingFrom(text, c.expected), "") << text;
        EXPECT_FALSE(contains(text, "Hidden-Pa55")) << text;
    }
}
