#include "Channels/email/make_charset.h"

#include <iconv.h>

#include <boost/smart_ptr/make_shared_array.hpp>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Toolkit/Exceptions.h"

namespace Osk {
namespace EmailChannel {

namespace {

const char* const _source = "make_charset";
const iconv_t _badHandle = reinterpret_cast<iconv_t>(-1);

// Written in place of a character the target charset cannot represent: U+25A0.
const Tamtk::Utf8Char _replacement(static_cast<wchar_t>(0xE296A0));

void no_cleanup(const char*) {}

// Closes an iconv handle on every path out of a scope.
class IconvHandle {
public:
    explicit IconvHandle(const char* charset) : handle_(iconv_open(charset, "UTF-8")) {}
    ~IconvHandle() {
        if (ok())
            iconv_close(handle_);
    }
    IconvHandle(const IconvHandle&) = delete;
    IconvHandle& operator=(const IconvHandle&) = delete;
    bool ok() const { return handle_ != _badHandle; }
    iconv_t get() const { return handle_; }
    // Back to the initial shift state, as a freshly opened handle.
    void reset() { iconv(handle_, nullptr, nullptr, nullptr, nullptr); }

private:
    iconv_t handle_;
};

[[noreturn]] void _throw_errno(int error) {
    TAMTK_THROW(Tamtk::Exception, _source, std::strerror(error));
}

// One character into `out` (cleared first) through `cd`; on failure the
// replacement character instead when `replace` is set.
bool _convert_with(iconv_t cd, const Tamtk::Utf8Char& ch, char* out, unsigned int size,
                   bool replace) {
    std::memset(out, 0, size);
    char* in = const_cast<char*>(ch.c_str());
    size_t inLeft = ch.length();
    char* outPtr = out;
    size_t outLeft = size;
    if (iconv(cd, &in, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1)) {
        return true;
    }
    if (!replace) {
        return false;
    }
    return _convert_with(cd, _replacement, out, size, false);
}

// Converts one character with a conversion of its own.
bool _convert_single(const char* charset, const Tamtk::Utf8Char& ch, char* out, unsigned int size,
                     bool replace) {
    IconvHandle cd(charset);
    if (!cd.ok()) {
        _throw_errno(errno);
    }
    std::memset(out, 0, size);
    char* in = const_cast<char*>(ch.c_str());
    size_t inLeft = ch.length();
    char* outPtr = out;
    size_t outLeft = size;
    if (iconv(cd.get(), &in, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1)) {
        return true;
    }
    return replace ? _convert_single(charset, _replacement, out, size, false) : false;
}

// A reset handle gives the same bytes as a fresh one for most charsets; those
// that mark the start of their output (a byte order mark, say) do not. One
// probe per charset tells which, so the per-character pass can keep one handle.
bool _resettable(const char* charset) {
    static std::mutex lock;
    static std::map<std::string, bool> known;
    std::lock_guard<std::mutex> guard(lock);
    auto found = known.find(charset);
    if (found != known.end()) {
        return found->second;
    }
    const Tamtk::Utf8Char probe('a');
    char fresh[9], reused[9];
    bool same = false;
    IconvHandle cd(charset);
    if (cd.ok()) {
        _convert_single(charset, probe, fresh, 8, true);
        _convert_with(cd.get(), probe, reused, 8, true);
        cd.reset();
        _convert_with(cd.get(), probe, reused, 8, true);
        same = std::memcmp(fresh, reused, sizeof fresh - 1) == 0;
    }
    known[charset] = same;
    return same;
}

// The slow pass: character by character, replacing what cannot be converted.
CharsetString _make_charset_skipping_invalid(const char* charset, const Tamtk::Utf8Array& text,
                                             unsigned int limit) {
    IconvHandle cd(charset);
    if (!cd.ok()) {
        _throw_errno(errno);
    }
    const bool reuse = _resettable(charset);
    std::string accumulated;
    char buffer[9];
    unsigned int countdown = limit;
    for (Tamtk::Utf8Array::const_iterator it = text.begin(), end = text.end();
         it != end && countdown != 0; --countdown, ++it) {
        std::memset(buffer, 0, sizeof buffer);
        bool converted;
        if (reuse) {
            cd.reset();
            converted = _convert_with(cd.get(), *it, buffer, 8, true);
        } else {
            converted = _convert_single(charset, *it, buffer, 8, true);
        }
        if (converted) {
            // Measured up to the first zero byte: charsets with zero bytes
            // inside characters lose them here.
            accumulated.append(buffer, std::strlen(buffer));
        }
    }
    if (accumulated.empty()) {
        TAMTK_THROW(Tamtk::Exception, _source, "Returned zero-length conversion");
    }
    char* copy = new char[accumulated.size()];
    std::memcpy(copy, accumulated.data(), accumulated.size());
    return CharsetString{boost::shared_ptr<const char>(copy, std::default_delete<const char[]>()),
                         static_cast<unsigned>(accumulated.size())};
}

// Opening a conversion costs about as much as converting a long header
// line, so each thread keeps one handle per charset it converts to and
// resets it before every use. Only charsets whose reset handle gives the
// same bytes as a fresh one are kept (see _resettable); the others get a
// handle of their own each time, as does any charset past the first few.
class KeptHandles {
public:
    KeptHandles() = default;
    KeptHandles(const KeptHandles&) = delete;
    KeptHandles& operator=(const KeptHandles&) = delete;
    ~KeptHandles() {
        for (const Entry& entry : entries_) {
            if (entry.handle != _badHandle)
                iconv_close(entry.handle);
        }
    }

    // The kept handle for `charset`, or _badHandle when it is not kept.
    iconv_t get(const char* charset) {
        for (const Entry& entry : entries_) {
            if (entry.charset == charset)
                return entry.handle;
        }
        if (entries_.size() >= _maxEntries) {
            return _badHandle;
        }
        iconv_t handle = _resettable(charset) ? iconv_open(charset, "UTF-8") : _badHandle;
        entries_.push_back(Entry{charset, handle});
        return handle;
    }

private:
    static const std::size_t _maxEntries = 8;
    struct Entry {
        std::string charset;
        iconv_t handle;  // _badHandle: open a fresh one for every conversion
    };
    std::vector<Entry> entries_;
};

thread_local KeptHandles t_keptHandles;

// The conversion one make_charset call works with: the thread's kept handle
// where there is one, else a handle of its own that is closed with it.
class Conversion {
public:
    explicit Conversion(const char* charset) : handle_(t_keptHandles.get(charset)) {
        if (handle_ == _badHandle) {
            own_.reset(new IconvHandle(charset));
            handle_ = own_->get();
        }
    }
    Conversion(const Conversion&) = delete;
    Conversion& operator=(const Conversion&) = delete;
    bool ok() const { return handle_ != _badHandle; }
    iconv_t get() const { return handle_; }
    void reset() { iconv(handle_, nullptr, nullptr, nullptr, nullptr); }

private:
    iconv_t handle_;
    std::unique_ptr<IconvHandle> own_;
};

bool _is_utf8(const char* charset) {
    static const char utf8[] = "UTF-8";
    for (std::size_t i = 0; i < sizeof utf8; ++i) {
        const char c = charset[i];
        if ((c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c) != utf8[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

CharsetString make_charset(const char* charset, const Tamtk::Utf8Array& text, unsigned int limit) {
    const char* begin = text.data();
    const char* end = begin + text.length();
    // No text has more characters than bytes: most are short of the limit
    // without being counted.
    if (limit != noLimit && limit < text.length() && limit < text.size()) {
        Tamtk::Utf8Array::const_iterator cut = text.begin();
        std::advance(cut, limit);
        end = text.range(text.begin(), cut).second;
    }
    const unsigned inLength = static_cast<unsigned>(end - begin);

    // The comparison ignores case: "utf-8" is the same charset to every mail reader.
    if (_is_utf8(charset)) {
        return CharsetString{boost::shared_ptr<const char>(begin, no_cleanup), inLength};
    }

    Conversion cd(charset);
    for (unsigned factor = 2;; ++factor) {
        if (factor > 8) {
            TAMTK_THROW(Tamtk::Exception, _source,
                        "Output data exceeds input data by more a factor of 8");
        }
        const std::size_t capacity = static_cast<std::size_t>(inLength) * factor;
        // One allocation for the bytes and their count, and no clearing.
        const boost::shared_ptr<char[]> buffer =
            boost::make_shared_noinit<char[]>(capacity ? capacity : 1);
        const boost::shared_ptr<const char> output(buffer, buffer.get());
        if (!cd.ok()) {
            return _make_charset_skipping_invalid(charset, text, limit);
        }
        cd.reset();
        char* in = const_cast<char*>(begin);
        size_t inLeft = inLength;
        char* out = buffer.get();
        size_t outLeft = capacity;
        if (iconv(cd.get(), &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1)) {
            if (errno == E2BIG) {
                continue;
            }
            return _make_charset_skipping_invalid(charset, text, limit);
        }
        if (inLeft != 0) {
            TAMTK_THROW(Tamtk::Exception, _source, "Error translating email");
        }
        // Shifting charsets (ISO-2022-JP) end in their initial state, so the
        // text can be cut and decoded on its own.
        if (iconv(cd.get(), nullptr, nullptr, &out, &outLeft) == static_cast<size_t>(-1)) {
            continue;
        }
        return CharsetString{output, static_cast<unsigned>(capacity - outLeft)};
    }
}

}  // namespace EmailChannel
}  // namespace Osk
