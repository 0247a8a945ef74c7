#include "XmlToolkit/Element.h"

#include <boost/make_shared.hpp>
#include <cstring>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Document.h"
#include "XmlToolkit/Errors.h"
#include "XmlToolkit/NodeText.h"

namespace Tamxml {
namespace {

const char* const _source = "XmlToolkit/Element";

const xmlChar* _xml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}

bool _matches(const xmlAttr* attr, const std::string& name) {
    const std::string::size_type colon = name.find(':');
    if (colon == std::string::npos) {
        return attr->ns == nullptr && xmlStrEqual(attr->name, _xml(name.c_str()));
    }
    if (attr->ns == nullptr || attr->ns->prefix == nullptr) {
        return false;
    }
    const std::size_t prefixLength = xmlStrlen(attr->ns->prefix);
    return prefixLength == colon && std::memcmp(attr->ns->prefix, name.data(), prefixLength) == 0 &&
           xmlStrEqual(attr->name, _xml(name.c_str() + colon + 1));
}

// Declares on `root` every namespace in scope at `original` that root does
// not declare itself. xmlDocCopyNode only carries over the namespaces the
// copied names use; a stylesheet also refers to prefixes from inside
// attribute values ("exsl:node-set(...)", extension-element-prefixes).
void _declareNamespacesInScope(const xmlNode* original, xmlNodePtr root) {
    xmlNsPtr* inScope = xmlGetNsList(original->doc, original);
    if (inScope == nullptr) {
        return;
    }
    for (xmlNsPtr* ns = inScope; *ns != nullptr; ++ns) {
        // Refuses (returns null) when root already binds that prefix.
        xmlNewNs(root, (*ns)->href, (*ns)->prefix);
    }
    xmlFree(inScope);
}

}  // namespace

Element::Element(boost::shared_ptr<const Document> document, xmlNodePtr node)
    : document_(std::move(document)), node_(node) {
    TAMTK_ASSERT(document_ && node_ && node_->type == XML_ELEMENT_NODE, _source);
}

boost::shared_ptr<const Attr> Element::attr(const std::string& name) const {
    for (xmlAttrPtr attr = node_->properties; attr != nullptr; attr = attr->next) {
        if (_matches(attr, name)) {
            return boost::make_shared<const Attr>(document_, attr);
        }
    }
    return boost::shared_ptr<const Attr>();
}

boost::shared_ptr<const Tamtk::Utf8Array> Element::text() const {
    return internal::NodeText(node_).utf8();
}

std::string Element::name() const {
    return internal::qualifiedName(node_->ns, node_->name);
}

boost::shared_ptr<Document> Element::copyToNewDoc() const {
    internal::ErrorScope errors;
    xmlDocPtr doc = xmlNewDoc(_xml("1.0"));
    if (doc == nullptr) {
        TAMTK_THROW(
            XmlException, _source,
            "Could not copy element '" << name() << "' into a new document: " << errors.text());
    }
    // The copy's own document now owns it; adopt it before anything can throw.
    boost::shared_ptr<Document> copy = Document::adopt(doc);
    xmlNodePtr root = xmlDocCopyNode(node_, doc, 1);
    if (root == nullptr) {
        TAMTK_THROW(
            XmlException, _source,
            "Could not copy element '" << name() << "' into a new document: " << errors.text());
    }
    xmlDocSetRootElement(doc, root);
    _declareNamespacesInScope(node_, root);
    // Relative references in the copy (a stylesheet's document() calls, say)
    // resolve against where the original came from.
    if (node_->doc != nullptr && node_->doc->URL != nullptr) {
        doc->URL = xmlStrdup(node_->doc->URL);
    }
    return copy;
}

}  // namespace Tamxml
