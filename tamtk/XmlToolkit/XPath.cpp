#include "XmlToolkit/XPath.h"

#include <boost/make_shared.hpp>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Errors.h"

namespace Tamxml {
namespace {
const char* const _source = "XmlToolkit/XPath";
}

struct XPath::Compiled {
    Compiled(std::string source, xmlXPathCompExprPtr compiled)
        : text(std::move(source)), expr(compiled) {}
    ~Compiled() { xmlXPathFreeCompExpr(expr); }
    Compiled(const Compiled&) = delete;
    Compiled& operator=(const Compiled&) = delete;

    const std::string text;
    const xmlXPathCompExprPtr expr;
};

namespace {

std::string _text(const boost::shared_ptr<const Tamtk::Utf8Array>& text) {
    if (!text) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No text given for an XPath expression");
    }
    return std::string(text->c_str(), text->length());
}

const char* _text(const char* text) {
    if (text == nullptr) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No text given for an XPath expression");
    }
    return text;
}

}  // namespace

XPath::XPath(boost::shared_ptr<const Tamtk::Utf8Array> text) : compiled_(compile(_text(text))) {}

XPath::XPath(const std::string& text) : compiled_(compile(text)) {}

XPath::XPath(const char* text) : compiled_(compile(_text(text))) {}

boost::shared_ptr<const XPath::Compiled> XPath::compile(const std::string& text) {
    // An embedded NUL would silently cut the expression short.
    if (text.find('\0') != std::string::npos) {
        TAMTK_THROW(XmlException, _source,
                    "Could not compile XPath expression '" << text.c_str()
                                                           << "': it contains a NUL character");
    }
    internal::ErrorScope errors;
    xmlXPathCompExprPtr compiled = xmlXPathCompile(reinterpret_cast<const xmlChar*>(text.c_str()));
    if (compiled == nullptr) {
        TAMTK_THROW(XmlException, _source,
                    "Could not compile XPath expression '" << text << "': " << errors.text());
    }
    try {
        return boost::make_shared<const Compiled>(text, compiled);
    } catch (...) {
        xmlXPathFreeCompExpr(compiled);
        throw;
    }
}

const std::string& XPath::text() const {
    return compiled_->text;
}

xmlXPathCompExprPtr XPath::get() const {
    return compiled_->expr;
}

}  // namespace Tamxml
