#pragma once

#include <libxml/tree.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "Toolkit/Export.h"
#include "Toolkit/Utf8Array.h"
#include "XmlToolkit/Attr.h"

namespace Tamxml {

class Document;

// One element of a document; holding it keeps the document alive.
class TAMTK_API Element {
public:
    Element(boost::shared_ptr<const Document> document, xmlNodePtr node);

    // The attribute of that name without a namespace (or, for a prefixed
    // name, the attribute written with that prefix); null when absent.
    boost::shared_ptr<const Attr> attr(const std::string& name) const;

    // The element's text content: the text of all its descendants in
    // document order. Null only when libxml2 yields none.
    boost::shared_ptr<const Tamtk::Utf8Array> text() const;

    // The name as written, with its prefix if it has one.
    std::string name() const;

    // A deep copy of this element as the root of a new document. Every
    // namespace in scope here is declared on the new root, so prefixes used
    // inside attribute values (XPath expressions of a stylesheet, say) keep
    // their meaning.
    boost::shared_ptr<Document> copyToNewDoc() const;

    const boost::shared_ptr<const Document>& document() const { return document_; }
    xmlNodePtr get() const { return node_; }

private:
    boost::shared_ptr<const Document> document_;
    xmlNodePtr node_;
};

}  // namespace Tamxml
