#include "NetToolkit/Rfc2822Date.h"

#include <clocale>
#include <cstdlib>
#include <ctime>

#include "Toolkit/Time.h"

namespace Tamnet {

namespace {

std::string _format(long time) {
    const std::tm fields = Tamtk::localtime(time);
    // Ample for the format in any real locale.
    char buffer[200];
    const std::size_t length =
        std::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S %z", &fields);
    return std::string(buffer, length);
}

// What the text depends on besides the time itself.
struct DateKey {
    long time = 0;
    std::string tz;
    std::string locale;
    bool tzSet = false;
    bool valid = false;
};

}  // namespace

std::string rfc2822Date(long time) {
    // Alerts come in bursts and every mail of one second carries the same
    // Date; formatting it re-reads the time zone from disk. Keep the last
    // text per thread, and make it again when the second, TZ or the time
    // locale changes.
    thread_local DateKey key;
    thread_local std::string text;
    const char* tz = std::getenv("TZ");
    const char* locale = std::setlocale(LC_TIME, nullptr);
    const bool same = key.valid && key.time == time && key.tzSet == (tz != nullptr) &&
                      (tz == nullptr || key.tz == tz) && key.locale == (locale ? locale : "");
    if (!same) {
        text = _format(time);
        key.time = time;
        key.tzSet = tz != nullptr;
        key.tz = tz ? tz : "";
        key.locale = locale ? locale : "";
        key.valid = true;
    }
    return text;
}

}  // namespace Tamnet
