#include "Programs/osk-host/HostLog.h"

#include <cstdio>

#include "LogToolkit/LogTarget.h"
#include "LogToolkit/OSLoggerTarget.h"
#include "Toolkit/Printable.h"

namespace Osk {

namespace {

void _put(const std::string& line) {
    // A closed or full standard error loses the line, never the run.
    if (std::fwrite(line.data(), 1, line.size(), stderr) != line.size()) {
        std::clearerr(stderr);
    }
}

}  // namespace

HostLog::HostLog(const std::string& syslogIdent) : syslog_(!syslogIdent.empty()) {
    Tamlog::LogTarget::initStdErr();
    if (syslog_) {
        Tamlog::LogTarget::initOSLogger(Tamlog::posix_syslog::init_data(syslogIdent.c_str()));
    }
}

std::string HostLog::clean(const std::string& text) {
    return Tamtk::escapeControls(text);
}

void HostLog::report(const Tamlog::severity_mask& sev, const std::string& text) {
    ++counts_[Tamlog::severityName(sev)];
    const std::string why = clean(text);
    // The report's own text says where the channel raised it; the host's
    // location would only tell which line of the host passed it on.
    const Tamtk::Location nowhere;
    try {
        Tamlog::LogTargetSet targets;
        targets.insert(Tamlog::LogTarget::byname("stderr"));
        if (syslog_) {
            targets |= Tamlog::LogTarget::byname("oslogger");
        }
        Tamlog::sendlog(targets, sev, nowhere, "report_error", why);
    } catch (const Tamtk::Exception& e) {
        // Every target was tried; standard error may be the one that failed.
        note("could not log a report (" + std::string(e.what()) + "): " + text);
    }
}

void HostLog::note(const std::string& text) const {
    _put("osk-host: " + clean(text) + "\n");
}

std::string HostLog::summary() const {
    if (counts_.empty()) {
        return "none";
    }
    std::string out;
    const char* separator = "";
    for (const auto& count : counts_) {
        out += separator + std::to_string(count.second) + ' ' + count.first;
        separator = ", ";
    }
    return out;
}

}  // namespace Osk
