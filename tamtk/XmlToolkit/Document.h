#pragma once

#include <libxml/tree.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>

#include "Toolkit/Export.h"

namespace Tamxml {

class Element;

// An XML document owned by the toolkit. Elements and attributes taken from it
// keep it alive, so a document lives as long as anything of it is held.
//
// Documents are parsed without network access, without loading any external
// DTD or entity, and within libxml2's default size limits: configuration and
// event data are never trusted to point the parser elsewhere.
class TAMTK_API Document : public boost::enable_shared_from_this<Document> {
public:
    // Both throw Tamxml::XmlException with libxml2's own report when the
    // text is not a well-formed document.
    static boost::shared_ptr<const Document> fromFile(const std::string& path);
    static boost::shared_ptr<const Document> fromMemory(const char* data, std::size_t size);

    // Takes ownership of a document built elsewhere with libxml2 (the host's
    // event reader builds event documents that way).
    static boost::shared_ptr<Document> adopt(xmlDocPtr doc);

    ~Document();
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    // The root element; null for a document without one.
    boost::shared_ptr<const Element> root() const;

    xmlDocPtr get() const { return doc_; }

private:
    explicit Document(xmlDocPtr doc) : doc_(doc) {}

    xmlDocPtr doc_;
};

}  // namespace Tamxml
