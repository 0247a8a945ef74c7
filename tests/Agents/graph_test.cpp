// The Microsoft Graph agent against a local sendMail endpoint
// (tests/support/graph_endpoint.py) that takes the tokens of
// tests/support/token_endpoint.py and parses each message with Python's
// email package.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "Agents/common/AgentException.h"
#include "Agents/graph/GraphAgent.h"
#include "OAuth2TestServers.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

const char* const from = "alerts@example.com";

std::string mail(int n, const std::string& to = "ops@example.com", std::size_t pad = 0) {
    return "From: Alerts <alerts@example.com>\nTo: \"Ops, night\" <" + to + ">\nSubject: alert " +
           std::to_string(n) +
           "\nMIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\n"
           "Content-Transfer-Encoding: 8bit\n\nDisk full on host " +
           std::to_string(n) + " \xc3\xa4\n" + std::string(pad, 'x') + "\n";
}

std::string crlf(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c == '\n' ? "\r\n" : std::string(1, c);
    }
    return out;
}

class Graph : public ::testing::Test {
protected:
    Graph() : secret_(dir_.write("secret", "client-secret-graph\n")), tokens_(tokenOptions()) {
        chmod(secret_.c_str(), 0600);
        mkdir((dir_ / "graph").c_str(), 0700);
        startGraph();
    }
    TokenEndpoint::Options tokenOptions() const {
        TokenEndpoint::Options o;
        o.secretFile = secret_;
        return o;
    }
    void startGraph() {
        graph_.reset();
        graph_.reset(new PythonServer(
            oauth2Script("graph_endpoint.py"),
            {"--state", dir_ / "graph", "--public-key", OAuth2Keys::get().publicKey, "--cert",
             Certificate::get().cert, "--key", Certificate::get().key}));
    }
    Params params(bool queue = false) const {
        return {{"graph_url", "https://127.0.0.1:" + std::to_string(graph_->ports().at(0))},
                {"ca_file", Certificate::get().cert},
                {"oauth2_token_url", tokens_.url()},
                {"oauth2_client_id", "test-client"},
                {"oauth2_scope", "https://graph.microsoft.com/.default"},
                {"oauth2_client_secret_file", secret_},
                {"spool", dir_ / "spool"},
                {"timeout", "10"},
                {"connections", "4"},
                {"queue", queue ? "yes" : "no"}};
    }
    std::unique_ptr<DeliveryEngine> agent(bool queue, std::chrono::milliseconds retryFirst) const {
        GraphSettings s = GraphSettings::fromParams(params(queue));
        s.retryFirst = retryFirst;
        return makeGraphAgent(s);
    }
    void control(const std::string& json) const { writeFile(dir_ / "graph/control.json", json); }
    // "<status> <mailbox> <defects> <message-id>" per request.
    std::vector<std::string> requests() const {
        std::vector<std::string> out;
        std::istringstream in(readFile(dir_ / "graph/requests"));
        for (std::string line; std::getline(in, line);) {
            out.push_back(line);
        }
        return out;
    }
    // The accepted mails, decoded, by their subject line.
    std::map<std::string, std::vector<std::string>> arrived() const {
        std::map<std::string, std::vector<std::string>> out;
        for (const std::string& name : listDir(dir_ / "graph/mail")) {
            if (!contains(name, ".eml") || contains(name, ".part")) {
                continue;  // still being written
            }
            const std::string mime = readFile(dir_ / ("graph/mail/" + name));
            const std::size_t at = mime.find("Subject: ");
            out[mime.substr(at, mime.find('\r', at) - at)].push_back(mime);
        }
        return out;
    }

    TempDir dir_;
    std::string secret_;
    TokenEndpoint tokens_;
    std::unique_ptr<PythonServer> graph_;
};

TEST_F(Graph, EachAnswerSettlesAsGraphMeansIt) {
    enum Where { Delivered, Retried, Refused };
    struct Row {
        const char* control;
        std::string message;
        Where where;
        std::string text;   // in the report
        int graphRequests;  // sendMail requests this mail made
        int tokenFetches;
        bool holdsNext;  // the next mail waits in the spool without a request
    } rows[] = {
        {"{}", mail(1), Delivered, "", 1, 1, false},
        {"{\"next\": [401]}", mail(2), Delivered, "", 2, 2, false},
        {"{\"status\": 401}", mail(3), Retried, "HTTP 401, error \"Error401\"", 2, 2, false},
        {"{\"status\": 503}", mail(4), Retried, "HTTP 503", 1, 1, true},
        {"{\"status\": 400, \"code\": \"ErrorInvalidRecipients\", \"message\": \"no such\"}",
         mail(5), Refused, "\"ErrorInvalidRecipients\": \"no such\"", 1, 1, false},
        {"{\"status\": 413}", mail(6), Refused, "HTTP 413", 1, 1, false},
        {"{}", mail(7, "ops@example.com", 4 * 1024 * 1024), Refused, "more than the 4194304", 0, 0,
         false},
        {"{}", mail(8, "someone@example.com"), Refused, "not among the message's To and Cc", 0, 0,
         false},
        // Last: the endpoint notes every later request as too early.
        {"{\"status\": 429, \"retry_after\": \"30\"}", mail(9), Retried, "HTTP 429", 1, 1, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.control + std::string(" ") + row.text);
        TempDir spool;
        Params p = params();
        p["spool"] = spool.path();
        GraphSettings settings = GraphSettings::fromParams(p);
        settings.retryFirst = std::chrono::minutes(5);  // no retry within the row
        settings.engine.drainMs = 0;
        control(row.control);
        const std::size_t graphBefore = requests().size();
        const std::size_t tokensBefore = tokens_.requests().size();
        std::string text = "delivered";
        {
            const std::unique_ptr<DeliveryEngine> agent = makeGraphAgent(settings);
            try {
                agent->send(from, {"ops@example.com"}, row.message.c_str());
            } catch (const KeptException& e) {
                text = e.what();
            }
            EXPECT_EQ(requests().size() - graphBefore, std::size_t(row.graphRequests));
            if (row.holdsNext) {
                EXPECT_THROW(agent->send(from, {"ops@example.com"}, mail(0).c_str()),
                             KeptException);
                EXPECT_EQ(requests().size() - graphBefore, std::size_t(row.graphRequests));
            }
        }
        EXPECT_EQ(tokens_.requests().size() - tokensBefore, std::size_t(row.tokenFetches));
        EXPECT_TRUE(contains(text, row.text)) << text;
        EXPECT_EQ(listDir(spool / "failed/new").size(), row.where == Refused ? 1u : 0u);
        EXPECT_EQ(listDir(spool / "new").size(),
                  row.where == Retried ? 1u + row.holdsNext : 0u + row.holdsNext);
        if (row.where == Delivered) {
            const std::string last = requests().back();
            EXPECT_TRUE(contains(last, "202 alerts%40example.com 0 <")) << last;
            const std::size_t at = row.message.find("Subject: ");
            const std::string mime =
                arrived().at(row.message.substr(at, row.message.find('\n', at) - at)).at(0);
            const std::string wire = crlf(row.message);
            ASSERT_GT(mime.size(), wire.size());
            EXPECT_EQ(mime.substr(mime.size() - wire.size()), wire);
            EXPECT_TRUE(contains(mime, "Auto-Submitted: auto-generated\r\n"));
        }
    }
}

TEST_F(Graph, QueuedMailSurvivesAKillAndGoesOutOnceAfterARestart) {
    control("{\"status\": 503}");
    const pid_t child = fork();
    if (child == 0) {
        const std::unique_ptr<DeliveryEngine> queued = agent(true, std::chrono::minutes(5));
        for (int i = 0; i < 50; ++i) {
            queued->send(from, {"ops@example.com"}, mail(i).c_str());  // returns: accepted
        }
        raise(SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    control("{}");
    const std::unique_ptr<DeliveryEngine> restarted = agent(true, std::chrono::milliseconds(100));
    ASSERT_TRUE(waitFor([&] { return arrived().size() == 50; }, 60));
    for (const auto& subject : arrived()) {
        EXPECT_EQ(subject.second.size(), 1u) << subject.first;
    }
    EXPECT_EQ(restarted->waiting(), 0u);
}

// The outage run: while Graph cannot be reached a thousand alerts wait in the
// spool, kept; the next run, with Graph back, delivers them and one more, each
// once.
TEST_F(Graph, AlertsOfAnOutageArriveOnceEachInTheNextRun) {
    GraphSettings down = GraphSettings::fromParams(params());
    down.retryFirst = std::chrono::minutes(5);
    graph_.reset();
    {
        const std::unique_ptr<DeliveryEngine> first = makeGraphAgent(down);
        for (int i = 0; i < 1000; ++i) {
            try {
                first->send(from, {"ops@example.com"}, mail(i).c_str());
                ADD_FAILURE() << "alert " << i << " delivered while Graph is down";
            } catch (...) {
                ASSERT_TRUE(Osk::EmailChannel::alertKept(std::current_exception())) << i;
            }
        }
        EXPECT_EQ(first->waiting(), 1000u);
    }
    startGraph();
    const std::unique_ptr<DeliveryEngine> second = agent(false, std::chrono::milliseconds(100));
    second->send(from, {"ops@example.com"}, mail(1000).c_str());
    ASSERT_TRUE(waitFor([&] { return arrived().size() == 1001; }, 120)) << arrived().size();
    for (const auto& subject : arrived()) {
        EXPECT_EQ(subject.second.size(), 1u) << subject.first;
    }
    EXPECT_EQ(second->waiting(), 0u);
}

TEST_F(Graph, AThousandQueuedAlertsThroughThrottlingArriveOnceEachAndWhole) {
    control("{\"throttle_every\": 97, \"retry_after\": \"1\"}");
    const std::unique_ptr<DeliveryEngine> queued = agent(true, std::chrono::milliseconds(100));
    std::map<std::string, std::string> sent;
    for (int i = 0; i < 1000; ++i) {
        sent["Subject: alert " + std::to_string(i)] = crlf(mail(i));
        queued->send(from, {"ops@example.com"}, mail(i).c_str());
    }
    ASSERT_TRUE(waitFor([&] { return arrived().size() == 1000; }, 240)) << arrived().size();
    std::size_t throttled = 0;
    for (const std::string& line : requests()) {
        throttled += line.compare(0, 4, "429 ") == 0;
        EXPECT_TRUE(line.compare(0, 4, "429 ") == 0 || contains(line, " 0 <")) << line;
    }
    EXPECT_GT(throttled, 5u);
    EXPECT_EQ(readFile(dir_ / "graph/early"), "");
    for (const auto& subject : arrived()) {
        ASSERT_EQ(subject.second.size(), 1u) << subject.first;
        const std::string& wire = sent.at(subject.first);
        EXPECT_EQ(subject.second[0].substr(subject.second[0].size() - wire.size()), wire);
    }
}

TEST_F(Graph, SettingsRefuseWhatCannotWork) {
    struct Row {
        Params change;
        std::string text;  // "" when accepted
    } rows[] = {
        {{{"graph_url", "http://127.0.0.1:1"}}, "expected https://host"},
        {{{"graph_url", "http://127.0.0.1:1"}, {"allow_plaintext_auth", "yes"}}, ""},
        {{{"queue", "yes"}, {"spool", ""}}, "\"spool\""},
        {{{"auth", "password"}}, "must be \"oauth2\""},
    };
    for (const Row& row : rows) {
        Params p = params(true);
        for (const auto& change : row.change) {
            if (change.second.empty()) {
                p.erase(change.first);
            } else {
                p[change.first] = change.second;
            }
        }
        SCOPED_TRACE(row.text);
        const std::string got =
            messageOf<AgentParamException>([&] { GraphSettings::fromParams(p); });
        EXPECT_TRUE(contains(got, row.text.empty() ? "no exception" : row.text)) << got;
    }
}

}  // namespace
