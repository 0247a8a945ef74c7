// UTF-8 arrays: construction, stepping both ways, size(), the last character,
// insertion, writing through an iterator, and the independence of copies.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "Toolkit/Exceptions.h"
#include "Toolkit/Utf8Array.h"

using fuzzing::check;
using Tamtk::Utf8Array;
using Tamtk::Utf8Char;

namespace {

// Positions of the characters walked forward, or backward (in forward order);
// `complete` when no malformed sequence stopped the walk.
std::vector<const char*> _walk(const Utf8Array& text, bool backward, bool& complete) {
    std::vector<const char*> at;
    complete = false;
    try {
        for (Utf8Array::const_iterator it = text.end(); backward && it != text.begin();) {
            at.insert(at.begin(), (--it).position());
        }
        for (Utf8Array::const_iterator it = text.begin(); !backward && it != text.end(); ++it) {
            // A byte that opens no sequence gives an empty character; the
            // step after it must refuse to go on.
            check(!it->empty() || Tamtk::internal::utf8::num_utf8_chars(*it.position()) == 0,
                  "iterator stands on an empty character inside the text");
            at.push_back(it.position());
        }
        complete = true;
    } catch (const Tamtk::Utf8Exception&) {
    }
    return at;
}

Utf8Char _character(FuzzedDataProvider& in) {
    Utf8Char c;
    const std::string bytes = in.ConsumeBytesAsString(in.ConsumeIntegralInRange(1, 6));
    if (bytes.empty())
        return c;
    if (in.ConsumeBool())
        return Utf8Char(bytes[0]);
    try {
        c.raw_copy(bytes.data(), static_cast<unsigned>(bytes.size()));
    } catch (const Tamtk::Utf8Exception&) {
    }
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const unsigned packed = in.ConsumeIntegral<unsigned>();
    const Utf8Char inserted = _character(in);
    const unsigned where = in.ConsumeIntegral<unsigned>();
    const std::string bytes = in.ConsumeRemainingBytesAsString();

    try {
        const Utf8Char fromPacked(static_cast<wchar_t>(packed));
        check(fromPacked.length() <= 6, "character of more than six bytes");
    } catch (const Tamtk::Utf8Exception&) {
    }

    const Utf8Array text(bytes.data(), static_cast<unsigned>(bytes.size()));
    check(text.length() == bytes.size() && text.str() == bytes, "construction changed the bytes");
    check(text.c_str()[text.length()] == '\0', "text is not NUL-terminated");

    bool forwardComplete = false, backwardComplete = false;
    const std::vector<const char*> forward = _walk(text, false, forwardComplete);
    const std::vector<const char*> backward = _walk(text, true, backwardComplete);
    if (forwardComplete) {
        check(forward.size() == text.size(), "size() differs from the characters walked", bytes);
        check(backwardComplete && backward == forward,
              "walking backward does not retrace the forward walk", bytes);
    }
    if (!bytes.empty()) {
        try {
            const char* last = text.find_start_of_last_char(text.data(), text.length(), true);
            check(!forwardComplete || last == forward.back(),
                  "last character found in the wrong place", bytes);
        } catch (const Tamtk::Utf8Exception&) {
            check(!forwardComplete, "a well-formed text's last character is refused", bytes);
        }
        const char* cut = text.find_start_of_last_char(text.data(), text.length(), false);
        check(cut == nullptr || (cut >= text.data() && cut < text.data() + text.length()),
              "last character found outside the text", bytes);
    }

    // Insertion into a copy at a position the walk reached (or the end).
    const std::size_t chars = forward.size();
    const std::size_t index = chars == 0 ? 0 : where % (chars + 1);
    const std::size_t offset =
        (index < chars ? forward[index] : text.data() + text.length()) - text.data();
    const std::string added(inserted.c_str(), inserted.length());
    const std::string expected = bytes.substr(0, offset) + added + bytes.substr(offset);
    const bool reachable = index < chars || forwardComplete;
    for (int range = 0; range < 2 && reachable; ++range) {
        Utf8Array copy = text;
        const Utf8Array::iterator at = std::next(copy.begin(), static_cast<long>(index));
        if (range) {
            copy.insert(at, inserted.c_str(), inserted.c_str() + inserted.length());
        } else {
            copy.insert(at, inserted);
        }
        check(copy.str() == expected, "insert put the character in the wrong place", bytes);
        check(text.str() == bytes, "insert into a copy changed the original", bytes);
    }
    // Writing through a mutable iterator replaces exactly that character.
    if (index < chars) {
        Utf8Array copy = text;
        Utf8Array::iterator at = std::next(copy.begin(), static_cast<long>(index));
        // A byte that opens no sequence is replaced on its own.
        const std::size_t oldLength = std::max(1u, at->length());
        *at = inserted;
        check(copy.str() == bytes.substr(0, offset) + added + bytes.substr(offset + oldLength),
              "writing through an iterator changed the wrong bytes", bytes);
        check(text.str() == bytes, "writing into a copy changed the original", bytes);
    }
    return 0;
}
