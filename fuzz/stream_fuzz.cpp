// The event stream reader on any bytes: no event handed out is over the
// element bound, and on a well-formed stream nothing was dropped from, the
// reader hands out exactly the events libxml2 finds in the whole document
// (ids and element counts, in order): the byte scanner never misreads.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "Programs/osk-host/EventStream.h"
#include "XmlToolkit/Xml.h"

namespace {

const std::size_t _maxNodes = 6;

std::size_t _elements(xmlNodePtr node) {
    std::size_t n = 1;
    for (xmlNodePtr child = node->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            n += _elements(child);
    }
    return n;
}

// "id/elements" for each event, "skip" for each skipped one; `whole` unless
// a bound dropped an event or the stream broke.
std::vector<std::string> _read(const std::string& path, bool& whole) {
    Osk::EventScanner::Limits limits;
    limits.maxBytes = 300;
    limits.maxNodes = _maxNodes;
    Osk::EventStream stream(path, limits);
    std::vector<std::string> seen;
    whole = true;
    for (;;) {
        Osk::EventStream::Problem problem;
        bool had = false;
        boost::shared_ptr<Osk::ChannelEvent> event = stream.next(problem, had);
        if (had) {
            whole = whole && !problem.fatal && problem.message.rfind("event skipped: ", 0) != 0;
            seen.push_back("skip");
            continue;
        }
        if (!event)
            break;
        const std::size_t elements = _elements(xmlDocGetRootElement(event->document()->get()));
        fuzzing::check(elements < _maxNodes, "an event over the element bound was handed out");
        seen.push_back(std::to_string(event->id()) + "/" + std::to_string(elements));
    }
    return seen;
}

// The same from the whole document, one entry per child element of the root.
bool _oracle(const uint8_t* data, size_t size, std::vector<std::string>& seen) {
    xmlDocPtr doc =
        xmlReadMemory(reinterpret_cast<const char*>(data), static_cast<int>(size), nullptr, nullptr,
                      XML_PARSE_NONET | XML_PARSE_NOWARNING | XML_PARSE_NOERROR);
    if (doc == nullptr)
        return false;
    xmlNodePtr root = xmlDocGetRootElement(doc);
    const bool events = root != nullptr && xmlStrcmp(root->name, BAD_CAST "Events") == 0;
    for (xmlNodePtr child = events ? root->children : nullptr; child; child = child->next) {
        if (child->type != XML_ELEMENT_NODE)
            continue;
        xmlChar* id = xmlGetNoNsProp(child, BAD_CAST "id");
        std::string text = id ? reinterpret_cast<const char*>(id) : "";
        xmlFree(id);
        xmlNodePtr body = child->children;
        while (body && body->type != XML_ELEMENT_NODE) body = body->next;
        errno = 0;
        const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
        const bool numeric = !text.empty() && errno == 0 &&
                             text.find_first_not_of("0123456789") == std::string::npos;
        if (xmlStrcmp(child->name, BAD_CAST "Event") != 0 || !numeric || body == nullptr) {
            seen.push_back("skip");
            continue;
        }
        seen.push_back(std::to_string(number) + "/" + std::to_string(_elements(body)));
    }
    xmlFreeDoc(doc);
    return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = memfd_create("stream", MFD_CLOEXEC);
    fuzzing::check(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size),
                   "cannot write the stream into a memory file");
    bool whole = false;
    const std::vector<std::string> seen = _read("/proc/self/fd/" + std::to_string(fd), whole);
    close(fd);
    std::vector<std::string> expected;
    if (whole && _oracle(data, size, expected)) {
        std::string detail;
        for (const std::string& s : seen) detail += s + " ";
        detail += "| whole document: ";
        for (const std::string& s : expected) detail += s + " ";
        fuzzing::check(seen == expected, "the reader and the whole document disagree", detail);
    }
    return 0;
}
