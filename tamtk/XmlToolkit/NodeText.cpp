#include "XmlToolkit/NodeText.h"

#include <boost/make_shared.hpp>
#include <cstring>

namespace Tamxml {
namespace internal {
namespace {

const xmlChar _empty[] = {0};

bool _isText(const xmlNode* node) {
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

// The text of a node whose whole content is at most one text child.
const xmlChar* _singleText(const xmlNode* parent) {
    const xmlNode* child = parent->children;
    if (child == nullptr) {
        return _empty;
    }
    if (child->next == nullptr && _isText(child)) {
        return child->content != nullptr ? child->content : _empty;
    }
    return nullptr;
}

void _releaseText(void* text) {
    xmlFree(text);
}

}  // namespace

NodeText::NodeText(const xmlNode* node) : text_(nullptr), owned_(nullptr), size_(0) {
    if (node == nullptr) {
        return;
    }
    switch (node->type) {
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
        case XML_COMMENT_NODE:
        case XML_PI_NODE:
            text_ = node->content != nullptr ? node->content : _empty;
            break;
        case XML_NAMESPACE_DECL:
            // Namespace nodes of an XPath result are xmlNs records in disguise.
            text_ = reinterpret_cast<const xmlNs*>(node)->href;
            break;
        case XML_ELEMENT_NODE:
        case XML_ATTRIBUTE_NODE:
            text_ = _singleText(node);
            break;
        default:
            break;
    }
    if (text_ == nullptr) {
        owned_ = xmlNodeGetContent(node);
        text_ = owned_;
    }
    if (text_ != nullptr) {
        size_ = std::strlen(reinterpret_cast<const char*>(text_));
    }
}

NodeText::~NodeText() {
    if (owned_ != nullptr) {
        xmlFree(owned_);
    }
}

boost::shared_ptr<const Tamtk::Utf8Array> NodeText::utf8() {
    if (owned_ != nullptr) {
        xmlChar* text = owned_;
        owned_ = nullptr;
        return adoptText(text);
    }
    if (!valid()) {
        return boost::shared_ptr<const Tamtk::Utf8Array>();
    }
    return boost::make_shared<const Tamtk::Utf8Array>(data(), static_cast<unsigned>(size_));
}

std::string qualifiedName(const xmlNs* ns, const xmlChar* local) {
    std::string name;
    if (ns != nullptr && ns->prefix != nullptr) {
        name = reinterpret_cast<const char*>(ns->prefix);
        name += ':';
    }
    name += reinterpret_cast<const char*>(local);
    return name;
}

boost::shared_ptr<const Tamtk::Utf8Array> adoptText(xmlChar* text) {
    if (text == nullptr) {
        return boost::shared_ptr<const Tamtk::Utf8Array>();
    }
    // The array owns the text as soon as it is constructed, even if that
    // throws; only then is the shared holder allocated.
    Tamtk::Utf8Array array(reinterpret_cast<char*>(text),
                           static_cast<unsigned>(std::strlen(reinterpret_cast<const char*>(text))),
                           &_releaseText);
    return boost::make_shared<const Tamtk::Utf8Array>(std::move(array));
}

}  // namespace internal
}  // namespace Tamxml
