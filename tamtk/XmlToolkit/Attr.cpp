#include "XmlToolkit/Attr.h"

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/NodeText.h"

namespace Tamxml {
namespace {
const char* const _source = "XmlToolkit/Attr";
}

namespace internal {

void throwEmptyValue() {
    TAMTK_THROW(ValueCastException, _source, "Empty value");
}

void throwFailedCast() {
    TAMTK_THROW(ValueCastException, _source,
                "Could not perform the cast from the value to the specific type");
}

}  // namespace internal

Attr::Attr(boost::shared_ptr<const Document> document, xmlAttrPtr attr)
    : document_(std::move(document)), attr_(attr) {
    TAMTK_ASSERT(document_ && attr_, _source);
}

boost::shared_ptr<const Tamtk::Utf8Array> Attr::value() const {
    return internal::NodeText(reinterpret_cast<const xmlNode*>(attr_)).utf8();
}

std::string Attr::content() const {
    return internal::NodeText(reinterpret_cast<const xmlNode*>(attr_)).str();
}

std::string Attr::name() const {
    return internal::qualifiedName(attr_->ns, attr_->name);
}

}  // namespace Tamxml
