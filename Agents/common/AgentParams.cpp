#include "Agents/common/AgentParams.h"

#include <cmath>
#include <locale>
#include <sstream>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/AgentParams";

std::string _lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

template <class Names>
std::string _list(const Names& names) {
    std::string out;
    for (const char* n : names) {
        if (!out.empty()) {
            out += ", ";
        }
        out += n;
    }
    return out;
}

}  // namespace

ParamReader::ParamReader(const char* agent, const Params& params,
                         std::initializer_list<const char*> known)
    : ParamReader(agent, params, std::vector<const char*>(known)) {}

ParamReader::ParamReader(const char* agent, const Params& params,
                         const std::vector<const char*>& known)
    : agent_(agent), params_(params) {
    for (const auto& entry : params) {
        bool found = false;
        for (const char* k : known) {
            found = found || entry.first == k;
        }
        if (!found) {
            TAMTK_THROW(AgentParamException, _source,
                        agent_ << ": unknown parameter \"" << entry.first
                               << "\" (known parameters: " << _list(known) << ")");
        }
    }
}

void ParamReader::fail(const char* name, const std::string& problem) const {
    TAMTK_THROW(AgentParamException, _source,
                agent_ << ": parameter \"" << name << "\" " << problem);
}

bool ParamReader::has(const char* name) const {
    return params_.count(name) != 0;
}

std::string ParamReader::text(const char* name, const std::string& fallback) const {
    auto it = params_.find(name);
    return it == params_.end() ? fallback : it->second;
}

std::string ParamReader::required(const char* name) const {
    auto it = params_.find(name);
    if (it == params_.end()) {
        fail(name, "is required");
    }
    if (it->second.empty()) {
        fail(name, "must not be empty");
    }
    return it->second;
}

bool ParamReader::flag(const char* name, bool fallback) const {
    auto it = params_.find(name);
    if (it == params_.end()) {
        return fallback;
    }
    const std::string v = _lower(it->second);
    if (v == "yes" || v == "true" || v == "on" || v == "1") {
        return true;
    }
    if (v == "no" || v == "false" || v == "off" || v == "0") {
        return false;
    }
    fail(name, "has the value \"" + it->second + "\"; expected yes or no");
}

std::string ParamReader::choice(const char* name, std::initializer_list<const char*> allowed,
                                const char* fallback) const {
    auto it = params_.find(name);
    if (it == params_.end()) {
        return fallback;
    }
    for (const char* a : allowed) {
        if (it->second == a) {
            return it->second;
        }
    }
    fail(name, "has the value \"" + it->second + "\"; expected one of " + _list(allowed));
}

long ParamReader::milliseconds(const char* name, double fallbackSeconds, double maxSeconds,
                               bool zeroAllowed) const {
    auto it = params_.find(name);
    double seconds = fallbackSeconds;
    if (it != params_.end()) {
        // The classic locale: a host that set a decimal comma must not change
        // how "1.5" is read.
        std::istringstream in(it->second);
        in.imbue(std::locale::classic());
        seconds = 0;
        in >> std::noskipws >> seconds;
        if (in.fail() || in.peek() != std::char_traits<char>::eof() || !std::isfinite(seconds) ||
            seconds < 0 || (seconds == 0 && !zeroAllowed) || seconds > maxSeconds) {
            std::ostringstream problem;
            problem << "has the value \"" << it->second << "\"; expected a number of seconds "
                    << (zeroAllowed ? "from 0" : "above 0") << " and at most " << maxSeconds;
            fail(name, problem.str());
        }
    }
    return std::lround(std::ceil(seconds * 1000.0));
}

long ParamReader::integer(const char* name, long fallback, long min, long max) const {
    auto it = params_.find(name);
    if (it == params_.end()) {
        return fallback;
    }
    const std::string& v = it->second;
    long value = 0;
    bool ok = !v.empty() && v.size() <= 9;
    for (char c : v) {
        ok = ok && c >= '0' && c <= '9';
        value = ok ? value * 10 + (c - '0') : value;
    }
    if (!ok || value < min || value > max) {
        std::ostringstream problem;
        problem << "has the value \"" << v << "\"; expected a whole number from " << min << " to "
                << max;
        fail(name, problem.str());
    }
    return value;
}

}  // namespace EmailAgents
}  // namespace Osk
