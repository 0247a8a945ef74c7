#include "XmlToolkit/Document.h"

#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Element.h"
#include "XmlToolkit/Errors.h"
#include "XmlToolkit/ParseOptions.h"

namespace Tamxml {
namespace {

const char* const _source = "XmlToolkit/Document";

// Entity references are kept as references when parsing, but every reader
// of the text (XPath string values, attribute values) expands them. A small
// document that refers to one large internal entity many times (the
// "quadratic blowup") passes libxml2's own checks and then expands to
// gigabytes when read. Such a document is refused when it is parsed: the
// references together may expand to no more than libxml2's own limit for one
// text node.
const std::size_t _maxEntityExpansion = XML_MAX_TEXT_LENGTH;

class ExpansionCounter {
public:
    explicit ExpansionCounter(xmlDocPtr doc) : doc_(doc) {}

    // Bytes that the entity references under `first` and its siblings expand
    // to; stops counting once past the limit.
    std::size_t countSiblings(xmlNodePtr first) {
        std::size_t total = 0;
        std::vector<xmlNodePtr> pending;
        for (xmlNodePtr n = first; n != nullptr; n = n->next) pending.push_back(n);
        while (!pending.empty() && total <= _maxEntityExpansion) {
            xmlNodePtr node = pending.back();
            pending.pop_back();
            if (node->type == XML_ENTITY_REF_NODE) {
                total += entitySize(xmlGetDocEntity(doc_, node->name));
                continue;
            }
            if (node->type == XML_DTD_NODE)
                continue;  // declarations expand only where used
            if (node->type == XML_ELEMENT_NODE) {
                for (xmlAttrPtr a = node->properties; a != nullptr; a = a->next) {
                    for (xmlNodePtr c = a->children; c != nullptr; c = c->next)
                        pending.push_back(c);
                }
            }
            for (xmlNodePtr c = node->children; c != nullptr; c = c->next) pending.push_back(c);
        }
        return total;
    }

private:
    // The expanded text of one entity, nested references included; each
    // entity is counted once and a loop counts as too much.
    std::size_t entitySize(xmlEntityPtr entity) {
        if (entity == nullptr || entity->etype != XML_INTERNAL_GENERAL_ENTITY)
            return 0;
        auto known = sizes_.find(entity);
        if (known != sizes_.end())
            return known->second;
        sizes_[entity] = _maxEntityExpansion + 1;  // until known: a loop is refused
        std::size_t size = static_cast<std::size_t>(entity->length);
        if (entity->children != nullptr)
            size += countSiblings(entity->children);
        sizes_[entity] = size;
        return size;
    }

    xmlDocPtr doc_;
    std::map<xmlEntityPtr, std::size_t> sizes_;
};

bool _expandsTooFar(xmlDocPtr doc) {
    if (doc->intSubset == nullptr || doc->intSubset->entities == nullptr)
        return false;
    return ExpansionCounter(doc).countSiblings(doc->children) > _maxEntityExpansion;
}

boost::shared_ptr<const Document> _parse(const char* data, std::size_t size, const char* url,
                                         const std::string& what) {
    if (data == nullptr && size != 0) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No data given for " << what);
    }
    if (size > static_cast<std::size_t>(INT_MAX)) {
        TAMTK_THROW(XmlException, _source,
                    "Could not parse " << what << ": " << size << " bytes is too large");
    }
    internal::ErrorScope errors;
    xmlParserCtxtPtr context = xmlNewParserCtxt();
    if (context == nullptr) {
        TAMTK_THROW(XmlException, _source, "Could not parse " << what << ": " << errors.text());
    }
    xmlDocPtr doc = xmlCtxtReadMemory(context, data != nullptr ? data : "", static_cast<int>(size),
                                      url, nullptr, internal::safeParseOptions);
    // With recovery off a document that is not well formed is never
    // returned, but be explicit about it rather than rely on that.
    if (doc != nullptr && !context->wellFormed) {
        xmlFreeDoc(doc);
        doc = nullptr;
    }
    xmlFreeParserCtxt(context);
    if (doc == nullptr) {
        TAMTK_THROW(XmlException, _source, "Could not parse " << what << ": " << errors.text());
    }
    if (_expandsTooFar(doc)) {
        xmlFreeDoc(doc);
        TAMTK_THROW(XmlException, _source,
                    "Could not parse " << what << ": its entity references expand to more than "
                                       << _maxEntityExpansion << " bytes");
    }
    return Document::adopt(doc);
}

}  // namespace

boost::shared_ptr<const Document> Document::fromFile(const std::string& path) {
    // The file is read here rather than by libxml2: the parser then never
    // opens anything itself, and the toolkit's loader guard can refuse every
    // load it attempts.
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int error = errno;
        TAMTK_THROW(XmlException, _source,
                    "Could not open XML file '" << path << "': " << std::strerror(error));
    }
    std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        const int error = errno;
        TAMTK_THROW(XmlException, _source,
                    "Could not read XML file '" << path << "': " << std::strerror(error));
    }
    return _parse(data.data(), data.size(), path.c_str(), "XML file '" + path + "'");
}

boost::shared_ptr<const Document> Document::fromMemory(const char* data, std::size_t size) {
    return _parse(data, size, nullptr, "XML document");
}

boost::shared_ptr<Document> Document::adopt(xmlDocPtr doc) {
    if (doc == nullptr) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No document to adopt");
    }
    try {
        return boost::shared_ptr<Document>(new Document(doc));
    } catch (...) {
        xmlFreeDoc(doc);
        throw;
    }
}

Document::~Document() {
    xmlFreeDoc(doc_);
}

boost::shared_ptr<const Element> Document::root() const {
    xmlNodePtr root = xmlDocGetRootElement(doc_);
    if (root == nullptr) {
        return boost::shared_ptr<const Element>();
    }
    return boost::make_shared<const Element>(shared_from_this(), root);
}

}  // namespace Tamxml
