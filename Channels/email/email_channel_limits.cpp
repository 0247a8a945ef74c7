// Reading the bounds of one stylesheet run from the defaults section.

#include <cstring>

#include "Channels/email/email_channel.h"

namespace Osk {

namespace {

const char* const _seconds = "stylesheet_seconds";
const char* const _output = "stylesheet_output_bytes";

// An hour and a gibibyte: beyond them a bound no longer protects the host.
const unsigned long long _maxMilliseconds = 3600ULL * 1000;
const unsigned long long _maxOutput = 1ULL << 30;

[[noreturn]] void _refuse(const std::string& name, const std::string& value, const char* expected) {
    throw ConfigException(Tamtk::ExceptionString("Invalid Limits/@" + name + " [[ " + value +
                                                 " ]]: expected " + expected),
                          TAMTK_HERE("email_channel"));
}

// Digits, optionally a point and up to three more: read without the C
// library, whose decimal point follows the host's locale.
bool _parse_milliseconds(const std::string& text, unsigned long long& ms) {
    const std::string::size_type point = text.find('.');
    const std::string whole = text.substr(0, point);
    const std::string fraction = point == std::string::npos ? "" : text.substr(point + 1);
    if (whole.empty() || whole.size() > 4 || fraction.size() > 3 ||
        (point != std::string::npos && fraction.empty())) {
        return false;
    }
    ms = 0;
    for (const char c : whole + fraction + std::string(3 - fraction.size(), '0')) {
        if (c < '0' || c > '9') {
            return false;
        }
        ms = ms * 10 + static_cast<unsigned>(c - '0');
    }
    return true;
}

bool _parse_bytes(const std::string& text, unsigned long long& bytes) {
    if (text.empty() || text.size() > 10) {
        return false;
    }
    bytes = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        bytes = bytes * 10 + static_cast<unsigned>(c - '0');
    }
    return true;
}

}  // namespace

void email_channel::get_limits(boost::shared_ptr<const Tamxml::Element> defaults) {
    stylesheet_limits_ = Tamxml::TransformLimits();
    boost::shared_ptr<const Tamxml::Element> limits =
        Tamxml::find_first_element(defaults, Tamxml::XPath("Limits"));
    if (!limits) {
        return;
    }
    // A misspelt bound would otherwise leave the default in force unnoticed.
    for (xmlAttrPtr attribute = limits->get()->properties; attribute != nullptr;
         attribute = attribute->next) {
        const std::string name = reinterpret_cast<const char*>(attribute->name);
        if (name != _seconds && name != _output) {
            throw ConfigException(
                Tamtk::ExceptionString("Unknown attribute [[ " + name + " ]] of Limits: expected " +
                                       _seconds + " or " + _output),
                TAMTK_HERE("email_channel"));
        }
    }
    if (boost::shared_ptr<const Tamxml::Attr> seconds = limits->attr(_seconds)) {
        const std::string text = seconds->value()->str();
        unsigned long long ms = 0;
        if (!_parse_milliseconds(text, ms) || ms == 0 || ms > _maxMilliseconds) {
            _refuse(_seconds, text, "seconds from 0.001 to 3600, such as 1 or 0.25");
        }
        stylesheet_limits_.time = std::chrono::milliseconds(ms);
    }
    if (boost::shared_ptr<const Tamxml::Attr> output = limits->attr(_output)) {
        const std::string text = output->value()->str();
        unsigned long long bytes = 0;
        if (!_parse_bytes(text, bytes) || bytes == 0 || bytes > _maxOutput) {
            _refuse(_output, text, "a number of bytes from 1 to 1073741824");
        }
        stylesheet_limits_.output = static_cast<std::size_t>(bytes);
    }
}

}  // namespace Osk
