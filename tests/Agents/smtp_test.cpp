#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "Agents/maildir/MaildirAgent.h"
#include "Agents/smtp/Spool.h"
#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

std::vector<std::string> spoolFiles(const TempDir& dir, const char* sub) {
    return listDir(dir / (std::string("spool/") + sub));
}

}  // namespace

TEST(SmtpAgent, SendsTheEnvelopeAndTheMessageWithCrLfAndDotStuffing) {
    SmtpTestServer server;
    SmtpAgent agent(settingsFor(server.url()));
    struct Case {
        std::string message;
        std::string arrives;  // as the server stores it, after the lines the agent adds
        bool addsId;
        bool addsAuto;
    };
    const std::vector<Case> cases = {
        {"To: <b@x.example>\nSubject: s\n\nbody\n",
         "To: <b@x.example>\r\nSubject: s\r\n\r\nbody\r\n", true, true},
        {"To: <b@x.example>\n\n.\n..two\n.three\nend\n",
         "To: <b@x.example>\r\n\r\n.\r\n..two\r\n.three\r\nend\r\n", true, true},
        {".first line is a dot line\n", ".first line is a dot line\r\n", true, true},
        {"no final line feed", "no final line feed\r\n", true, true},
        {"already\r\nCRLF\r\n", "already\r\nCRLF\r\n", true, true},
        {"\xc3\xa9\xff bytes\n", "\xc3\xa9\xff bytes\r\n", true, true},
        {"lone\rcarriage return\n", "lone\r\ncarriage return\r\n", true, true},
        // Headers of the mail's own are kept, wherever and however spelt.
        {"To: a\nmessage-id : <own@x>\n\nbody\n", "To: a\r\nmessage-id : <own@x>\r\n\r\nbody\r\n",
         false, true},
        {"AUTO-SUBMITTED: auto-replied\nMessage-ID: <o@x>\n\nb\n",
         "AUTO-SUBMITTED: auto-replied\r\nMessage-ID: <o@x>\r\n\r\nb\r\n", false, false},
        // Only the header counts: the body may say anything.
        {"To: a\n\nMessage-ID: <body@x>\n", "To: a\r\n\r\nMessage-ID: <body@x>\r\n", true, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(
            sendFailure(agent, "alerts@src.example", {"b@x.example", "c@y.example"}, c.message),
            "");
    }
    const auto got = server.messages();
    ASSERT_EQ(got.size(), cases.size());
    std::set<std::string> ids;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        std::string data = got[i].data;
        if (cases[i].addsId) {
            const std::size_t end = data.find(">\r\n");
            ASSERT_EQ(data.compare(0, 13, "Message-ID: <"), 0) << data;
            ASSERT_NE(data.find('@'), std::string::npos) << data;
            ids.insert(data.substr(0, end));
            data.erase(0, end + 3);
        }
        const std::string autoLine = "Auto-Submitted: auto-generated\r\n";
        if (cases[i].addsAuto) {
            ASSERT_EQ(data.compare(0, autoLine.size(), autoLine), 0) << data;
            data.erase(0, autoLine.size());
        }
        EXPECT_EQ(data, cases[i].arrives) << "case " << i;
        EXPECT_EQ(got[i].from, "alerts@src.example");
        EXPECT_EQ(got[i].to, (std::vector<std::string>{"b@x.example", "c@y.example"}));
    }
    EXPECT_EQ(ids.size(), 8u) << "every mail has its own Message-ID";
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
        EXPECT_EQ(missingFrom(text, c.expected), "") << text;
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
        EXPECT_EQ(spooled.message.compare(0, 13, "Message-ID: <"), 0) << spooled.message;
        EXPECT_EQ(spooled.message.substr(spooled.message.size() - message.size()), message);
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

// TLS and AUTH as servers offer them: what arrives, and what an agent that
// may not go on says, never with a credential in it.
TEST(SmtpAgent, TlsAndCredentials) {
    SmtpTestServer::Options secure;  // STARTTLS required, then AUTH PLAIN
    secure.starttls = secure.requireStarttls = true;
    secure.auth = "alerter:s3cret-Pa55";
    SmtpTestServer::Options smtps;
    smtps.implicitTls = true;
    SmtpTestServer::Options plainAuth;  // AUTH offered without STARTTLS
    plainAuth.auth = secure.auth;
    const std::string ca = Certificate::get().cert;
    const Params login = {{"username", "alerter"}, {"password", "s3cret-Pa55"}};
    const auto with = [](Params params, const Params& more) {
        params.insert(more.begin(), more.end());
        return params;
    };
    struct Case {
        const char* name;
        SmtpTestServer::Options server;
        Params params;
        std::vector<std::string> failure;  // empty: delivered
        bool tls;                          // when delivered
    };
    const std::vector<Case> cases = {
        {"STARTTLS and AUTH",
         secure,
         with(login, {{"starttls", "required"}, {"ca_file", ca}}),
         {},
         true},
        {"wrong password",
         secure,
         {{"starttls", "required"},
          {"ca_file", ca},
          {"username", "alerter"},
          {"password", "wrong-Pa55word"}},
         {"535", "lost"},
         false},
        {"issuer unknown",
         secure,
         with(login, {{"starttls", "required"}}),
         {"certificate did not verify", "ca_file"},
         false},
        {"smtps", smtps, {{"ca_file", ca}}, {}, true},
        {"STARTTLS required, not offered",
         {},
         {{"starttls", "required"}},
         {"could not be delivered now"},
         false},
        {"STARTTLS tried, not offered", {}, {{"starttls", "try"}}, {}, false},
        {"credentials, no STARTTLS",
         plainAuth,
         login,
         {"does not offer STARTTLS", "allow_plaintext_auth"},
         false},
        {"plaintext AUTH allowed",
         plainAuth,
         with(login, {{"allow_plaintext_auth", "yes"}}),
         {},
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SmtpTestServer server(c.server);
        SmtpAgent agent(settingsFor(server.url(), c.params));
        const std::string text = sendFailure(agent, "a@b", {"c@d"}, "secret report\n");
        EXPECT_EQ(missingFrom(text, c.failure), "") << text;
        EXPECT_FALSE(contains(text, "Pa55") || contains(text, "alerter")) << text;
        const auto got = server.messages();
        ASSERT_EQ(got.size(), c.failure.empty() ? 1u : 0u);
        if (!got.empty()) {
            EXPECT_EQ(got[0].tls, c.tls);
            EXPECT_EQ(got[0].auth, c.params.count("username") != 0);
        } else if (c.server.auth.empty() == false && !c.server.starttls) {
            EXPECT_EQ(server.authCommands(), 0) << "credentials sent in the clear";
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
    // The retry backoff doubles from one second: on a loaded machine the
    // restarted server may first be met only after 15 s.
    ASSERT_TRUE(waitFor([&] { return agent.waiting() == 0; }, 60));
    // Taken twice: once by the server that died, once after the restart.
    EXPECT_EQ(server.messages().size(), 2u);
}

TEST(SmtpAgent, FallbackRelaysAreTriedInOrderAndTheOneThatWorkedIsKept) {
    SmtpTestServer dead;
    dead.kill();
    SmtpTestServer::Options busyOptions;
    busyOptions.mailReply = "451 4.3.2 busy";
    SmtpTestServer busy(busyOptions);
    SmtpTestServer::Options refusingOptions;
    refusingOptions.mailReply = "554 5.7.1 not from you";
    SmtpTestServer refusing(refusingOptions);
    SmtpTestServer live;
    struct Case {
        std::string urls;
        std::size_t arrivesLive;            // of two messages
        std::vector<std::string> expected;  // in the first message's exception
        std::string absent;                 // not in it
    };
    const std::vector<Case> cases = {
        {dead.url() + " " + live.url(), 2, {}, ""},
        {busy.url() + "  " + live.url(), 2, {}, ""},
        // A permanent refusal is final, and the text names that relay.
        {refusing.url() + " " + live.url(),
         0,
         {"SMTP agent (" + refusing.url() + "): the server refused", "554 5.7.1"},
         live.url()},
        // Nobody takes it: the last relay is named, and the others' answers.
        {dead.url() + " " + busy.url(),
         0,
         {"SMTP agent (" + busy.url() + "): ", "451 4.3.2 busy", "tried before: " + dead.url()},
         ""},
    };
    for (const Case& c : cases) {
        const std::size_t before = live.messages().size();
        const int busyConnections = busy.connections();
        SmtpAgent agent(settingsFor(c.urls));
        const std::string text = sendFailure(agent, "a@b", {"c@d"}, "first\n");
        sendFailure(agent, "a@b", {"c@d"}, "second\n");
        EXPECT_EQ(live.messages().size() - before, c.arrivesLive) << c.urls;
        EXPECT_EQ(missingFrom(text, c.expected), "") << text;
        if (!c.absent.empty()) {
            EXPECT_FALSE(contains(text, c.absent)) << text;
        }
        if (c.arrivesLive == 2 && c.urls.find(busy.url()) == 0) {
            EXPECT_EQ(busy.connections() - busyConnections, 1) << "the working relay is kept";
        }
    }
}

TEST(SmtpAgent, DrainDeliversTheSpoolOverSeveralConnections) {
    TempDir dir;
    SmtpTestServer::Options options;
    options.delay = 0.02;
    SmtpTestServer server(options);
    for (unsigned connections : {1u, 4u}) {
        SCOPED_TRACE(connections);
        const int connectionsBefore = server.connections();
        const std::size_t before = server.messages().size();
        SmtpSettings settings = settingsFor(
            server.url(), {{"spool", dir / "spool"}, {"connections", std::to_string(connections)}});
        settings.retryFirst = std::chrono::seconds(60);  // only drain() delivers
        SmtpAgent agent(settings);
        Spool spool(dir / "spool");  // as an earlier run left it
        for (int i = 0; i < 40; ++i) {
            const std::string to = i == 7 ? "r550.gone@x" : i == 9 ? "r450.busy@x" : "c@d";
            spool.put({"a@b", {to}, "n" + std::to_string(i) + "\n", 0});
        }
        // Another process holding the spool keeps this one out.
        const int fd = open((dir / "spool/lock").c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(flock(fd, LOCK_EX), 0);
        const SmtpAgent::DrainResult locked = agent.drain(std::chrono::seconds(10));
        close(fd);
        EXPECT_TRUE(locked.locked);
        EXPECT_EQ(locked.waiting, 40u);
        EXPECT_EQ(locked.delivered, 0u);

        const SmtpAgent::DrainResult result = agent.drain(std::chrono::seconds(60));
        EXPECT_FALSE(result.locked);
        EXPECT_EQ(result.delivered, 38u);
        EXPECT_EQ(result.failed, 1u);
        EXPECT_EQ(result.waiting, 1u);
        ASSERT_EQ(result.problems.size(), 2u);
        EXPECT_EQ(server.messages().size() - before, 38u);
        // One per worker, and a new one after each refusal (a failed connection is not reused).
        EXPECT_EQ(server.connections() - connectionsBefore, static_cast<int>(connections) + 2);
        // The mail still waiting is tried again and stays.
        EXPECT_EQ(agent.drain(std::chrono::seconds(10)).waiting, 1u);
        for (const std::string& name : spoolFiles(dir, "new")) {
            spool.remove(name);
        }
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.drain);
        TempDir dir;
        SmtpTestServer server;
        server.kill();
        SmtpSettings settings =
            settingsFor(server.url(), {{"spool", dir / "spool"}, {"drain", c.drain}});
        settings.retryFirst = settings.retryMax = std::chrono::seconds(60);
        std::string said;
        const auto start = std::chrono::steady_clock::now();
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
        said = testing::internal::GetCapturedStderr();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_EQ(spoolFiles(dir, "new").size(), c.left);
        EXPECT_EQ(server.messages().size(), 5 - c.left);
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
    for (Params params : cases) {
        TempDir spool;
        params.insert({"spool", spool / "spool"});
        SmtpSettings settings = settingsFor(server.url(), params);
        settings.retryMax = std::chrono::seconds(3);
        const int before = server.connections();
        SmtpAgent agent(settings);
        for (int i = 0; i < 3; ++i) {
            const std::string text = sendFailure(agent, "a@b", {"c@d"}, "x\n");
            EXPECT_TRUE(contains(text, i == 0 ? "ca_file" : "could not be reached")) << text;
            EXPECT_TRUE(contains(text, "kept in the spool")) << text;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_EQ(agent.waiting(), 3u);
        EXPECT_LE(server.connections() - before, 1) << "retried before the longest pause";
    }
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
    struct Case {
        bool spool;  // else a Maildir
        std::string name;
        long age;  // seconds
        bool removed;
    };
    const std::string host = ".host";
    const std::vector<Case> cases = {
        {true, "1.M1P" + std::to_string(gone) + "Q1" + host, 0, true},
        {true, "1.M1P" + std::to_string(getpid()) + "Q1" + host, 0, false},  // still writing
        {true, "made-elsewhere", 0, false},
        {true, "made-elsewhere-long-ago", 2 * day, true},
        {false, "1.M1P" + std::to_string(gone) + "Q1" + host, 0, false},
        {false, "1.M1P" + std::to_string(gone) + "Q1" + host + "-old", 2 * day, true},
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
    SmtpTestServer server;
    { SmtpAgent agent(settingsFor(server.url(), {{"spool", dir / "spool"}})); }
    deliverToMaildir(MaildirSettings::fromParams({{"path", dir / "maildir"}}), "To: a\n\nb\n");
    for (const Case& c : cases) {
        const auto left = listDir(dir / (c.spool ? "spool/tmp" : "maildir/tmp"));
        EXPECT_EQ(std::find(left.begin(), left.end(), c.name) == left.end(), c.removed) << c.name;
    }
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
        EXPECT_EQ(missingFrom(text, c.expected), "") << text;
        EXPECT_FALSE(contains(text, "Hidden-Pa55")) << text;
    }

    const SmtpSettings fromFile = SmtpSettings::fromParams({{"url", "smtps://h"},
                                                            {"username", "u"},
                                                            {"password_file", dir / "pw"},
                                                            {"timeout", "2.5"}});
    EXPECT_EQ(fromFile.password, "from-file-Pa55");
    EXPECT_EQ(fromFile.timeoutMs, 2500);
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
