#pragma once

#include <cstddef>
#include <string>

namespace Osk {

// Walks the raw bytes of an event stream ahead of the XML parser and holds
// each event (a child element of the root) back until its end tag has been
// seen. An event that grows past a bound is dropped while it is read, so the
// parser never builds a tree of it and memory stays near the bound however
// large the event. Besides the host's own bounds, an event is dropped where
// libxml2 (without XML_PARSE_HUGE, which would also lift its guards against
// entity expansion) would stop the whole stream: a text over
// XML_MAX_TEXT_LENGTH, a tag, comment, CDATA section or processing
// instruction near XML_MAX_LOOKUP_LIMIT, a name over XML_MAX_NAME_LENGTH, or
// elements nested deeper than the parser allows.
//
// The scanner understands just enough XML to find where elements start and
// end: tags and their quoted values, comments, CDATA sections, processing
// instructions and the DOCTYPE with its internal subset. It works on bytes,
// so the stream must be in an ASCII-compatible encoding.
class EventScanner {
public:
    struct Limits {
        std::size_t maxBytes = 16u << 20;  // of one event, from '<' to '>'
        std::size_t maxNodes = 1000000;    // elements of one event, itself included
    };
    // An event given up: where it started and why.
    struct Dropped {
        int line;
        std::string why;
        long newlines;  // line breaks in what was dropped
    };

    explicit EventScanner(const Limits& limits);

    // Scans up to `size` bytes and appends to `out` those the parser may
    // have now. Returns how many bytes it took: fewer than `size` when an
    // event has just been dropped (described in `dropped`, `hadDrop` set), so
    // that the caller can keep the order of events and drops.
    std::size_t scan(const char* data, std::size_t size, std::string& out, Dropped& dropped,
                     bool& hadDrop);
    // The stream has ended: what is held back goes to the parser (it will
    // find the stream cut off), or an event being dropped is described.
    void finish(std::string& out, Dropped& dropped, bool& hadDrop);

private:
    enum State {
        text,
        lt,
        bang,
        bangDash,
        comment,
        cdataOpen,
        cdata,
        pi,
        decl,
        subset,
        startTag,
        endTag
    };

    void beginEvent();
    void drop(const std::string& why);
    bool endEvent(std::string& out, Dropped& dropped);  // true when it was dropped
    void checkRun(std::size_t run, std::size_t limit, const char* what);
    void closeMarkup();
    std::size_t takeText(const char* data, std::size_t size, std::string& out);

    Limits limits_;
    State state_;
    bool inSubset_;   // markup declarations of the DOCTYPE return to `subset`
    char quote_;      // the quote of the value being read, or 0
    int marks_;       // '-', ']' or '?' seen just before, for the end of comments, CDATA, PIs
    char lastInTag_;  // the last byte of a tag outside quotes and blanks ('/' for <x/>)
    long depth_;      // open elements, the root included
    int line_;
    int markupLine_;    // line of the last '<'
    std::size_t run_;   // bytes since the last '<' or the '>' that ended markup
    std::size_t name_;  // bytes of the name being read in a tag
    bool holding_;      // a '<' between events whose kind is not known yet
    bool inEvent_;
    bool skipping_;     // the current event is being dropped
    std::string held_;  // the current event (or the held '<')
    std::size_t eventBytes_;
    std::size_t eventNodes_;
    int eventLine_;
    long droppedNewlines_;
    std::string why_;
};

}  // namespace Osk
