#include "Programs/osk-host/EventScanner.h"

#include <libxml/parserInternals.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace Osk {

namespace {

// The push parser holds a tag, comment, CDATA section or processing
// instruction whole in its buffer, with whatever it has not discarded yet in
// front of it, and stops the stream when that passes XML_MAX_LOOKUP_LIMIT.
// Text is parsed as it comes and may reach XML_MAX_TEXT_LENGTH.
const std::size_t _wholeLimit = XML_MAX_LOOKUP_LIMIT - 1000000;

bool _blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// A byte that ends a name inside a tag.
bool _nameEnd(char c) {
    return _blank(c) || c == '=' || c == '/' || c == '>';
}

// How many more bytes `used` may grow by and stay within `limit`.
std::size_t _room(std::size_t used, std::size_t limit) {
    return used < limit ? limit - used : 0;
}

// A dropped event may have been large: its buffer is given back rather
// than kept for the next one.
void _release(std::string& held) {
    if (held.capacity() > (1u << 20)) {
        std::string().swap(held);
    } else {
        held.clear();
    }
}

}  // namespace

EventScanner::EventScanner(const Limits& limits)
    : limits_(limits),
      state_(text),
      inSubset_(false),
      quote_(0),
      marks_(0),
      lastInTag_(0),
      depth_(0),
      line_(1),
      markupLine_(1),
      run_(0),
      name_(0),
      holding_(false),
      inEvent_(false),
      skipping_(false),
      eventBytes_(0),
      eventNodes_(0),
      eventLine_(0),
      droppedNewlines_(0) {}

void EventScanner::beginEvent() {
    inEvent_ = true;
    holding_ = false;
    skipping_ = false;
    eventBytes_ = held_.size();
    eventNodes_ = 0;
    eventLine_ = markupLine_;
}

void EventScanner::drop(const std::string& why) {
    if (skipping_)
        return;
    skipping_ = true;
    why_ = why;
    droppedNewlines_ = std::count(held_.begin(), held_.end(), '\n');
    _release(held_);
}

bool EventScanner::endEvent(std::string& out, Dropped& dropped) {
    inEvent_ = false;
    if (skipping_) {
        skipping_ = false;
        dropped = Dropped{eventLine_, why_, droppedNewlines_};
        return true;
    }
    out += held_;
    held_.clear();
    return false;
}

void EventScanner::checkRun(std::size_t run, std::size_t limit, const char* what) {
    if (inEvent_ && !skipping_ && run > limit) {
        drop("it holds " + std::string(what) + " longer than " + std::to_string(limit) +
             " bytes, more than the XML parser takes");
    }
}

// The '>' that ends a comment, CDATA section, PI or declaration.
void EventScanner::closeMarkup() {
    state_ = inSubset_ ? subset : text;
    run_ = 0;
}

// Plain text, up to the next '<', taken in one piece: the byte-by-byte
// loop below is for markup, and most of a large event is text. It stops
// short of the byte that would pass a bound, so that byte is judged by
// the loop as any other.
std::size_t EventScanner::takeText(const char* data, std::size_t size, std::string& out) {
    const void* lt = std::memchr(data, '<', size);
    std::size_t n = lt ? static_cast<std::size_t>(static_cast<const char*>(lt) - data) : size;
    if (inEvent_ && !skipping_) {
        n = std::min({n, _room(run_, XML_MAX_TEXT_LENGTH), _room(eventBytes_, limits_.maxBytes)});
    }
    const long lines = std::count(data, data + n, '\n');
    line_ += static_cast<int>(lines);
    run_ += n;
    if (skipping_) {
        droppedNewlines_ += lines;
    } else if (inEvent_ || holding_) {
        held_.append(data, n);
        eventBytes_ += inEvent_ ? n : 0;
    } else {
        out.append(data, n);
    }
    return n;
}

std::size_t EventScanner::scan(const char* data, std::size_t size, std::string& out,
                               Dropped& dropped, bool& hadDrop) {
    hadDrop = false;
    for (std::size_t i = 0; i < size; ++i) {
        if (state_ == text && data[i] != '<') {
            i += takeText(data + i, size - i, out);
            if (i == size)
                break;
        }
        const char c = data[i];
        bool ended = false;  // this byte ends the current event
        ++run_;
        switch (state_) {
            case text:
                if (c == '<') {
                    state_ = lt;
                    run_ = 0;
                    markupLine_ = line_;
                    holding_ = depth_ == 1 && !inEvent_;
                } else {
                    checkRun(run_, XML_MAX_TEXT_LENGTH, "a text");
                }
                break;
            case lt:
                if (c == '!') {
                    state_ = bang;
                } else if (c == '?') {
                    state_ = pi;
                    marks_ = 0;
                } else if (inSubset_) {
                    state_ = decl;  // not valid in a DTD; the parser will say so
                    quote_ = 0;
                } else if (c == '/') {
                    state_ = endTag;
                    name_ = 0;
                } else {
                    state_ = startTag;
                    quote_ = 0;
                    lastInTag_ = c;
                    name_ = 1;
                    if (depth_ == 1 && !inEvent_)
                        beginEvent();
                    if (inEvent_ && !skipping_ && ++eventNodes_ > limits_.maxNodes)
                        drop("it has more than " + std::to_string(limits_.maxNodes) +
                             " elements (--max-event-nodes)");
                }
                if (holding_ && state_ != startTag) {
                    out += held_;  // a comment, PI or the root's end tag
                    held_.clear();
                    holding_ = false;
                }
                break;
            case bang:
                if (c == '-') {
                    state_ = bangDash;
                } else if (c == '[' && depth_ > 0) {
                    state_ = cdataOpen;
                } else {
                    state_ = decl;
                    quote_ = 0;
                }
                break;
            case bangDash:
                state_ = c == '-' ? comment : decl;
                marks_ = 0;
                quote_ = 0;
                break;
            case comment:
                if (c == '>' && marks_ >= 2) {
                    closeMarkup();
                } else {
                    marks_ = c == '-' ? marks_ + 1 : 0;
                    checkRun(run_, _wholeLimit, "a comment");
                }
                break;
            case cdataOpen:
                if (c == '[') {
                    state_ = cdata;
                    marks_ = 0;
                }
                break;
            case cdata:
                if (c == '>' && marks_ >= 2) {
                    closeMarkup();
                } else {
                    marks_ = c == ']' ? marks_ + 1 : 0;
                    checkRun(run_, _wholeLimit, "a CDATA section");
                }
                break;
            case pi:
                if (c == '>' && marks_ == 1) {
                    closeMarkup();
                } else {
                    marks_ = c == '?' ? 1 : 0;
                    checkRun(run_, _wholeLimit, "a processing instruction");
                }
                break;
            case decl:
                if (quote_ != 0) {
                    if (c == quote_)
                        quote_ = 0;
                } else if (c == '"' || c == '\'') {
                    quote_ = c;
                } else if (c == '[' && !inSubset_) {
                    state_ = subset;
                    inSubset_ = true;
                } else if (c == '>') {
                    closeMarkup();
                }
                break;
            case subset:
                if (c == '<') {
                    state_ = lt;
                } else if (c == ']') {
                    state_ = decl;  // the rest of the DOCTYPE
                    inSubset_ = false;
                    quote_ = 0;
                }
                break;
            case startTag:
                if (quote_ != 0) {
                    if (c == quote_)
                        quote_ = 0;
                    checkRun(run_, _wholeLimit, "an attribute value");
                } else if (c == '"' || c == '\'') {
                    quote_ = c;
                    name_ = 0;
                } else if (c == '>') {
                    state_ = text;
                    run_ = 0;
                    if (lastInTag_ == '/') {
                        ended = inEvent_ && depth_ == 1;  // <Event .../>
                    } else if (++depth_ > static_cast<long>(xmlParserMaxDepth)) {
                        if (inEvent_ && !skipping_) {
                            drop("its elements nest deeper than " +
                                 std::to_string(xmlParserMaxDepth) + " levels");
                        }
                    }
                } else {
                    if (!_blank(c))
                        lastInTag_ = c;
                    name_ = _nameEnd(c) ? 0 : name_ + 1;
                    checkRun(name_, XML_MAX_NAME_LENGTH, "a name");
                    checkRun(run_, _wholeLimit, "a tag");
                }
                break;
            case endTag:
                if (c == '>') {
                    state_ = text;
                    run_ = 0;
                    if (depth_ > 0)
                        --depth_;
                    ended = inEvent_ && depth_ == 1;
                } else {
                    name_ = _nameEnd(c) ? 0 : name_ + 1;
                    checkRun(name_, XML_MAX_NAME_LENGTH, "a name");
                }
                break;
        }
        if (c == '\n')
            ++line_;
        if (skipping_) {
            droppedNewlines_ += c == '\n';
        } else if (inEvent_ || holding_) {
            held_ += c;
            if (inEvent_ && ++eventBytes_ > limits_.maxBytes)
                drop("it is larger than " + std::to_string(limits_.maxBytes) +
                     " bytes (--max-event-size)");
        } else {
            out += c;
        }
        if (ended && endEvent(out, dropped)) {
            hadDrop = true;
            return i + 1;
        }
    }
    return size;
}

void EventScanner::finish(std::string& out, Dropped& dropped, bool& hadDrop) {
    hadDrop = false;
    if (inEvent_ && skipping_) {
        hadDrop = endEvent(out, dropped);
    } else {
        out += held_;
        _release(held_);
    }
    inEvent_ = holding_ = false;
}

}  // namespace Osk
