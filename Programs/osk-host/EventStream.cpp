#include "Programs/osk-host/EventStream.h"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "XmlToolkit/Xml.h"

namespace Osk {

namespace {

// No network, and no entity substitution (so no external entity is ever
// loaded): events are data, not instructions to fetch files.
const int _parseOptions = XML_PARSE_NONET | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES;

// read() returns what a pipe holds without waiting for a full block, so an
// event is parsed as soon as it arrives. The parser gets a block in slices
// and reading stops at the first slice that completes an event: only a few
// finished events ever wait in memory, however much one read() returned.
const std::size_t _blockSize = 16384;
const std::size_t _sliceSize = 512;

bool _is(const xmlChar* name, const char* wanted) {
    return name != nullptr && std::strcmp(reinterpret_cast<const char*>(name), wanted) == 0;
}

std::string _text(const xmlChar* text) {
    return text ? reinterpret_cast<const char*>(text) : "";
}

// Only plain decimal digits make an event id.
bool _parse_id(const xmlChar* text, unsigned long& id) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    for (const xmlChar* p = text; *p; ++p) {
        if (*p < '0' || *p > '9')
            return false;
    }
    errno = 0;
    char* end = nullptr;
    id = std::strtoul(reinterpret_cast<const char*>(text), &end, 10);
    return errno == 0 && end && *end == '\0';
}

// UTF-16 and UTF-32 (with or without a byte order mark) hide the markup
// from the byte scanner.
bool _wide(const char* data, ssize_t size) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(data);
    if (size < 2)
        return false;
    return (b[0] == 0xFE && b[1] == 0xFF) || (b[0] == 0xFF && b[1] == 0xFE) || b[0] == 0 ||
           b[1] == 0;
}

// Whether a stop was signalled by now (the signal handler has run by the
// time a system call returns to us).
bool _signalled(int stop) {
    if (stop < 0)
        return false;
    pollfd watch = {stop, POLLIN, 0};
    return ::poll(&watch, 1, 0) > 0 && watch.revents != 0;
}

void _release(std::string& text) {
    if (text.capacity() > (1u << 20)) {
        std::string().swap(text);
    } else {
        text.clear();
    }
}

EventStream& _stream(void* context) {
    return *static_cast<EventStream*>(static_cast<xmlParserCtxtPtr>(context)->_private);
}

}  // namespace

EventStream::EventStream(const std::string& path, const EventScanner::Limits& limits, int stop)
    : fd_(-1),
      ownsFd_(false),
      stop_(stop),
      stopped_(false),
      block_(_blockSize),
      blockSize_(0),
      blockScanned_(0),
      scanner_(limits),
      parsed_(0),
      drop_(false),
      dropped_{0, "", 0},
      ended_(false),
      lineOffset_(0),
      line_(0),
      parser_(nullptr),
      finished_(false),
      failed_(false),
      eventLine_(0),
      errorLine_(0),
      errorFatal_(false) {
    if (path == "-") {
        fd_ = 0;
    } else {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ownsFd_ = fd_ >= 0;
        if (fd_ < 0) {
            fail("cannot open the event stream: " + std::string(std::strerror(errno)), 0);
        }
    }
}

EventStream::~EventStream() {
    if (parser_ != nullptr) {
        xmlFreeDoc(parser_->myDoc);
        parser_->myDoc = nullptr;
        xmlFreeParserCtxt(parser_);
    }
    if (ownsFd_) {
        ::close(fd_);
    }
}

boost::shared_ptr<ChannelEvent> EventStream::next(Problem& problem, bool& hadProblem) {
    hadProblem = false;
    while (ready_.empty() && !finished_) {
        feed();
    }
    if (ready_.empty()) {
        return {};
    }
    Item item = std::move(ready_.front());
    ready_.pop_front();
    line_ = item.line;
    if (!item.event) {
        hadProblem = true;
        problem = std::move(item.problem);
    }
    return item.event;
}

void EventStream::fail(const std::string& message, int line) {
    if (!failed_) {
        failed_ = true;
        ready_.push_back(Item{{}, Problem{message, line, true}, line});
    }
    finished_ = true;
}

int EventStream::parserLine() const {
    return parser_ ? static_cast<int>(xmlSAX2GetLineNumber(parser_) + lineOffset_) : 0;
}

// One step: parse a slice of what the scanner let through, or hand out a
// dropped event once everything before it is parsed, or scan more of the
// block, or read the next block.
void EventStream::feed() {
    if (parsed_ < toParse_.size()) {
        parseSlice();
        return;
    }
    if (!toParse_.empty()) {
        _release(toParse_);
        parsed_ = 0;
    }
    if (drop_) {
        drop_ = false;
        ready_.push_back(Item{
            {}, Problem{"event skipped: " + dropped_.why, dropped_.line, false}, dropped_.line});
        lineOffset_ += dropped_.newlines;
        return;
    }
    if (ended_) {
        if (parser_ == nullptr) {
            fail("the event stream is empty", 0);
            return;
        }
        const int rc = xmlParseChunk(parser_, nullptr, 0, 1);
        if (rc != 0 || !parser_->wellFormed) {
            fail(error_.empty() ? "broken XML" : error_, errorLine_ ? errorLine_ : parserLine());
        }
        finished_ = true;
        return;
    }
    if (blockScanned_ < blockSize_) {
        blockScanned_ += scanner_.scan(block_.data() + blockScanned_, blockSize_ - blockScanned_,
                                       toParse_, dropped_, drop_);
        return;
    }
    if (!readBlock()) {
        scanner_.finish(toParse_, dropped_, drop_);
        ended_ = true;
    }
}

bool EventStream::readBlock() {
    for (;;) {
        if (stop_ >= 0) {
            pollfd watch[2] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
            if (::poll(watch, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
            } else if (watch[1].revents != 0) {
                stopped_ = true;
                finished_ = true;
                return true;
            }
        }
        const ssize_t got = ::read(fd_, block_.data(), block_.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            fail("cannot read the event stream: " + std::string(std::strerror(errno)),
                 parserLine());
            return true;
        }
        if (got > 0 && parser_ == nullptr && toParse_.empty() && _wide(block_.data(), got)) {
            fail("the event stream must be in an encoding that keeps ASCII as it is, such as UTF-8",
                 1);
            return true;
        }
        if (got == 0 && _signalled(stop_)) {
            // Ctrl-C on a pipeline reaches the writer and us at once: the
            // writer's end of input is then part of the stop, not a
            // truncated stream to report.
            stopped_ = true;
            finished_ = true;
            return true;
        }
        blockSize_ = static_cast<std::size_t>(got);
        blockScanned_ = 0;
        return got > 0;
    }
}

void EventStream::startParser() {
    xmlSAXHandler sax;
    std::memset(&sax, 0, sizeof sax);
    xmlSAXVersion(&sax, 2);  // libxml2's tree builder, with our hooks around it
    sax.startElementNs = &EventStream::_onStart;
    sax.endElementNs = &EventStream::_onEnd;
    sax.serror = &EventStream::_onError;
    // The first bytes let the parser detect the encoding.
    const std::size_t left = toParse_.size() - parsed_;
    const std::size_t head = left < 4 ? left : 4;
    parser_ = xmlCreatePushParserCtxt(&sax, nullptr, toParse_.data() + parsed_,
                                      static_cast<int>(head), nullptr);
    if (parser_ == nullptr) {
        fail("cannot start the XML parser", 0);
        return;
    }
    xmlCtxtUseOptions(parser_, _parseOptions);
    parser_->_private = this;
    parsed_ += head;
}

void EventStream::parseSlice() {
    if (parser_ == nullptr) {
        startParser();
        return;
    }
    const std::size_t left = toParse_.size() - parsed_;
    const std::size_t slice = left < _sliceSize ? left : _sliceSize;
    const int rc = xmlParseChunk(parser_, toParse_.data() + parsed_, static_cast<int>(slice), 0);
    parsed_ += slice;
    if (rc != 0 || !parser_->wellFormed) {
        // Everything completed before the fault is already queued ahead of this.
        fail(error_.empty() ? "broken XML" : error_, errorLine_ ? errorLine_ : parserLine());
    }
}

void EventStream::_onStart(void* context, const xmlChar* localname, const xmlChar* prefix,
                           const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                           int attributeCount, int defaultedCount, const xmlChar** attributes) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    EventStream& self = _stream(context);
    if (parser != self.parser_) {
        // The content of an entity, parsed in a context of its own that
        // inherits our hooks: it belongs to the event, it is none.
        xmlSAX2StartElementNs(context, localname, prefix, uri, namespaceCount, namespaces,
                              attributeCount, defaultedCount, attributes);
        return;
    }
    if (parser->nodeNr == 0 && !_is(localname, "Events")) {
        self.fail("the stream's root element must be Events, not " + _text(localname),
                  self.parserLine());
        xmlStopParser(parser);
        return;
    }
    if (parser->nodeNr == 1) {
        self.eventLine_ = self.parserLine();
    }
    xmlSAX2StartElementNs(context, localname, prefix, uri, namespaceCount, namespaces,
                          attributeCount, defaultedCount, attributes);
}

void EventStream::_onEnd(void* context, const xmlChar* localname, const xmlChar* prefix,
                         const xmlChar* uri) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    xmlSAX2EndElementNs(context, localname, prefix, uri);
    if (parser != _stream(context).parser_ || parser->nodeNr != 1 || parser->node == nullptr) {
        return;
    }
    // A child of Events is complete: hand it on, then drop everything the
    // root holds (the event, and the blanks and comments before it).
    xmlNodePtr root = parser->node;
    try {
        _stream(context).take(root->last);
    } catch (...) {
        _stream(context).fail("out of memory", _stream(context).parserLine());
        xmlStopParser(parser);
    }
    while (root->children != nullptr) {
        xmlNodePtr child = root->children;
        xmlUnlinkNode(child);
        xmlFreeNode(child);
    }
}

void EventStream::_onError(void* context, xmlErrorPtr error) {
    if (error == nullptr || error->level < XML_ERR_ERROR) {
        return;
    }
    EventStream& self = _stream(context);
    const bool fatal = error->level == XML_ERR_FATAL;
    if (self.error_.empty() || (fatal && !self.errorFatal_)) {
        self.error_ = error->message ? error->message : "";
        while (!self.error_.empty() && (self.error_.back() == '\n' || self.error_.back() == ' ')) {
            self.error_.pop_back();
        }
        self.errorLine_ = error->line ? static_cast<int>(error->line + self.lineOffset_) : 0;
        self.errorFatal_ = fatal;
    }
}

void EventStream::take(xmlNodePtr element) {
    if (element == nullptr || element->type != XML_ELEMENT_NODE) {
        return;
    }
    const int line = eventLine_;
    if (!_is(element->name, "Event")) {
        ready_.push_back(
            Item{{},
                 Problem{"unexpected element " + _text(element->name) + " skipped", line, false},
                 line});
        return;
    }
    unsigned long id = 0;
    xmlChar* idText = xmlGetNoNsProp(element, BAD_CAST "id");
    const bool goodId = _parse_id(idText, id);
    const std::string shown = _text(idText);
    xmlFree(idText);
    if (!goodId) {
        ready_.push_back(
            Item{{},
                 Problem{"event without a numeric id (id=\"" + shown + "\") skipped", line, false},
                 line});
        return;
    }
    xmlNodePtr child = element->children;
    while (child != nullptr && child->type != XML_ELEMENT_NODE) {
        child = child->next;
    }
    if (child == nullptr) {
        ready_.push_back(
            Item{{},
                 Problem{"event " + std::to_string(id) + " has no document; skipped", line, false},
                 line});
        return;
    }
    // The document is moved out of the parser's tree, not copied: an event
    // near the bounds then needs its tree once, not twice. Its names and
    // short texts live in the parser's dictionary, which the new document
    // shares; namespaces declared above it are declared again on its root.
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    if (doc == nullptr) {
        throw std::bad_alloc();
    }
    if (parser_->dict != nullptr) {
        doc->dict = parser_->dict;
        xmlDictReference(doc->dict);
    }
    xmlUnlinkNode(child);
    xmlDocSetRootElement(doc, child);
    if (xmlReconciliateNs(doc, child) < 0) {
        xmlFreeDoc(doc);
        throw std::bad_alloc();
    }
    boost::shared_ptr<const Tamxml::Document> document = Tamxml::Document::adopt(doc);
    ready_.push_back(
        Item{boost::shared_ptr<ChannelEvent>(new ChannelEvent(id, document)), Problem{}, line});
}

}  // namespace Osk
