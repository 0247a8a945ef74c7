#include "XmlToolkit/Document.h"

#include <libxml/parser.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Element.h"
#include "XmlToolkit/Errors.h"
#include "XmlToolkit/ParseOptions.h"

namespace Tamxml {
namespace {

const char* const _source = "XmlToolkit/Document";

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
