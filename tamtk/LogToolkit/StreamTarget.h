#pragma once

#include <iostream>
#include <memory>
#include <ostream>
#include <string>

#include "LogToolkit/Target.h"
#include "Toolkit/Locks.h"

namespace Tamlog {

// When a stream target's records leave the stream's buffer.
enum class StdErrBuffering {
    flushEachRecord,  // flush after every record, so nothing waits in a buffer
    streamBuffered,   // leave flushing to the stream
};

// The character type of the stream behind "stderr".
enum class StdErrCharType {
    narrow,  // std::cerr
    // std::wcerr, records widened from UTF-8. The C library's stderr then
    // becomes wide-oriented, and narrow writes to it (std::cerr, fprintf) are
    // dropped by the C library from then on.
    wide,
};

// Settings of a stream target: what it accepts, how a record is laid out and
// whether each record is flushed.
class TAMTK_API StreamTargetSettings : public TargetSettings {
public:
    // Accepts Target::standardSevMask(), lays records out with formatRecord
    // and flushes each record.
    StreamTargetSettings();
    explicit StreamTargetSettings(const SeverityBag& accepted, std::uint64_t debugMask = 0);

    const RecordFormatter& formatter() const { return formatter_; }
    // An empty formatter is refused.
    void setFormatter(const RecordFormatter& formatter);
    StdErrBuffering buffering() const { return buffering_; }
    void setBuffering(StdErrBuffering buffering) { buffering_ = buffering; }

protected:
    TargetSettings* do_clone() const override;

private:
    RecordFormatter formatter_;
    StdErrBuffering buffering_;
};

// A stream that is safe to share needs no lock of its own: the standard
// streams are (writes to them do not race).
struct TAMTK_API ResourceNoLock {
    void lock() {}
    void unlock() {}
};

// Serialises the writers of a stream that is not safe to share (a file, a
// string stream). Copies share the lock, as they share the stream.
class TAMTK_API ResourceLock {
public:
    ResourceLock() : mutex_(std::make_shared<Tamtk::FastMutex>()) {}
    void lock() { mutex_->lock(); }
    void unlock() { mutex_->unlock(); }

private:
    std::shared_ptr<Tamtk::FastMutex> mutex_;
};

// Writes each record in one piece under the resource's lock.
template <class Resource>
class TAMTK_API BasicStreamPolicy {
public:
    // False when the stream failed; its error state is cleared so that a
    // later record can try again.
    template <class Char>
    bool write(std::basic_ostream<Char>& out, const std::basic_string<Char>& record,
               bool flush) const {
        Tamtk::ScopeLock<Resource> hold(resource_);
        out.write(record.data(), static_cast<std::streamsize>(record.size()));
        if (flush) {
            out.flush();
        }
        if (!out) {
            out.clear();
            return false;
        }
        return true;
    }

private:
    mutable Resource resource_;
};

namespace internal {
namespace stream {

inline std::ostream& standardError(char) {
    return std::cerr;
}
inline std::wostream& standardError(wchar_t) {
    return std::wcerr;
}

inline const std::string& convert(const std::string& text, char) {
    return text;
}
// UTF-8 to wide characters; a malformed sequence becomes U+FFFD.
TAMTK_API std::wstring widenUtf8(const std::string& text);
inline std::wstring convert(const std::string& text, wchar_t) {
    return widenUtf8(text);
}

}  // namespace stream
}  // namespace internal

// What every stream target shares, whatever its stream and lock.
class TAMTK_API BasicStreamTarget : public Target {
public:
    // An empty formatter is refused.
    void setFormatter(const RecordFormatter& formatter);
    void setBuffering(StdErrBuffering buffering);
    // Only StreamTargetSettings (or a class derived from it) fit.
    void assert_settings(Tamtk::CountedRef<TargetSettings> settings) const override;

protected:
    // `settings` must be StreamTargetSettings; a copy is installed.
    BasicStreamTarget(const std::string& name, const Tamtk::CountedRef<TargetSettings>& settings);

    const StreamTargetSettings& streamSettings(const Tamtk::CountedRef<TargetSettings>& s) const;
    // The formatted record with its line end.
    std::string formatLine(const StreamTargetSettings& settings, const SeverityBag& severities,
                           const Tamtk::Location& where, const Event& event, const std::string& why,
                           const InfoBag& info) const;
    [[noreturn]] void writeFailed() const;
};

// A target writing one line per record to a stream. `Policy` decides how
// writers of the stream are serialised, `Char` is the stream's character
// type (records are UTF-8 and widened for wide streams).
template <class Policy, class Char>
class TAMTK_API StreamTarget : public BasicStreamTarget {
public:
    typedef std::basic_ostream<Char> stream_type;

    // Writes to the standard error stream of this character type.
    explicit StreamTarget(const std::string& name)
        : StreamTarget(name, internal::stream::standardError(Char())) {}
    // Writes to `out`, which must outlive the target.
    StreamTarget(const std::string& name, stream_type& out,
                 const Tamtk::CountedRef<TargetSettings>& settings =
                     Tamtk::makeCounted<StreamTargetSettings>())
        : StreamTarget(name, std::shared_ptr<stream_type>(&out, [](stream_type*) {}), settings) {}
    // Writes to a stream whose ownership the target shares.
    StreamTarget(const std::string& name, std::shared_ptr<stream_type> out,
                 const Tamtk::CountedRef<TargetSettings>& settings =
                     Tamtk::makeCounted<StreamTargetSettings>())
        : BasicStreamTarget(name, settings), out_(std::move(out)) {
        TAMTK_ASSERT(out_ != nullptr, "StreamTarget");
    }

    stream_type& stream() const { return *out_; }

    void do_sendlog(const SeverityBag& severities, const Tamtk::Location& where, const Event& event,
                    const std::string& why, const InfoBag& info) const override {
        const Tamtk::CountedRef<TargetSettings> current = currentSettings();
        const StreamTargetSettings& settings = streamSettings(current);
        const std::string line = formatLine(settings, severities, where, event, why, info);
        if (!policy_.write(*out_, internal::stream::convert(line, Char()),
                           settings.buffering() == StdErrBuffering::flushEachRecord)) {
            writeFailed();
        }
    }

    Tamtk::CountedRef<Target> do_clone() const override {
        return Tamtk::CountedRef<Target>(new StreamTarget(*this));
    }

private:
    std::shared_ptr<stream_type> out_;
    Policy policy_;
};

// The "stderr" target: the standard streams need no lock of their own.
typedef StreamTarget<BasicStreamPolicy<ResourceNoLock>, char> StdErrTarget;
typedef StreamTarget<BasicStreamPolicy<ResourceNoLock>, wchar_t> WideStdErrTarget;
// For streams that several threads must not write at once.
typedef StreamTarget<BasicStreamPolicy<ResourceLock>, char> LockedStreamTarget;
typedef StreamTarget<BasicStreamPolicy<ResourceLock>, wchar_t> WideLockedStreamTarget;

extern template class StreamTarget<BasicStreamPolicy<ResourceNoLock>, char>;
extern template class StreamTarget<BasicStreamPolicy<ResourceNoLock>, wchar_t>;
extern template class StreamTarget<BasicStreamPolicy<ResourceLock>, char>;
extern template class StreamTarget<BasicStreamPolicy<ResourceLock>, wchar_t>;

}  // namespace Tamlog
