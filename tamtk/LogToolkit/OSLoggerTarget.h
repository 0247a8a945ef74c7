#pragma once

#include <functional>
#include <string>

#include "LogToolkit/Target.h"

namespace Tamlog {

// Turns the severities of a record into a system-log level (0 to 7).
typedef std::function<int(const SeverityBag& severities)> SeverityConverter;

namespace posix_syslog {

// How the system log is opened.
struct TAMTK_API init_data {
    // Facility LOG_USER, option LOG_PID, the program's name as identity.
    init_data();
    explicit init_data(const std::string& ident);
    init_data(const std::string& ident, int facility);

    std::string ident;  // empty: the program's name
    int facility;       // one of the LOG_ facilities of <syslog.h>
    int options;        // LOG_PID, LOG_CONS, ... of <syslog.h>
};

// Opens (or reopens) the system log. An unknown facility fails with
// "Could not initialise subsystem. Last system error (22) reports ...".
TAMTK_API void init_subsystem(const init_data& data);
// The short form: options LOG_PID.
TAMTK_API void init_subsystem(const char* ident, int facility);

// Starts from 0 and ORs in 1 for alert, 2 for critical, 3 for error, 4 for
// warning, 5 for notice, 6 for info and 7 when the record has debug bits.
// A single severity thus gets its own level; several are ORed together
// (warning with notice gives 5), and a record with none of them (audit
// severities, no_sev) gets 0, the emergency level. Kept that way on purpose:
// it is the level operators' filters have always seen.
TAMTK_API int default_converter(const SeverityBag& severities);
// The same one-line layout as the stream targets.
TAMTK_API std::string default_formatter(const SeverityBag& severities, const Tamtk::Location& where,
                                        const Event& event, const std::string& why,
                                        const InfoBag& info);
// True for the LOG_ facilities of <syslog.h>.
TAMTK_API bool isFacility(int facility);

}  // namespace posix_syslog

// Settings of the system-log target: what it accepts, the layout of the
// text, the severity converter and the facility records are written at.
class TAMTK_API OSLoggerTargetSettings : public TargetSettings {
public:
    // Accepts OSLoggerTarget::standardSevMask(), default formatter and
    // converter, facility LOG_USER.
    OSLoggerTargetSettings();
    explicit OSLoggerTargetSettings(const SeverityBag& accepted, std::uint64_t debugMask = 0);

    const RecordFormatter& formatter() const { return formatter_; }
    const SeverityConverter& converter() const { return converter_; }
    int facility() const { return facility_; }
    // Empty functions and unknown facilities are refused.
    void setFormatter(const RecordFormatter& formatter);
    void setSevConverter(const SeverityConverter& converter);
    void setFacility(int facility);

protected:
    TargetSettings* do_clone() const override;

private:
    RecordFormatter formatter_;
    SeverityConverter converter_;
    int facility_;
};

// Writes records to the system log with syslog(3).
class TAMTK_API OSLoggerTarget : public Target {
public:
    explicit OSLoggerTarget(const std::string& name);
    // `settings` must be OSLoggerTargetSettings; a copy is installed.
    OSLoggerTarget(const std::string& name, const Tamtk::CountedRef<TargetSettings>& settings);

    void setFormatter(const RecordFormatter& formatter);
    void setSevConverter(const SeverityConverter& converter);
    void setFacility(int facility);

    void do_sendlog(const SeverityBag& severities, const Tamtk::Location& where, const Event& event,
                    const std::string& why, const InfoBag& info) const override;
    Tamtk::CountedRef<Target> do_clone() const override;
    // Only OSLoggerTargetSettings (or a class derived from it) fit.
    void assert_settings(Tamtk::CountedRef<TargetSettings> settings) const override;
    SeverityBag getDefaultSevMask() const override;

    // critical, alert, error, warning, notice and info. The audit severities
    // are left out: the converter maps them to the emergency level, which
    // the system log broadcasts to every terminal.
    static SeverityBag standardSevMask();
};

}  // namespace Tamlog
