#pragma once

#include <libxslt/xsltInternals.h>

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstddef>
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

// How far one run of a stylesheet may go. Past its time, or with more
// serialised output than `output` bytes, a run fails like any other failing
// transformation. What it holds in memory while it runs (strings, node sets,
// the result tree) is bounded too, by memoryFactor times the output bound
// and never less than minimumMemory: with either bound alone a stylesheet
// that doubles a string takes gigabytes in a fraction of a second.
struct TransformLimits {
    static const std::size_t memoryFactor = 32;
    static const std::size_t minimumMemory = std::size_t(32) << 20;

    std::chrono::milliseconds time{1000};
    std::size_t output = std::size_t(1) << 20;

    std::size_t memory() const {
        return output > minimumMemory / memoryFactor ? output * memoryFactor : minimumMemory;
    }
};

// Runs the stylesheet over the document with one string parameter (any
// text, quotes of both kinds included; no parameter when the name is empty)
// and appends the serialised result to `out` as xsl:output asks (method
// "text" writes the bare text). Raises Tamxml::XmlException with libxslt's
// report, or with the bound it went past, when the transformation fails;
// `out` is left as it was then.
// Template calls and the variables and parameters they bind nest at most
// 1000 deep together (whatever libxslt's process-wide default): a stylesheet
// that recurses without end fails instead of exhausting the stack.
TAMTK_API void transform(std::string& out, boost::shared_ptr<const Xslt> xslt,
                         boost::shared_ptr<const Document> document, const std::string& paramName,
                         const std::string& paramValue,
                         const TransformLimits& limits = TransformLimits());
// The same, writing the result to `out` once it is complete.
TAMTK_API void transform(std::ostream& out, boost::shared_ptr<const Xslt> xslt,
                         boost::shared_ptr<const Document> document, const std::string& paramName,
                         const std::string& paramValue,
                         const TransformLimits& limits = TransformLimits());

}  // namespace Tamxml
