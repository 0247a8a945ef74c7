// osk-spool: looks into the SMTP agent's spool and acts on it, the way a
// mail server's queue tools do: list, flush, requeue, drop.

#include <cstring>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Agents/common/AgentException.h"
#include "Agents/common/Spool.h"
#include "Programs/osk-spool/SpoolFlush.h"
#include "Programs/osk-spool/SpoolListing.h"
#include "Toolkit/Exception.h"

namespace {

const char* const _usage =
    "Usage: osk-spool list DIR [--json]\n"
    "       osk-spool flush --config FILE\n"
    "       osk-spool requeue DIR [ID...]\n"
    "       osk-spool drop DIR ID...\n"
    "\n"
    "Shows and manages the spool of the SMTP agent: the folder (its parameter \"spool\") where\n"
    "mail waits that the server could not take yet, and where mail the server refused for good\n"
    "is kept (failed/). A mail's ID is its file name.\n"
    "\n"
    "  list DIR           one line per mail, oldest first: ID, state (waiting or failed), when\n"
    "                     it was queued (UTC), its envelope recipients, its subject and, for\n"
    "                     failed mail, the server's reply in brackets; a last line counts them\n"
    "  list DIR --json    a JSON array of objects with the fields id, state, queued,\n"
    "                     recipients (an array), subject and reason (null while waiting)\n"
    "  flush --config FILE\n"
    "                     delivers everything that waits, now, with the SMTP agent's\n"
    "                     parameters from the EmailAgent element of the channel configuration\n"
    "                     FILE (a relative spool path is taken from the current directory), and\n"
    "                     reports each mail it could not deliver; refused mail goes to failed/\n"
    "  requeue DIR [ID...]\n"
    "                     moves failed mail, all of it or the IDs given, back to waiting\n"
    "                     (without the server's reply); it gets a new ID\n"
    "  drop DIR ID...     removes mail, waiting or failed, for good\n"
    "  --help             this text\n"
    "\n"
    "Example:\n"
    "  $ osk-spool list /var/spool/alerts\n"
    "  1700000000.M1P7Q1.host  waiting  2023-11-14T22:13:20Z  ops@example.com  [ALERT] Disk full\n"
    "  1700000060.M2P7Q2.host  failed   2023-11-14T22:14:20Z  old@example.com  [ALERT] Disk full"
    "  [old@example.com: 550 5.1.1 no such user]\n"
    "  2 mails: 1 waiting, 1 failed\n"
    "  $ osk-spool drop /var/spool/alerts 1700000060.M2P7Q2.host\n"
    "  $ osk-spool flush --config /etc/alerts.xml\n"
    "\n"
    "Only one process delivers from a spool at a time, so no mail is sent twice: while another\n"
    "one does (a channel's agent retrying, another flush), flush, requeue and drop say so, change\n"
    "nothing and exit 1; run them again a moment later. IDs are all checked before anything\n"
    "changes.\n"
    "\n"
    "Exit status: 0 done (for flush: nothing waits any more); 1 mail still waits after flush,\n"
    "the spool is locked, or a file could not be changed; 2 DIR is not a spool or group or\n"
    "others may write to it, an ID does not exist, or the configuration names no SMTP agent\n"
    "with a spool (nothing was changed);\n"
    "64 bad command line.\n";

const int _done = 0;
const int _incomplete = 1;
const int _refused = 2;
const int _badUsage = 64;

struct UsageError {
    std::string text;
};

int _fail(int status, const std::string& text) {
    std::cerr << "osk-spool: " << text << "\n";
    return status;
}

// The spool at `dir`, which must exist (a mistyped path must not become a
// new, empty spool) and be private; null, and `why` says which it is not.
std::unique_ptr<Osk::EmailAgents::Spool> _open(const std::string& dir, std::string& why) {
    if (!Osk::EmailAgents::Spool::isSpool(dir)) {
        why = "\"" + dir + "\" is not a spool (no new/, tmp/ and failed/ there)";
        return nullptr;
    }
    try {
        return std::unique_ptr<Osk::EmailAgents::Spool>(new Osk::EmailAgents::Spool(dir));
    } catch (const Osk::EmailAgents::AgentParamException& e) {
        why = e.what();
        return nullptr;
    }
}

bool _plainName(const std::string& id) {
    return !id.empty() && id[0] != '.' && id.find('/') == std::string::npos;
}

bool _readable(const Osk::EmailAgents::Spool& spool, const std::string& id) {
    Osk::EmailAgents::SpooledMessage message;
    std::string failure;
    try {
        return spool.loadFailed(id, message, failure);
    } catch (const Tamtk::Exception&) {
        return false;
    }
}

int _list(const std::vector<std::string>& args) {
    bool json = false;
    std::string dir;
    for (const std::string& a : args) {
        if (a == "--json") {
            json = true;
        } else if (dir.empty() && !a.empty() && a[0] != '-') {
            dir = a;
        } else {
            throw UsageError{"list: unexpected argument " + a};
        }
    }
    if (dir.empty()) {
        throw UsageError{"list needs the spool directory"};
    }
    std::string why;
    const auto spool = _open(dir, why);
    if (!spool) {
        return _fail(_refused, why);
    }
    const std::vector<Osk::SpoolEntry> entries = Osk::readSpool(*spool);
    if (json) {
        Osk::printJson(std::cout, entries);
    } else {
        Osk::printText(std::cout, entries);
    }
    return _done;
}

// requeue and drop: check the directory, take the lock, check every ID, act.
int _change(const std::string& command, const std::vector<std::string>& args) {
    if (args.empty() || (command == "drop" && args.size() < 2)) {
        throw UsageError{command + " needs the spool directory" +
                         (command == "drop" ? " and at least one ID" : "")};
    }
    const std::string& dir = args[0];
    std::string why;
    const auto spool = _open(dir, why);
    if (!spool) {
        return _fail(_refused, why);
    }
    if (!spool->tryLock()) {
        return _fail(_incomplete, "the spool \"" + dir +
                                      "\" is being delivered by another process; nothing was "
                                      "changed, try again in a moment");
    }
    const std::vector<std::string> failedNames = spool->failed();
    const std::set<std::string> failed(failedNames.begin(), failedNames.end());
    const std::vector<std::string> waitingNames = spool->pending();
    const std::set<std::string> waiting(waitingNames.begin(), waitingNames.end());

    std::vector<std::string> ids(args.begin() + 1, args.end());
    const bool everything = ids.empty();
    if (everything) {
        ids = failedNames;  // requeue everything that failed
    }
    std::vector<std::string> checked;
    for (const std::string& id : ids) {
        const bool known =
            _plainName(id) && (failed.count(id) || (command == "drop" && waiting.count(id)));
        if (!known) {
            const char* why = _plainName(id) && waiting.count(id) ? " is waiting, not failed"
                                                                  : " is not in the spool";
            return _fail(_refused, "\"" + id + "\"" + why + "; nothing was changed");
        }
        if (command == "requeue" && !_readable(*spool, id)) {
            // Without an envelope there is nothing to deliver it with.
            if (everything) {
                std::cerr << "osk-spool: left " << id << " in failed/: it has no valid envelope\n";
                continue;
            }
            return _fail(_refused, "\"" + id +
                                       "\" has no valid envelope and cannot be requeued; "
                                       "nothing was changed");
        }
        checked.push_back(id);
    }
    const std::set<std::string> once(checked.begin(), checked.end());
    for (const std::string& id : once) {
        if (command == "requeue") {
            std::cout << "requeued " << id << " as " << spool->requeue(id) << "\n";
        } else if (failed.count(id)) {
            spool->removeFailed(id);
            std::cout << "dropped " << id << " (failed)\n";
        } else {
            spool->remove(id);
            std::cout << "dropped " << id << " (waiting)\n";
        }
    }
    if (once.empty()) {
        std::cout << "no failed mail to requeue\n";
    }
    return _done;
}

int _flush(const std::vector<std::string>& args) {
    if (args.size() != 2 || args[0] != "--config") {
        throw UsageError{"flush needs --config FILE"};
    }
    return Osk::flushSpool(args[1], std::cout, std::cerr);
}

int _run(int argc, char** argv) {
    if (argc < 2) {
        throw UsageError{"no command given"};
    }
    const std::string command = argv[1];
    const std::vector<std::string> args(argv + 2, argv + argc);
    if (command == "--help" || command == "-h" || command == "help") {
        std::cout << _usage;
        return _done;
    }
    for (const std::string& a : args) {
        if (a == "--help" || a == "-h") {
            std::cout << _usage;
            return _done;
        }
    }
    if (command == "list") {
        return _list(args);
    }
    if (command == "flush") {
        return _flush(args);
    }
    if (command == "requeue" || command == "drop") {
        return _change(command, args);
    }
    throw UsageError{"unknown command " + command};
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return _run(argc, argv);
    } catch (const UsageError& e) {
        std::cerr << "osk-spool: " << e.text << "\n\n" << _usage;
        return _badUsage;
    } catch (const Tamtk::Exception& e) {
        std::cerr << "osk-spool: " << e.what() << "\n  at " << e.location() << "\n";
    } catch (const std::exception& e) {
        std::cerr << "osk-spool: " << e.what() << "\n";
    }
    return _incomplete;
}
