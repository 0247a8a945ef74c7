#pragma once

// How the XML toolkit hears about libxml2's and libxslt's problems. Both
// libraries report through process-wide or per-thread handlers that print to
// standard error by default; every toolkit call that can fail runs inside an
// ErrorScope, which routes those reports into a per-thread buffer for the
// duration of the call so that the exception thrown afterwards carries the
// libraries' own words. Outside a scope the host's handlers are untouched.

#include <libxml/xmlerror.h>
#include <libxml/xpath.h>

#include <cstdarg>
#include <string>

namespace Tamxml {
namespace internal {

class ErrorScope {
public:
    ErrorScope();
    ~ErrorScope();
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;

    // What the libraries reported since the outermost scope began, one
    // report per "; "-separated item; a fixed note when they said nothing.
    std::string text() const;

    // The XPath context this thread evaluates with. Kept for the thread's
    // life so that repeated evaluations reuse its object cache.
    xmlXPathContextPtr xpathContext();
};

// True while the calling thread is inside an ErrorScope.
bool insideScope();

// Adds a report of the toolkit's own to the current scope's buffer.
void report(const std::string& text);

// Adds printf-style text to the current scope's buffer, as libxml2's and
// libxslt's generic handlers receive it (often in pieces of one line).
void reportFormatted(const char* format, va_list args);

// libxml2-style handlers that append to the current scope's buffer; usable
// wherever libxml2 or libxslt accept a handler of their own.
void genericHandler(void* context, const char* format, ...);
void structuredHandler(void* context, xmlErrorPtr error);

}  // namespace internal
}  // namespace Tamxml
