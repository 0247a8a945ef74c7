#include "Osk/HostLog.h"

#include <sstream>

#include "LogToolkit/LogTarget.h"
#include "LogToolkit/OSLoggerTarget.h"

namespace Osk {

HostLog::HostLog(const std::string& syslogIdent) : syslog_(!syslogIdent.empty()) {
    Tamlog::LogTarget::initStdErr();
    if (syslog_) {
        Tamlog::LogTarget::initOSLogger(Tamlog::posix_syslog::init_data(syslogIdent.c_str()));
    }
}

void HostLog::report(const Tamlog::severity_mask& sev, const std::string& text) {
    ++counts_[Tamlog::severityName(sev)];
    try {
        Tamlog::LogTargetSet targets;
        targets.insert(Tamlog::LogTarget::byname("stderr"));
        if (syslog_) {
            targets |= Tamlog::LogTarget::byname("oslogger");
        }
        Tamlog::sendlog(targets, sev, TAMTK_HERE("osk-host"), "report_error", text);
    } catch (const Tamtk::Exception& e) {
        std::ostringstream line;
        line << "osk-host: could not log a report (" << e << "): " << text << '\n';
        std::fputs(line.str().c_str(), stderr);
    }
}

std::string HostLog::summary() const {
    if (counts_.empty()) {
        return "none";
    }
    std::ostringstream out;
    const char* separator = "";
    for (const auto& count : counts_) {
        out << separator << count.second << ' ' << count.first;
        separator = ", ";
    }
    return out.str();
}

}  // namespace Osk
