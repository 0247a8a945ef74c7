// osk-host: runs one channel plug-in outside its framework. It loads the
// plug-in, configures it from a file, feeds it events from an XML stream and
// writes every report of the channel to the log targets.

#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "Osk/Channel.h"
#include "Osk/EventStream.h"
#include "Osk/HostLog.h"
#include "XmlToolkit/Xml.h"

namespace {

const char* const _usage =
    "Usage: osk-host --config FILE [--events FILE|-] [--channel PATH] [--syslog IDENT] "
    "[--progress]\n"
    "\n"
    "Runs a channel plug-in the way its host framework would: createChannel, do_configure with\n"
    "the configuration, do_log for every event, then do_flush and do_shutdown.\n"
    "\n"
    "  --config FILE    the channel's XML configuration (required)\n"
    "  --events FILE    the event stream; - or no option reads standard input\n"
    "  --channel PATH   the plug-in to load (default: the email channel built with this program)\n"
    "  --syslog IDENT   also write reports to the system log under IDENT\n"
    "  --progress       show a live count of events on standard error\n"
    "  --help           this text\n"
    "\n"
    "Event stream:\n"
    "  <Events>\n"
    "    <Event id=\"7\"><alarm><host>db1</host></alarm></Event>\n"
    "    ...\n"
    "  </Events>\n"
    "The single child element of each Event is that event's XML document; id is a decimal number.\n"
    "Events are handled as they arrive, so the stream may be a pipe that stays open. An event\n"
    "without a numeric id or without a document is reported with its line and skipped; at a\n"
    "syntax error every event before it has been delivered, and reading stops there. Entity\n"
    "references are not expanded and nothing outside the stream is ever read.\n"
    "\n"
    "Reports of the channel go to standard error (and the system log with --syslog). At the end\n"
    "one line on standard error gives the events read, the reports by severity, the time taken,\n"
    "the events per second and the peak memory used.\n"
    "\n"
    "SIGINT or SIGTERM stops reading: the events read so far are handled and the program ends\n"
    "normally (agents finish their work, e.g. the SMTP agent drains its spool); a second signal\n"
    "ends it at once.\n"
    "\n"
    "Exit status: 0 configured and every event read; 1 an event skipped or the stream broken;\n"
    "2 configuration failed; 64 bad command line; 69 the plug-in could not be loaded.\n";

struct Options {
    std::string config;
    std::string events = "-";
    std::string channel;
    std::string syslogIdent;
    bool progress = false;
};

// The email channel built beside this program: <prefix>/bin/osk-host and <prefix>/lib/.
std::string _defaultChannel() {
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        return "libemail_channel.so";
    }
    exe[n] = '\0';
    std::string dir(exe);
    dir = dir.substr(0, dir.rfind('/'));
    return dir.substr(0, dir.rfind('/')) + "/lib/libemail_channel.so";
}

bool _parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                std::cerr << "osk-host: " << arg << " needs a value\n";
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
        } else if (arg == "--progress") {
            options.progress = true;
        } else {
            std::cerr << "osk-host: unknown option " << arg << "\n";
            return false;
        }
    }
    if (options.config.empty()) {
        std::cerr << "osk-host: --config is required\n";
        return false;
    }
    if (options.channel.empty()) {
        options.channel = _defaultChannel();
    }
    return true;
}

typedef boost::shared_ptr<Osk::Channel> (*CreateChannel)();

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

// The process's peak resident size in KiB, 0 when unknown. VmHWM belongs to
// this program's own address space; getrusage() would also count whatever
// the parent had resident when it started us.
unsigned long _peakKib() {
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr)
        return 0;
    char line[256];
    unsigned long kib = 0;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmHWM: %lu kB", &kib) == 1)
            break;
    }
    std::fclose(status);
    return kib;
}

// Set by SIGINT or SIGTERM: the host stops reading and shuts down the way
// it does at the end of the stream, so that plug-ins finish their work.
volatile std::sig_atomic_t _interrupted = 0;

void _onSignal(int signal) {
    _interrupted = signal;
}

// Without SA_RESTART, so a read waiting for input returns; SA_RESETHAND,
// so a second signal ends the program at once.
void _stopOnSignals() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = _onSignal;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string _position(const std::string& events, int line) {
    std::string where = events == "-" ? "stdin" : events;
    if (line > 0)
        where += ":" + std::to_string(line);
    return where;
}

int _run(const Options& options, Osk::HostLog& log) {
    void* plugin = dlopen(options.channel.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::cerr << "osk-host: cannot load " << options.channel << ": " << dlerror() << "\n";
        return 69;
    }
    CreateChannel create = reinterpret_cast<CreateChannel>(dlsym(plugin, "createChannel"));
    if (create == nullptr) {
        std::cerr << "osk-host: " << options.channel << " has no createChannel\n";
        return 69;
    }

    int status = 0;
    unsigned long events = 0;
    unsigned long skipped = 0;
    Progress progress(options.progress);
    const auto started = std::chrono::steady_clock::now();
    {
        boost::shared_ptr<Osk::Channel> channel = create();
        channel->set_reporter(
            [&log, &progress](const Tamlog::severity_mask& sev, const std::string& text) {
                progress.interrupt();
                log.report(sev, text);
            });

        bool configured = false;
        try {
            Osk::ChannelCfg cfg(Tamxml::Document::fromFile(options.config));
            configured = channel->do_configure(cfg);
            if (!configured) {
                std::cerr << "osk-host: the channel did not accept " << options.config << "\n";
            }
        } catch (const Tamtk::Exception& e) {
            std::cerr << "osk-host: configuration failed: " << e.what() << "\n  at " << e.location()
                      << "\n";
        } catch (const std::exception& e) {
            std::cerr << "osk-host: configuration failed: " << e.what() << "\n";
        }

        if (!configured) {
            status = 2;
        } else {
            Osk::EventStream stream(options.events, &_interrupted);
            for (;;) {
                if (_interrupted)
                    break;
                Osk::EventStream::Problem problem;
                bool hadProblem = false;
                boost::shared_ptr<Osk::ChannelEvent> event = stream.next(problem, hadProblem);
                if (hadProblem) {
                    progress.interrupt();
                    std::cerr << "osk-host: " << _position(options.events, problem.line) << ": "
                              << problem.message << "\n";
                    status = 1;
                    if (problem.fatal)
                        break;
                    ++skipped;
                    continue;
                }
                if (!event)
                    break;
                channel->do_log(event);
                ++events;
                progress.update(events);
            }
            progress.finish(events);
            if (_interrupted) {
                std::cerr << "osk-host: " << strsignal(_interrupted) << ": stopped reading\n";
            }
        }
        channel->do_flush();
        channel->do_shutdown();
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    char timing[64];
    std::snprintf(timing, sizeof timing, "%.3f s, %.0f events/s", seconds,
                  seconds > 0 ? events / seconds : 0.0);
    std::cerr << "osk-host: " << events << " events read";
    if (skipped > 0)
        std::cerr << " (" << skipped << " skipped)";
    std::cerr << ", reports: " << log.summary() << ", " << timing;
    if (const unsigned long kib = _peakKib())
        std::cerr << ", peak memory " << kib << " KiB";
    std::cerr << "\n";
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
    Osk::HostLog log(options.syslogIdent);
    _stopOnSignals();
    return _run(options, log);
}
