// Messages per second through the email agents: the SMTP agent to a local
// aiosmtpd server, with one reused connection and with a new connection per
// message; draining a spool of 10,000 mails over 1 and over 4 connections;
// the Maildir agent with and without flushing to disk; and the digest agent
// per held mail (held on disk, then sent in a digest). The
// server is Python, so the SMTP figures measure the pair, not the agent alone;
// bench/run sets AGENTS_BENCH_SMTP_URL to time Python's smtplib beside them.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "AgentTestSupport.h"
#include "Agents/common/Spool.h"
#include "Agents/digest/DigestAgent.h"
#include "Agents/maildir/MaildirAgent.h"
#include "Agents/smtp/SmtpAgent.h"

using namespace Osk::EmailAgents;

namespace {

// A typical alert: a dozen header lines and a short Base64 body.
const std::string& alert() {
    static const std::string text = [] {
        std::string m =
            "To: <ops@example.org>\nFrom: =?UTF-8?B?QWxlcnRz?=\n <alerts@example.org>\n"
            "Date: Tue, 01 Oct 2024 12:00:00 +0000\nSubject: =?UTF-8?B?ZGlzayBmdWxs?=\n"
            "MIME-Version: 1.0\nContent-Disposition: inline\n"
            "Content-Type: text/plain; charset=\"UTF-8\"\nContent-Transfer-Encoding: base64\n\n";
        for (int i = 0; i < 10; ++i) {
            m += std::string(76, 'Q') + "\n";
        }
        return m;
    }();
    return text;
}

AgentTest::SmtpTestServer& server() {
    static AgentTest::SmtpTestServer::Options options = [] {
        AgentTest::SmtpTestServer::Options o;
        o.record = false;
        return o;
    }();
    static AgentTest::SmtpTestServer s(options);
    return s;
}

// A server started by whoever runs the benchmark (bench/run, to time
// Python's smtplib against the same server in the same run), else our own.
std::string serverUrl() {
    const char* external = std::getenv("AGENTS_BENCH_SMTP_URL");
    return external != nullptr && *external != '\0' ? std::string(external) : server().url();
}

void smtp(benchmark::State& state, bool reuse) {
    SmtpSettings settings = SmtpSettings::fromParams({{"url", serverUrl()}});
    settings.reuseConnection = reuse;
    SmtpAgent agent(settings);
    const std::vector<std::string> to = {"ops@example.org"};
    for (auto _ : state) {
        agent.send("alerts@example.org", to, alert().c_str());
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_SmtpReusedConnection(benchmark::State& state) {
    smtp(state, true);
}
void BM_SmtpNewConnectionPerMessage(benchmark::State& state) {
    smtp(state, false);
}

// aiosmtpd is one asyncio thread: it takes connections side by side, but its
// own work per message is done one at a time. A relay's real work (queueing to
// disk, checks) is what parallel connections hide; the server waits this long
// before it answers each message, without holding up the others.
const double _relayWork = 0.002;

AgentTest::SmtpTestServer& relay() {
    static AgentTest::SmtpTestServer::Options options = [] {
        AgentTest::SmtpTestServer::Options o;
        o.record = false;
        o.delay = _relayWork;
        return o;
    }();
    static AgentTest::SmtpTestServer s(options);
    return s;
}

// The spool is filled while the clock stands still; only drain() is timed.
void BM_SmtpDrain10000(benchmark::State& state) {
    const int mails = 10000;
    AgentTest::TempDir dir;
    SmtpSettings settings =
        SmtpSettings::fromParams({{"url", relay().url()},
                                  {"spool", dir / "spool"},
                                  {"drain", "0"},
                                  {"connections", std::to_string(state.range(0))}});
    settings.retryFirst = std::chrono::hours(1);  // no background pass gets in the way
    SmtpAgent agent(settings);
    Spool spool(dir / "spool");
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < mails; ++i) {
            spool.put({"alerts@example.org", {"ops@example.org"}, alert(), 0});
        }
        state.ResumeTiming();
        const SmtpAgent::DrainResult result = agent.drain(std::chrono::hours(1));
        if (result.delivered != static_cast<std::size_t>(mails)) {
            state.SkipWithError("not every spooled mail was delivered");
        }
    }
    state.SetItemsProcessed(state.iterations() * mails);
}

void BM_Maildir(benchmark::State& state) {
    AgentTest::TempDir dir;
    const MaildirSettings settings = MaildirSettings::fromParams(
        {{"path", dir / "Maildir"}, {"fsync", state.range(0) ? "yes" : "no"}});
    for (auto _ : state) {
        deliverToMaildir(settings, alert().c_str());
    }
    state.SetItemsProcessed(state.iterations());
}

// Each iteration holds a window's worth of mail (written to the hold and
// flushed, as always) and sends it as one digest when the agent goes; the
// inner agent only counts, so the figure is the digest agent's own.
void BM_DigestPerHeldMail(benchmark::State& state) {
    AgentTest::TempDir dir;
    DigestSettings settings = DigestSettings::fromParams({{"agent", FAKE_AGENT_PATH},
                                                          {"burst", "0"},
                                                          {"window", "86400"},
                                                          {"hold", dir / "hold"},
                                                          {"mode", "count"}});
    const Tamnet::EmailAddr from("alerts@example.org");
    const Osk::EmailChannel::ToList to = {Tamnet::EmailAddr("ops@example.org")};
    const int perDigest = static_cast<int>(state.range(0));
    for (auto _ : state) {
        DigestAgent agent(settings);
        for (int i = 0; i < perDigest; ++i) {
            agent.send(from, to, alert().c_str());
        }
    }
    state.SetItemsProcessed(state.iterations() * perDigest);
}

}  // namespace

BENCHMARK(BM_DigestPerHeldMail)
    ->ArgName("mails")
    ->Arg(100)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmtpReusedConnection)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SmtpNewConnectionPerMessage)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SmtpDrain10000)
    ->ArgName("connections")
    ->Arg(1)
    ->Arg(4)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Maildir)
    ->ArgName("fsync")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
