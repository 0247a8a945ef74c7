#pragma once

#include <libxslt/xsltInternals.h>

#include <boost/shared_ptr.hpp>
#include <iosfwd>
#include <string>

#include "Toolkit/Export.h"
#include "XmlToolkit/Document.h"

namespace Tamxml {

// A compiled XSLT stylesheet; one can run any number of transformations,
// from any thread.
//
// Stylesheets are not trusted: they cannot import or include other files,
// and while they run they may not read or write files, create directories or
// use the network (document(), exsl:document). A stylesheet that tries fails
// with Tamxml::XmlException naming what was refused.
class TAMTK_API Xslt {
  public:
    // Takes ownership of a compiled stylesheet.
    explicit Xslt(xsltStylesheetPtr style);
    ~Xslt();
    Xslt(const Xslt&) = delete;
    Xslt& operator=(const Xslt&) = delete;

    xsltStylesheetPtr get() const { return style_; }
    // True when the stylesheet strips whitespace from its source, which
    // libxslt does in place.
    bool stripsSpace() const { return stripsSpace_; }

  private:
    xsltStylesheetPtr style_;
    bool stripsSpace_;
};

// Compiles the document as a stylesheet; the document itself is left as it
// is. Raises Tamxml::XmlException with libxslt's report when it does not
// compile.
TAMTK_API boost::shared_ptr<Xslt> make_transform(boost::shared_ptr<const Document> document);

// Runs the stylesheet over the document with one string parameter (any
// text, quotes of both kinds included; no parameter when the name is empty)
// and writes the serialised result to `out` as xsl:output asks (method
// "text" writes the bare text). Raises Tamxml::XmlException with libxslt's
// report when the transformation fails; nothing is written to `out` then.
// Template calls and the variables and parameters they bind nest at most
// 1000 deep together (whatever libxslt's process-wide default): a stylesheet
// that recurses without end fails instead of exhausting the stack.
TAMTK_API void transform(std::ostream& out, boost::shared_ptr<const Xslt> xslt,
                         boost::shared_ptr<const Document> document, const std::string& paramName,
                         const std::string& paramValue);
// The same, appending the result to `out`, which is left as it was when the
// transformation fails.
TAMTK_API void transform(std::string& out, boost::shared_ptr<const Xslt> xslt,
                         boost::shared_ptr<const Document> document, const std::string& paramName,
                         const std::string& paramValue);

}  // namespace Tamxml
