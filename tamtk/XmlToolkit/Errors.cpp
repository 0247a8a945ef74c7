#include "XmlToolkit/Errors.h"

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace Tamxml {
namespace internal {
namespace {

// A broken document can yield a report per line; past this the rest adds
// nothing a reader of the exception needs.
const std::size_t _maxReportSize = 4096;

struct ThreadState {
    std::string reports;
    int depth = 0;

    // This thread's libxml2 handler slots. libxml2 keeps its handlers per
    // thread; looking the slots up once makes installing and restoring them
    // around every call a matter of a few stores.
    xmlStructuredErrorFunc* structuredSlot = nullptr;
    void** structuredContextSlot = nullptr;
    xmlGenericErrorFunc* genericSlot = nullptr;
    void** genericContextSlot = nullptr;

    xmlStructuredErrorFunc savedStructured = nullptr;
    void* savedStructuredContext = nullptr;
    xmlGenericErrorFunc savedGeneric = nullptr;
    void* savedGenericContext = nullptr;

    xmlXPathContextPtr xpath = nullptr;

    ~ThreadState() {
        if (xpath != nullptr) {
            xmlXPathFreeContext(xpath);
        }
    }
};

thread_local ThreadState t_state;

std::once_flag _initOnce;
xmlExternalEntityLoader _previousLoader = nullptr;

void _append(const char* text, std::size_t length) {
    std::string& reports = t_state.reports;
    if (reports.size() < _maxReportSize) {
        reports.append(text, std::min(length, _maxReportSize - reports.size()));
    }
}

// Documents and stylesheets handled by the toolkit never pull in anything
// from outside: no external DTD, entity, include or imported stylesheet.
// The parse options already keep libxml2 from asking for most of them; this
// guard catches whatever still asks. Loads made by the host outside a
// toolkit call go to the loader that was there before.
xmlParserInputPtr _guardedLoader(const char* url, const char* id, xmlParserCtxtPtr context) {
    if (t_state.depth > 0) {
        const char* name = url != nullptr ? url : (id != nullptr ? id : "");
        report(std::string("Loading of external resource '") + name + "' is not allowed");
        return nullptr;
    }
    return _previousLoader(url, id, context);
}

void _initialise() {
    xmlInitParser();
    _previousLoader = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(&_guardedLoader);
}

void _trim(const char*& begin, const char*& end) {
    while (begin != end && static_cast<unsigned char>(*begin) <= ' ') {
        ++begin;
    }
    while (end != begin && static_cast<unsigned char>(end[-1]) <= ' ') {
        --end;
    }
}

}  // namespace

ErrorScope::ErrorScope() {
    std::call_once(_initOnce, &_initialise);
    ThreadState& state = t_state;
    if (state.depth++ > 0) {
        return;
    }
    if (state.structuredSlot == nullptr) {
        state.structuredSlot = &xmlStructuredError;
        state.structuredContextSlot = &xmlStructuredErrorContext;
        state.genericSlot = &xmlGenericError;
        state.genericContextSlot = &xmlGenericErrorContext;
    }
    state.reports.clear();
    state.savedStructured = *state.structuredSlot;
    state.savedStructuredContext = *state.structuredContextSlot;
    state.savedGeneric = *state.genericSlot;
    state.savedGenericContext = *state.genericContextSlot;
    *state.structuredSlot = &structuredHandler;
    *state.structuredContextSlot = nullptr;
    *state.genericSlot = &genericHandler;
    *state.genericContextSlot = nullptr;
}

ErrorScope::~ErrorScope() {
    ThreadState& state = t_state;
    if (--state.depth > 0) {
        return;
    }
    *state.structuredSlot = state.savedStructured;
    *state.structuredContextSlot = state.savedStructuredContext;
    *state.genericSlot = state.savedGeneric;
    *state.genericContextSlot = state.savedGenericContext;
}

std::string ErrorScope::text() const {
    const std::string& reports = t_state.reports;
    std::string out;
    std::vector<std::string> items;
    const char* cursor = reports.data();
    const char* const end = cursor + reports.size();
    while (cursor != end) {
        const char* lineEnd = std::find(cursor, end, '\n');
        const char* first = cursor;
        const char* last = lineEnd;
        _trim(first, last);
        // libxml2 repeats itself (once per entity expansion, say); once is enough.
        const std::string item(first, last);
        if (!item.empty() && std::find(items.begin(), items.end(), item) == items.end()) {
            if (!out.empty()) {
                out += "; ";
            }
            out += item;
            items.push_back(item);
        }
        cursor = lineEnd == end ? end : lineEnd + 1;
    }
    if (out.empty()) {
        out = "no details were reported";
    }
    return out;
}

xmlXPathContextPtr ErrorScope::xpathContext() {
    ThreadState& state = t_state;
    if (state.xpath == nullptr) {
        state.xpath = xmlXPathNewContext(nullptr);
        if (state.xpath != nullptr) {
            xmlXPathContextSetCache(state.xpath, 1, -1, 0);
        }
    }
    return state.xpath;
}

bool insideScope() {
    return t_state.depth > 0;
}

void report(const std::string& text) {
    _append(text.data(), text.size());
    _append("\n", 1);
}

void reportFormatted(const char* format, va_list args) {
    char piece[1024];
    const int length = std::vsnprintf(piece, sizeof piece, format, args);
    if (length > 0) {
        _append(piece, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof piece - 1));
    }
}

void genericHandler(void*, const char* format, ...) {
    va_list args;
    va_start(args, format);
    reportFormatted(format, args);
    va_end(args);
}

void structuredHandler(void*, xmlErrorPtr error) {
    if (error == nullptr) {
        return;
    }
    std::string item;
    if (error->level == XML_ERR_WARNING) {
        item = "warning: ";
    }
    if (error->line > 0 && error->domain != XML_FROM_XPATH) {
        item += "line " + std::to_string(error->line) + ": ";
    }
    const char* message = error->message != nullptr ? error->message : "unspecified problem";
    const char* end = message + std::char_traits<char>::length(message);
    _trim(message, end);
    item.append(message, end);
    report(item);
}

}  // namespace internal
}  // namespace Tamxml
