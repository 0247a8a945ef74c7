#pragma once

#include <libxml/parser.h>

namespace Tamxml {
namespace internal {

// How every document the toolkit parses is read. Left out on purpose:
// XML_PARSE_NOENT (substituting entities pulls in external ones),
// XML_PARSE_DTDLOAD / DTDATTR / DTDVALID (fetch the external DTD),
// XML_PARSE_XINCLUDE and XML_PARSE_HUGE (lifts the size limits that protect
// against entity expansion and oversized nodes).
const int safeParseOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES;

}  // namespace internal
}  // namespace Tamxml
