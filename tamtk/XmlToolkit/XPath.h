#pragma once

#include <libxml/xpath.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "Toolkit/Export.h"
#include "Toolkit/Utf8Array.h"

namespace Tamxml {

// A compiled XPath expression. It is compiled once, when constructed, and
// evaluated as often as needed; copies share the compiled form. Expressions
// that do not compile raise Tamxml::XmlException with libxml2's report.
class TAMTK_API XPath {
public:
    explicit XPath(boost::shared_ptr<const Tamtk::Utf8Array> text);
    explicit XPath(const std::string& text);
    XPath(const char* text);  // NOLINT: implicit on purpose, paths are written as literals

    const std::string& text() const;
    xmlXPathCompExprPtr get() const;

private:
    struct Compiled;
    static boost::shared_ptr<const Compiled> compile(const std::string& text);

    boost::shared_ptr<const Compiled> compiled_;
};

}  // namespace Tamxml
