#include "Osk/EventStream.h"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>
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

EventStream& _stream(void* context) {
    return *static_cast<EventStream*>(static_cast<xmlParserCtxtPtr>(context)->_private);
}

}  // namespace

EventStream::EventStream(const std::string& path, const volatile std::sig_atomic_t* interrupted)
    : fd_(-1),
      ownsFd_(false),
      interrupted_(interrupted),
      block_(_blockSize),
      blockSize_(0),
      blockParsed_(0),
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
    if (!item.event) {
        hadProblem = true;
        problem = std::move(item.problem);
    }
    return item.event;
}

void EventStream::fail(const std::string& message, int line) {
    if (!failed_) {
        failed_ = true;
        ready_.push_back(Item{{}, Problem{message, line, true}});
    }
    finished_ = true;
}

void EventStream::feed() {
    bool end = false;
    if (blockParsed_ == blockSize_) {
        ssize_t got;
        do {
            got = ::read(fd_, block_.data(), block_.size());
        } while (got < 0 && errno == EINTR && !(interrupted_ && *interrupted_));
        if (got < 0 && errno == EINTR) {
            finished_ = true;  // stopped on request: what was read is all there is
            return;
        }
        if (got < 0) {
            fail("cannot read the event stream: " + std::string(std::strerror(errno)),
                 parser_ ? xmlSAX2GetLineNumber(parser_) : 0);
            return;
        }
        blockSize_ = static_cast<std::size_t>(got);
        blockParsed_ = 0;
        end = got == 0;
        if (parser_ == nullptr && end) {
            fail("the event stream is empty", 0);
            return;
        }
    }
    if (parser_ == nullptr) {
        xmlSAXHandler sax;
        std::memset(&sax, 0, sizeof sax);
        xmlSAXVersion(&sax, 2);  // libxml2's tree builder, with our hooks around it
        sax.startElementNs = &EventStream::_onStart;
        sax.endElementNs = &EventStream::_onEnd;
        sax.serror = &EventStream::_onError;
        // The first bytes let the parser detect the encoding.
        const std::size_t head = blockSize_ < 4 ? blockSize_ : 4;
        parser_ =
            xmlCreatePushParserCtxt(&sax, nullptr, block_.data(), static_cast<int>(head), nullptr);
        if (parser_ == nullptr) {
            fail("cannot start the XML parser", 0);
            return;
        }
        xmlCtxtUseOptions(parser_, _parseOptions);
        parser_->_private = this;
        blockParsed_ = head;
    }
    const std::size_t left = blockSize_ - blockParsed_;
    const std::size_t slice = left < _sliceSize ? left : _sliceSize;
    const int rc =
        xmlParseChunk(parser_, block_.data() + blockParsed_, static_cast<int>(slice), end ? 1 : 0);
    blockParsed_ += slice;
    if (rc != 0 || !parser_->wellFormed) {
        // Everything completed before the fault is already queued ahead of this.
        fail(error_.empty() ? "broken XML" : error_,
             errorLine_ ? errorLine_ : xmlSAX2GetLineNumber(parser_));
    } else if (end) {
        finished_ = true;
    }
}

void EventStream::_onStart(void* context, const xmlChar* localname, const xmlChar* prefix,
                           const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                           int attributeCount, int defaultedCount, const xmlChar** attributes) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    EventStream& self = _stream(context);
    if (parser->nodeNr == 0 && !_is(localname, "Events")) {
        self.fail("the stream's root element must be Events, not " + _text(localname),
                  xmlSAX2GetLineNumber(parser));
        xmlStopParser(parser);
        return;
    }
    if (parser->nodeNr == 1) {
        self.eventLine_ = xmlSAX2GetLineNumber(parser);
    }
    xmlSAX2StartElementNs(context, localname, prefix, uri, namespaceCount, namespaces,
                          attributeCount, defaultedCount, attributes);
}

void EventStream::_onEnd(void* context, const xmlChar* localname, const xmlChar* prefix,
                         const xmlChar* uri) {
    xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    xmlSAX2EndElementNs(context, localname, prefix, uri);
    if (parser->nodeNr != 1 || parser->node == nullptr) {
        return;
    }
    // A child of Events is complete: hand it on, then drop everything the
    // root holds (the event, and the blanks and comments before it).
    xmlNodePtr root = parser->node;
    try {
        _stream(context).take(root->last);
    } catch (...) {
        _stream(context).fail("out of memory", xmlSAX2GetLineNumber(parser));
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
        self.errorLine_ = error->line;
        self.errorFatal_ = fatal;
    }
}

void EventStream::take(xmlNodePtr element) {
    if (element == nullptr || element->type != XML_ELEMENT_NODE) {
        return;
    }
    const int line = eventLine_;
    if (!_is(element->name, "Event")) {
        ready_.push_back(Item{
            {}, Problem{"unexpected element " + _text(element->name) + " skipped", line, false}});
        return;
    }
    unsigned long id = 0;
    xmlChar* idText = xmlGetNoNsProp(element, BAD_CAST "id");
    const bool goodId = _parse_id(idText, id);
    const std::string shown = _text(idText);
    xmlFree(idText);
    if (!goodId) {
        ready_.push_back(Item{
            {}, Problem{"event without a numeric id (id=\"" + shown + "\") skipped", line, false}});
        return;
    }
    xmlNodePtr child = element->children;
    while (child != nullptr && child->type != XML_ELEMENT_NODE) {
        child = child->next;
    }
    if (child == nullptr) {
        ready_.push_back(Item{
            {}, Problem{"event " + std::to_string(id) + " has no document; skipped", line, false}});
        return;
    }
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    if (doc == nullptr) {
        throw std::bad_alloc();
    }
    xmlNodePtr copy = xmlDocCopyNode(child, doc, 1);
    if (copy == nullptr) {
        xmlFreeDoc(doc);
        throw std::bad_alloc();
    }
    xmlDocSetRootElement(doc, copy);
    boost::shared_ptr<const Tamxml::Document> document = Tamxml::Document::adopt(doc);
    ready_.push_back(
        Item{boost::shared_ptr<ChannelEvent>(new ChannelEvent(id, document)), Problem{}});
}

}  // namespace Osk
