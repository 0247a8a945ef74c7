#include "LogToolkit/StreamTarget.h"

#include "LogToolkit/Failure.h"

namespace Tamlog {

namespace {
const char* const _source = "StreamTarget";
}  // namespace

StreamTargetSettings::StreamTargetSettings() : StreamTargetSettings(Target::standardSevMask()) {}

StreamTargetSettings::StreamTargetSettings(const SeverityBag& accepted, std::uint64_t debugMask)
    : TargetSettings(accepted, debugMask),
      formatter_(formatRecord),
      buffering_(StdErrBuffering::flushEachRecord) {}

void StreamTargetSettings::setFormatter(const RecordFormatter& formatter) {
    if (!formatter) {
        TAMTK_THROW(LogException, _source, "In attempt to set new formatter for StreamTarget");
    }
    formatter_ = formatter;
}

TargetSettings* StreamTargetSettings::do_clone() const {
    return new StreamTargetSettings(*this);
}

BasicStreamTarget::BasicStreamTarget(const std::string& name,
                                     const Tamtk::CountedRef<TargetSettings>& settings)
    : Target(name, settings->clone()) {
    BasicStreamTarget::assert_settings(settings);
}

void BasicStreamTarget::assert_settings(Tamtk::CountedRef<TargetSettings> settings) const {
    if (settings.as<StreamTargetSettings>() == nullptr) {
        TAMTK_THROW(LogException, _source,
                    "Settings of type " << settings->typeName()
                                        << " is incompatiable with StreamTargetSettings");
    }
}

const StreamTargetSettings& BasicStreamTarget::streamSettings(
    const Tamtk::CountedRef<TargetSettings>& s) const {
    const StreamTargetSettings* settings = s.as<StreamTargetSettings>();
    TAMTK_ASSERT(settings != nullptr, _source);
    return *settings;
}

void BasicStreamTarget::setFormatter(const RecordFormatter& formatter) {
    changeSettings([&formatter](TargetSettings& next) {
        dynamic_cast<StreamTargetSettings&>(next).setFormatter(formatter);
    });
}

void BasicStreamTarget::setBuffering(StdErrBuffering buffering) {
    changeSettings([buffering](TargetSettings& next) {
        dynamic_cast<StreamTargetSettings&>(next).setBuffering(buffering);
    });
}

std::string BasicStreamTarget::formatLine(const StreamTargetSettings& settings,
                                          const SeverityBag& severities,
                                          const Tamtk::Location& where, const Event& event,
                                          const std::string& why, const InfoBag& info) const {
    try {
        std::string line = settings.formatter()(severities, where, event, why, info);
        line += '\n';
        return line;
    } catch (...) {
        throw internal::util::wrapCurrent<SendlogFailure>(
            "Failure in attempt to format an event for a stream", TAMTK_HERE(_source));
    }
}

void BasicStreamTarget::writeFailed() const {
    TAMTK_THROW(SendlogFailure, _source,
                "Could not write event to the stream of target " << name());
}

namespace internal {
namespace stream {

std::wstring widenUtf8(const std::string& text) {
    static const char32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    const wchar_t replacement = 0xFFFD;
    std::wstring out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        unsigned follow;
        char32_t code;
        if (lead < 0x80) {
            out += static_cast<wchar_t>(lead);
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            follow = 1;
            code = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            follow = 2;
            code = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            follow = 3;
            code = lead & 0x07;
        } else {
            out += replacement;
            ++i;
            continue;
        }
        unsigned taken = 0;
        while (taken < follow && i + 1 + taken < text.size() &&
               (static_cast<unsigned char>(text[i + 1 + taken]) & 0xC0) == 0x80) {
            code = (code << 6) | (static_cast<unsigned char>(text[i + 1 + taken]) & 0x3F);
            ++taken;
        }
        i += 1 + taken;
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        if (taken < follow || code < smallest[follow] || surrogate || code > 0x10FFFF) {
            out += replacement;
        } else {
            out += static_cast<wchar_t>(code);
        }
    }
    return out;
}

}  // namespace stream
}  // namespace internal

template class StreamTarget<BasicStreamPolicy<ResourceNoLock>, char>;
template class StreamTarget<BasicStreamPolicy<ResourceNoLock>, wchar_t>;
template class StreamTarget<BasicStreamPolicy<ResourceLock>, char>;
template class StreamTarget<BasicStreamPolicy<ResourceLock>, wchar_t>;

}  // namespace Tamlog
