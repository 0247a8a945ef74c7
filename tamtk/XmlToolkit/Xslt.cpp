#include "XmlToolkit/Xslt.h"

#include <libexslt/exslt.h>
#include <libxml/xmlIO.h>
#include <libxslt/imports.h>
#include <libxslt/security.h>
#include <libxslt/transform.h>
#include <libxslt/variables.h>
#include <libxslt/xslt.h>
#include <libxslt/xsltutils.h>

#include <boost/make_shared.hpp>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <ostream>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Errors.h"
#include "XmlToolkit/ParseOptions.h"
#include "XmlToolkit/RunBound.h"

namespace Tamxml {
namespace {

const char* const _source = "XmlToolkit/Xslt";

// A stylesheet that recurses without end is stopped by libxslt after this
// many nested template calls and variables together. libxslt's own default,
// 3000, takes about 1.5 MB of stack: more than a host thread may have. Real
// templates nest a few levels; a recursive one walking an event stays far
// below this. Set on every transformation rather than through libxslt's
// process-wide defaults, which any other user of the library may change.
const int _maxTemplateDepth = 1000;
const int _maxTemplateVars = 15000;

std::once_flag _initOnce;
xsltSecurityPrefsPtr _securityPrefs = nullptr;
xmlGenericErrorFunc _previousErrorFunc = nullptr;
void* _previousErrorContext = nullptr;

// libxslt reports compilation problems and xsl:message through one
// process-wide handler. Inside a toolkit call the text goes to the call's
// report; anything else libxslt says is passed on as before.
void _xsltErrorHandler(void* context, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (internal::insideScope()) {
        internal::reportFormatted(format, args);
    } else if (_previousErrorFunc != nullptr) {
        char text[1024];
        std::vsnprintf(text, sizeof text, format, args);
        _previousErrorFunc(_previousErrorContext, "%s", text);
    }
    va_end(args);
    (void)context;
}

void _initialise() {
    xsltInit();
    exsltRegisterAll();
    _previousErrorFunc = xsltGenericError;
    _previousErrorContext = xsltGenericErrorContext;
    xsltSetGenericErrorFunc(nullptr, &_xsltErrorHandler);

    // Shared read-only by every transformation.
    _securityPrefs = xsltNewSecurityPrefs();
    if (_securityPrefs != nullptr) {
        xsltSetSecurityPrefs(_securityPrefs, XSLT_SECPREF_READ_FILE, xsltSecurityForbid);
        xsltSetSecurityPrefs(_securityPrefs, XSLT_SECPREF_WRITE_FILE, xsltSecurityForbid);
        xsltSetSecurityPrefs(_securityPrefs, XSLT_SECPREF_CREATE_DIRECTORY, xsltSecurityForbid);
        xsltSetSecurityPrefs(_securityPrefs, XSLT_SECPREF_READ_NETWORK, xsltSecurityForbid);
        xsltSetSecurityPrefs(_securityPrefs, XSLT_SECPREF_WRITE_NETWORK, xsltSecurityForbid);
    }
    internal::installRunHooks();
}

void _initialiseOnce() {
    std::call_once(_initOnce, &_initialise);
}

bool _stripsSpace(xsltStylesheetPtr style) {
    for (xsltStylesheetPtr s = style; s != nullptr; s = xsltNextImport(s)) {
        if (s->stripSpaces != nullptr || s->stripAll) {
            return true;
        }
    }
    return false;
}

struct DocFree {
    void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};
typedef std::unique_ptr<xmlDoc, DocFree> DocHolder;

struct ContextFree {
    void operator()(xsltTransformContextPtr context) const { xsltFreeTransformContext(context); }
};

// Where the serialised result goes, and how much more of it may come.
struct Sink {
    std::string& out;
    std::size_t bound;
    std::size_t left;
    bool over;
};

// Called from inside libxml2: must not let an exception through. Refusing a
// write fails the whole serialisation.
int _writeToSink(void* context, const char* data, int length) {
    Sink& sink = *static_cast<Sink*>(context);
    const std::size_t size = static_cast<std::size_t>(length);
    if (size > sink.left) {
        sink.over = true;
        return -1;
    }
    try {
        sink.out.append(data, size);
    } catch (...) {
        return -1;
    }
    sink.left -= size;
    return length;
}

// Serialises the result as xsltSaveResultToString would (same encoding
// choice, same handling of xsl:output), but straight into the stream.
void _write(Sink& sink, xmlDocPtr result, xsltStylesheetPtr style,
            const internal::ErrorScope& errors) {
    const xmlChar* encoding = nullptr;
    XSLT_GET_IMPORT_PTR(encoding, style, encoding)
    xmlCharEncodingHandlerPtr encoder = nullptr;
    if (encoding != nullptr) {
        encoder = xmlFindCharEncodingHandler(reinterpret_cast<const char*>(encoding));
        if (encoder != nullptr && xmlStrEqual(reinterpret_cast<const xmlChar*>(encoder->name),
                                              reinterpret_cast<const xmlChar*>("UTF-8"))) {
            encoder = nullptr;
        }
    }
    xmlOutputBufferPtr buffer = xmlOutputBufferCreateIO(&_writeToSink, nullptr, &sink, encoder);
    if (buffer == nullptr) {
        TAMTK_THROW(XmlException, _source,
                    "Could not write the transformation result: " << errors.text());
    }
    const int saved = xsltSaveResultTo(buffer, result, style);
    const int closed = xmlOutputBufferClose(buffer);
    if (sink.over) {
        TAMTK_THROW(XmlException, _source,
                    "Could not apply stylesheet: its output passed its bound of " << sink.bound
                                                                                  << " bytes");
    }
    if (saved < 0 || closed < 0) {
        TAMTK_THROW(XmlException, _source,
                    "Could not write the transformation result: " << errors.text());
    }
}

}  // namespace

Xslt::Xslt(xsltStylesheetPtr style) : style_(style), stripsSpace_(false) {
    TAMTK_ASSERT(style_ != nullptr, _source);
    stripsSpace_ = _stripsSpace(style_);
}

Xslt::~Xslt() {
    xsltFreeStylesheet(style_);
}

boost::shared_ptr<Xslt> make_transform(boost::shared_ptr<const Document> document) {
    if (!document) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No stylesheet document to compile");
    }
    _initialiseOnce();
    internal::ErrorScope errors;
    // libxslt takes the document over and rewrites it while compiling; the
    // caller's document stays untouched.
    DocHolder copy(xmlCopyDoc(document->get(), 1));
    if (!copy) {
        TAMTK_THROW(XmlException, _source, "Could not compile stylesheet: " << errors.text());
    }
    xsltStylesheetPtr style = xsltParseStylesheetDoc(copy.get());
    if (style == nullptr) {
        TAMTK_THROW(XmlException, _source, "Could not compile stylesheet: " << errors.text());
    }
    copy.release();  // now the stylesheet's
    try {
        return boost::make_shared<Xslt>(style);
    } catch (...) {
        xsltFreeStylesheet(style);
        throw;
    }
}

namespace {

// Runs the transformation and appends its serialised result to `out`.
void _transform(std::string& out, const boost::shared_ptr<const Xslt>& xslt,
                const boost::shared_ptr<const Document>& document, const std::string& paramName,
                const std::string& paramValue, const TransformLimits& limits) {
    if (!xslt) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No stylesheet to apply");
    }
    if (!document) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No document to transform");
    }
    _initialiseOnce();
    internal::ErrorScope errors;
    xsltStylesheetPtr style = xslt->get();

    // Whitespace stripping edits the source tree; a shared document must not
    // change under its other users, so such stylesheets work on a copy.
    DocHolder copy;
    xmlDocPtr source = document->get();
    if (xslt->stripsSpace()) {
        copy.reset(xmlCopyDoc(source, 1));
        if (!copy) {
            TAMTK_THROW(XmlException, _source, "Could not apply stylesheet: " << errors.text());
        }
        source = copy.get();
    }

    std::unique_ptr<xsltTransformContext, ContextFree> context(
        xsltNewTransformContext(style, source));
    if (!context) {
        TAMTK_THROW(XmlException, _source, "Could not apply stylesheet: " << errors.text());
    }
    if (_securityPrefs == nullptr || xsltSetCtxtSecurityPrefs(_securityPrefs, context.get()) != 0) {
        TAMTK_THROW(XmlException, _source,
                    "Could not apply stylesheet: its security restrictions could not be set");
    }
    context->maxTemplateDepth = _maxTemplateDepth;
    context->maxTemplateVars = _maxTemplateVars;
    xsltSetTransformErrorFunc(context.get(), nullptr, &internal::genericHandler);
    xsltSetCtxtParseOptions(context.get(), internal::safeParseOptions);

    if (!paramName.empty() &&
        xsltQuoteOneUserParam(context.get(), reinterpret_cast<const xmlChar*>(paramName.c_str()),
                              reinterpret_cast<const xmlChar*>(paramValue.c_str())) != 0) {
        TAMTK_THROW(XmlException, _source,
                    "Could not pass parameter '" << paramName << "': " << errors.text());
    }

    Sink sink{out, limits.output, limits.output, false};
    DocHolder result;
    {
        // Serialising is part of the run: its time and memory count too.
        internal::RunBound bound(context.get(), limits.time, limits.memory());
        result.reset(
            xsltApplyStylesheetUser(style, source, nullptr, nullptr, nullptr, context.get()));
        if (bound.stopReason().empty() && result && context->state == XSLT_STATE_OK) {
            _write(sink, result.get(), style, errors);
        }
        if (!bound.stopReason().empty()) {
            TAMTK_THROW(XmlException, _source,
                        "Could not apply stylesheet: " << bound.stopReason());
        }
    }
    if (!result || context->state != XSLT_STATE_OK) {
        TAMTK_THROW(XmlException, _source, "Could not apply stylesheet: " << errors.text());
    }
}

}  // namespace

void transform(std::string& out, boost::shared_ptr<const Xslt> xslt,
               boost::shared_ptr<const Document> document, const std::string& paramName,
               const std::string& paramValue, const TransformLimits& limits) {
    const std::string::size_type mark = out.size();
    try {
        _transform(out, xslt, document, paramName, paramValue, limits);
    } catch (...) {
        out.resize(mark);
        throw;
    }
}

void transform(std::ostream& out, boost::shared_ptr<const Xslt> xslt,
               boost::shared_ptr<const Document> document, const std::string& paramName,
               const std::string& paramValue, const TransformLimits& limits) {
    std::string result;
    _transform(result, xslt, document, paramName, paramValue, limits);
    if (!out.write(result.data(), static_cast<std::streamsize>(result.size()))) {
        TAMTK_THROW(XmlException, _source, "Could not write the transformation result");
    }
}

}  // namespace Tamxml
