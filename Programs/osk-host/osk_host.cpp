// osk-host: runs one channel plug-in outside its framework. It loads the
// plug-in, configures it from a file, feeds it events from an XML stream and
// writes every report of the channel to the log targets.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "Osk/Channel.h"
#include "Programs/osk-host/ChannelSetup.h"
#include "Programs/osk-host/ConfigCheck.h"
#include "Programs/osk-host/EventStream.h"
#include "Programs/osk-host/HostLog.h"
#include "Programs/osk-host/Metrics.h"
#include "Programs/osk-host/SendTest.h"
#include "XmlToolkit/Xml.h"

namespace {

const char* const _usage =
    "Usage: osk-host --config FILE [--events FILE|-] [--channel PATH] [--syslog IDENT] "
    "[--progress]\n"
    "                [--max-event-size BYTES] [--max-event-nodes COUNT] [--metrics FILE]\n"
    "       osk-host --check --config FILE [--probe] [--channel PATH]\n"
    "       osk-host --render --config FILE [--events FILE|-] [--channel PATH]\n"
    "       osk-host --send-test --config FILE [--to ADDRESS] [--channel PATH]\n"
    "\n"
    "Runs a channel plug-in the way its host framework would: createChannel, do_configure with\n"
    "the configuration, do_log for every event, then do_flush and do_shutdown.\n"
    "\n"
    "  --config FILE            the channel's XML configuration (required)\n"
    "  --events FILE            the event stream; - or no option reads standard input\n"
    "  --channel PATH           the plug-in to load (default: the email channel built with this\n"
    "                           program)\n"
    "  --syslog IDENT           also write reports to the system log under IDENT\n"
    "  --progress               show a live count of events on standard error\n"
    "  --max-event-size BYTES   skip an event larger than this, from <Event to its end tag\n"
    "                           (default 16777216, 16 MiB)\n"
    "  --max-event-nodes COUNT  skip an event of more elements than this, itself included\n"
    "                           (default 1000000)\n"
    "  --metrics FILE           keep FILE up to date, in the Prometheus text format (for\n"
    "                           node_exporter's textfile collector), with the figures of the\n"
    "                           closing line and the alerts sent to the agent: replaced every\n"
    "                           5 s and at the very end\n"
    "  --check                  only check the configuration, send nothing: the channel's\n"
    "                           verdict, tokens that do not load and the messages they cut,\n"
    "                           placeholders without a token, groups without events,\n"
    "                           duplicates, the agent and its parameters; one line per finding\n"
    "                           on standard output; exit 0 clean, 1 warnings, 2 errors\n"
    "  --probe                  with --check, the agent's probe instead of its check: it\n"
    "                           reaches what it delivers through (every SMTP relay: TLS, EHLO,\n"
    "                           AUTH) and sends no mail\n"
    "  --render                 a run that sends, writes and connects nothing: each mail is\n"
    "                           printed on standard output as a reader sees it (headers and\n"
    "                           body decoded to UTF-8); the configured agent is never loaded;\n"
    "                           reports and exit status as for a run\n"
    "  --send-test              send one test alert (saying it is a test, from which host and\n"
    "                           configuration, when) through the configured agent and wait for\n"
    "                           it, even where the agent would queue it; tells on standard\n"
    "                           output whether it was delivered, kept or refused, and why;\n"
    "                           exit 0 delivered, 1 kept, 2 configuration failed, 3 refused\n"
    "  --to ADDRESS             with --send-test, the recipient instead of the configured ones\n"
    "  --help                   this text\n"
    "\n"
    "Event stream:\n"
    "  <Events>\n"
    "    <Event id=\"7\"><alarm><host>db1</host></alarm></Event>\n"
    "    ...\n"
    "  </Events>\n"
    "The single child element of each Event is that event's XML document; id is a decimal number.\n"
    "Events are handled as they arrive, so the stream may be a pipe that stays open. An event\n"
    "without a numeric id or without a document, or over a bound, is reported with its line and\n"
    "skipped; an event over a bound is dropped while it is read, so memory stays near the bound.\n"
    "Besides the two bounds above, an event is skipped where the XML parser would give up: a\n"
    "text over 10,000,000 bytes, a tag (with its attributes), comment, CDATA section or\n"
    "processing instruction over 9,000,000 bytes, a name over 50,000 bytes, elements nested\n"
    "deeper than 256. At a syntax error every event before it has been delivered, and\n"
    "reading stops there. Entity references are not expanded and nothing outside the stream is\n"
    "ever read. The stream must be in an encoding that keeps ASCII as it is (UTF-8, ISO-8859-n).\n"
    "\n"
    "Reports of the channel go to standard error (and the system log with --syslog), with their\n"
    "control characters escaped (\\n, \\x1b, ...), as does everything else osk-host writes there.\n"
    "At the very end, after the agents' own exit work (held digests sent, spools drained), one\n"
    "line on standard error gives the events read (and skipped), the lost alerts, the reports by\n"
    "severity, the time taken, the events per second and the peak memory of the whole run.\n"
    "An alert is lost when the channel could not build its mail, or when its agent answered\n"
    "with anything but \"delivered\" or \"kept\": a Maildir on a full disk, an SMTP server that\n"
    "refused it with no spool to keep it. A mail kept for later (in the SMTP agent's spool or its\n"
    "failed/ folder, in the digest agent's hold) is not lost; its report is a warning. The\n"
    "report of a lost alert says why, and osk-host names the event after it.\n"
    "\n"
    "SIGINT or SIGTERM stops reading; the channel is flushed and shut down, the summary is\n"
    "written and osk-host exits as below (a second signal ends it at once). A closed standard\n"
    "error (or output) never stops the delivery.\n"
    "\n"
    "Exit status: 0 configured and every event read and delivered or kept; 1 an event skipped or\n"
    "the stream broken; 2 configuration failed; 3 an alert was lost (wins over 1); 64 bad\n"
    "command line; 69 the plug-in could not be loaded.\n";

struct Options {
    std::string config;
    std::string events = "-";
    std::string channel;
    std::string syslogIdent;
    std::string metrics;
    bool progress = false;
    Osk::EventScanner::Limits limits;
    bool check = false;
    bool probe = false;
    bool render = false;
    bool sendTest = false;
    std::string to;
};

// The email channel sits beside the host's own libraries, in build/lib/ as in
// an installed library folder (lib/, or a multiarch one under /usr): look
// where libosk was loaded from, and else in <bin>/../lib/.
std::string _defaultChannel() {
    static const char channel[] = "libemail_channel.so";
    Dl_info osk;
    if (dladdr(reinterpret_cast<void*>(&Osk::Channel::set_default_reporter), &osk) != 0 &&
        osk.dli_fname != nullptr) {
        const std::string path(osk.dli_fname);
        const std::string::size_type slash = path.rfind('/');
        if (slash != std::string::npos &&
            path.compare(slash + 1, std::string::npos, "libosk.so") == 0) {
            return path.substr(0, slash + 1) + channel;
        }
    }
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        return channel;
    }
    exe[n] = '\0';
    std::string dir(exe);
    dir = dir.substr(0, dir.rfind('/'));
    return dir.substr(0, dir.rfind('/')) + "/lib/" + channel;
}

// A positive decimal count; the whole text must be digits.
bool _count(const std::string& text, std::size_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || value == 0 || value > static_cast<unsigned long long>(SIZE_MAX))
        return false;
    out = static_cast<std::size_t>(value);
    return true;
}

bool _parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                std::cerr << "osk-host: " << Osk::HostLog::clean(arg) << " needs a value\n";
                return false;
            }
            out = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            std::cout << _usage;
            std::exit(0);
        } else if (arg == "--config") {
            if (!value(options.config))
                return false;
        } else if (arg == "--events") {
            if (!value(options.events))
                return false;
        } else if (arg == "--channel") {
            if (!value(options.channel))
                return false;
        } else if (arg == "--syslog") {
            if (!value(options.syslogIdent))
                return false;
        } else if (arg == "--metrics") {
            if (!value(options.metrics))
                return false;
        } else if (arg == "--progress") {
            options.progress = true;
        } else if (arg == "--check") {
            options.check = true;
        } else if (arg == "--probe") {
            options.probe = true;
        } else if (arg == "--render") {
            options.render = true;
        } else if (arg == "--send-test") {
            options.sendTest = true;
        } else if (arg == "--to") {
            if (!value(options.to))
                return false;
        } else if (arg == "--max-event-size" || arg == "--max-event-nodes") {
            std::string text;
            if (!value(text))
                return false;
            if (!_count(text, arg == "--max-event-size" ? options.limits.maxBytes
                                                        : options.limits.maxNodes)) {
                std::cerr << "osk-host: " << arg << " needs a positive number, not "
                          << Osk::HostLog::clean(text) << "\n";
                return false;
            }
        } else {
            std::cerr << "osk-host: unknown option " << Osk::HostLog::clean(arg) << "\n";
            return false;
        }
    }
    if (options.config.empty()) {
        std::cerr << "osk-host: --config is required\n";
        return false;
    }
    if (options.probe && !options.check) {
        std::cerr << "osk-host: --probe goes with --check\n";
        return false;
    }
    if (options.check + options.render + options.sendTest > 1) {
        std::cerr << "osk-host: --check, --render and --send-test go alone\n";
        return false;
    }
    if (!options.to.empty() && !options.sendTest) {
        std::cerr << "osk-host: --to goes with --send-test\n";
        return false;
    }
    if (options.channel.empty()) {
        options.channel = _defaultChannel();
    }
    return true;
}

// SIGINT and SIGTERM end the run the ordinary way, so the plug-ins' static
// destructors run (the SMTP agent drains its spool there). The handler only
// writes the signal's number into a pipe that the event reader watches.
int _stopPipe[2] = {-1, -1};
volatile std::sig_atomic_t _stopSignal = 0;

void _onStopSignal(int sig) {
    const int saved = errno;
    _stopSignal = sig;
    const char byte = 1;
    if (::write(_stopPipe[1], &byte, 1) < 0) {
        // The pipe holds a byte already: the reader will stop all the same.
    }
    errno = saved;
}

void _installSignals() {
    // Standard error or output may be a pipe whose reader is gone; a write
    // there must fail, not kill the run.
    std::signal(SIGPIPE, SIG_IGN);
    if (::pipe2(_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = &_onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // a second signal takes the default way out
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The live count of --progress: one line on standard error, redrawn at most
// a few times a second. Anything else written to standard error first ends
// that line, so reports never land in the middle of it.
class Progress {
public:
    explicit Progress(bool enabled) : enabled_(enabled), shown_(false), drawnOnce_(false) {}

    void update(unsigned long events) {
        if (!enabled_)
            return;
        const auto now = std::chrono::steady_clock::now();
        if (drawnOnce_ && now - drawn_ < std::chrono::milliseconds(200))
            return;
        draw(events);
        drawn_ = now;
        drawnOnce_ = true;
    }
    // Leaves the final count on its own line.
    void finish(unsigned long events) {
        if (!enabled_)
            return;
        draw(events);
        interrupt();
    }
    void interrupt() {
        if (shown_) {
            std::fputc('\n', stderr);
            shown_ = false;
        }
    }

private:
    void draw(unsigned long events) {
        std::fprintf(stderr, "\rosk-host: %lu events", events);
        std::fflush(stderr);
        shown_ = true;
    }

    bool enabled_;
    bool shown_;  // the count line is open on the terminal
    bool drawnOnce_;
    std::chrono::steady_clock::time_point drawn_;
};

std::string _position(const std::string& events, int line) {
    std::string where = events == "-" ? "stdin" : events;
    if (line > 0)
        where += ":" + std::to_string(line);
    return where;
}

// What the closing line tells. It is written by an exit handler registered
// before the channel is loaded: the handlers and static destructors of the
// channel and its agents (the digest agent's last digests, the SMTP agent's
// spool drain) come later and so run first, and the peak memory covers them.
struct Closing {
    const Osk::HostLog* log = nullptr;
    unsigned long events = 0;
    unsigned long skipped = 0;
    unsigned long lost = 0;
    std::chrono::steady_clock::time_point started;
    Osk::HostMetrics* metrics = nullptr;
    unsigned long sent = 0;
};
Closing _closing;

void _writeClosing() {
    if (_closing.log == nullptr)
        return;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - _closing.started).count();
    char timing[64];
    std::snprintf(timing, sizeof timing, "%.3f s, %.0f events/s", seconds,
                  seconds > 0 ? _closing.events / seconds : 0.0);
    std::string summary = std::to_string(_closing.events) + " events read";
    if (_closing.skipped > 0)
        summary += " (" + std::to_string(_closing.skipped) + " skipped)";
    summary += ", lost alerts: " + std::to_string(_closing.lost) +
               ", reports: " + _closing.log->summary() + ", " + timing;
    if (const unsigned long kib = Osk::peakMemoryKib())
        summary += ", peak memory " + std::to_string(kib) + " KiB";
    _closing.log->note(summary);
    if (_closing.metrics != nullptr)
        _closing.metrics->finish({_closing.events, _closing.skipped, _closing.sent, _closing.lost});
}

int _run(const Options& options, Osk::HostLog& log) {
    std::atexit(&_writeClosing);
    const Osk::CreateChannel create = Osk::loadChannel(options.channel, log);
    if (create == nullptr) {
        return 69;
    }

    int status = 0;
    unsigned long events = 0;
    unsigned long skipped = 0;
    unsigned long lost = 0;
    unsigned long sent = 0;
    // Never freed: its last write comes from the exit handler.
    Osk::HostMetrics* const metrics =
        options.metrics.empty() ? nullptr : new Osk::HostMetrics(options.metrics, log);
    Progress progress(options.progress);
    const auto started = std::chrono::steady_clock::now();
    {
        boost::shared_ptr<Osk::Channel> channel = create();
        channel->set_reporter(
            [&log, &progress](const Tamlog::severity_mask& sev, const std::string& text) {
                progress.interrupt();
                log.report(sev, text);
            });

        if (!Osk::configureChannel(*channel, options.config, options.render, log)) {
            status = 2;
        } else {
            Osk::EventStream stream(options.events, options.limits, _stopPipe[0]);
            for (;;) {
                Osk::EventStream::Problem problem;
                bool hadProblem = false;
                boost::shared_ptr<Osk::ChannelEvent> event = stream.next(problem, hadProblem);
                if (hadProblem) {
                    progress.interrupt();
                    log.note(_position(options.events, problem.line) + ": " + problem.message);
                    status = 1;
                    if (problem.fatal)
                        break;
                    ++skipped;
                    continue;
                }
                if (!event)
                    break;
                const unsigned long lostBefore = channel->lost_alerts();
                channel->do_log(event);
                ++events;
                if (channel->lost_alerts() != lostBefore) {
                    progress.interrupt();
                    log.note(_position(options.events, stream.line()) + ": event " +
                             std::to_string(event->id()) + ": the alert is lost");
                }
                progress.update(events);
                if (metrics != nullptr)
                    metrics->update(
                        {events, skipped, channel->sent_alerts(), channel->lost_alerts()});
                if (_stopSignal != 0)
                    break;
            }
            progress.finish(events);
            if (_stopSignal != 0 || stream.stopped()) {
                log.note(std::string("stopped by ") +
                         (_stopSignal == SIGINT ? "SIGINT" : "SIGTERM") +
                         "; shutting the channel down");
            }
        }
        channel->do_flush();
        channel->do_shutdown();
        lost = channel->lost_alerts();
        sent = channel->sent_alerts();
    }
    if (lost > 0)
        status = 3;
    _closing = Closing{&log, events, skipped, lost, started, metrics, sent};
    // The plug-in stays loaded: objects it made may still be referenced at exit.
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!_parse(argc, argv, options)) {
        std::cerr << _usage;
        return 64;
    }
    _installSignals();
    if (options.check) {
        return Osk::checkConfiguration({options.config, options.channel, options.probe}, std::cout);
    }
    // Alive until the closing line, after every exit handler of the plug-ins
    // (and never freed: the handler may still use it).
    static Osk::HostLog* const log = new Osk::HostLog(options.syslogIdent);
    if (options.sendTest) {
        return Osk::sendTest({options.config, options.channel, options.to}, *log, std::cout);
    }
    return _run(options, *log);
}
