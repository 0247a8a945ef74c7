#include "Osk/EventStream.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "XmlToolkit/Xml.h"

namespace Osk {

namespace {

// No network, no external DTD, no entity substitution: events are data, not
// instructions to fetch files.
const int _parseOptions = XML_PARSE_NONET | XML_PARSE_NOWARNING;

bool _is(const xmlChar* name, const char* wanted) {
    return name != nullptr && std::strcmp(reinterpret_cast<const char*>(name), wanted) == 0;
}

// Only plain decimal digits make an event id.
bool _parse_id(const xmlChar* text, unsigned long& id) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    for (const xmlChar* p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    errno = 0;
    char* end = nullptr;
    id = std::strtoul(reinterpret_cast<const char*>(text), &end, 10);
    return errno == 0 && end && *end == '\0';
}

}  // namespace

EventStream::EventStream(const std::string& path)
    : reader_(path == "-" ? xmlReaderForFd(0, "stdin", nullptr, _parseOptions)
                          : xmlReaderForFile(path.c_str(), nullptr, _parseOptions)),
      positioned_(false),
      done_(false),
      lastErrorLine_(0) {
    if (reader_ != nullptr) {
        xmlTextReaderSetErrorHandler(reader_, &EventStream::_onError, this);
    }
}

EventStream::~EventStream() {
    if (reader_ != nullptr) {
        xmlFreeTextReader(reader_);
    }
}

void EventStream::_onError(void* self, const char* message, xmlParserSeverities severity,
                           xmlTextReaderLocatorPtr locator) {
    EventStream* stream = static_cast<EventStream*>(self);
    if (severity == XML_PARSER_SEVERITY_ERROR || severity == XML_PARSER_SEVERITY_VALIDITY_ERROR ||
        stream->lastError_.empty()) {
        stream->lastError_ = message ? message : "";
        while (!stream->lastError_.empty() &&
               (stream->lastError_.back() == '\n' || stream->lastError_.back() == ' ')) {
            stream->lastError_.pop_back();
        }
        stream->lastErrorLine_ = xmlTextReaderLocatorLineNumber(locator);
    }
}

int EventStream::line() const { return reader_ ? xmlTextReaderGetParserLineNumber(reader_) : 0; }

boost::shared_ptr<ChannelEvent> EventStream::next(Problem& problem, bool& hadProblem) {
    hadProblem = false;
    if (done_) {
        return {};
    }
    if (reader_ == nullptr) {
        done_ = true;
        hadProblem = true;
        problem = Problem{"cannot open the event stream", 0, true};
        return {};
    }
    for (;;) {
        int rc = 1;
        if (positioned_) {
            positioned_ = false;
        } else {
            rc = xmlTextReaderRead(reader_);
        }
        if (rc != 1) {
            done_ = true;
            if (rc < 0) {
                hadProblem = true;
                problem = Problem{lastError_.empty() ? "broken XML" : lastError_,
                                  lastErrorLine_ ? lastErrorLine_ : line(), true};
            }
            return {};
        }
        if (xmlTextReaderNodeType(reader_) != XML_READER_TYPE_ELEMENT) {
            continue;
        }
        const int depth = xmlTextReaderDepth(reader_);
        const xmlChar* name = xmlTextReaderConstLocalName(reader_);
        if (depth == 0) {
            if (!_is(name, "Events")) {
                done_ = true;
                hadProblem = true;
                problem = Problem{std::string("the stream's root element must be Events, not ") +
                                      reinterpret_cast<const char*>(name),
                                  line(), true};
                return {};
            }
            continue;
        }
        if (depth != 1) {
            continue;
        }
        const int eventLine = line();
        if (!_is(name, "Event")) {
            hadProblem = true;
            problem = Problem{std::string("unexpected element ") + reinterpret_cast<const char*>(name) +
                                  " skipped",
                              eventLine, false};
        }
        unsigned long id = 0;
        xmlChar* idText = xmlTextReaderGetAttribute(reader_, BAD_CAST "id");
        const bool goodId = _parse_id(idText, id);
        if (!hadProblem && !goodId) {
            hadProblem = true;
            problem = Problem{std::string("event without a numeric id (id=\"") +
                                  (idText ? reinterpret_cast<const char*>(idText) : "") + "\") skipped",
                              eventLine, false};
        }
        xmlFree(idText);

        xmlDocPtr doc = nullptr;
        if (!hadProblem) {
            xmlNodePtr node = xmlTextReaderExpand(reader_);
            if (node == nullptr) {
                done_ = true;
                hadProblem = true;
                problem = Problem{lastError_.empty() ? "broken XML" : lastError_,
                                  lastErrorLine_ ? lastErrorLine_ : line(), true};
                return {};
            }
            xmlNodePtr child = node->children;
            while (child != nullptr && child->type != XML_ELEMENT_NODE) {
                child = child->next;
            }
            if (child == nullptr) {
                hadProblem = true;
                problem = Problem{"event " + std::to_string(id) + " has no document; skipped", eventLine,
                                  false};
            } else {
                doc = xmlNewDoc(BAD_CAST "1.0");
                xmlDocSetRootElement(doc, xmlDocCopyNode(child, doc, 1));
            }
        }
        // Move past this Event's subtree; the reader frees what it expanded.
        // A failure here shows again on the next read, which reports it.
        positioned_ = xmlTextReaderNext(reader_) == 1;
        if (hadProblem) {
            return {};
        }
        return boost::shared_ptr<ChannelEvent>(new ChannelEvent(id, Tamxml::Document::adopt(doc)));
    }
}

}  // namespace Osk
