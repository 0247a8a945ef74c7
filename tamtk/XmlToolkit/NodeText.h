#pragma once

#include <libxml/tree.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>

#include "Toolkit/Utf8Array.h"

namespace Tamxml {
namespace internal {

// The string value of a node (its XPath string value). Most values that
// matter (an attribute, an element with plain text) are one text node in
// libxml2's tree, and are then read in place instead of being concatenated
// into a fresh buffer.
class NodeText {
public:
    explicit NodeText(const xmlNode* node);
    ~NodeText();
    NodeText(const NodeText&) = delete;
    NodeText& operator=(const NodeText&) = delete;

    // False when libxml2 has no text for the node.
    bool valid() const { return text_ != nullptr; }
    const char* data() const { return reinterpret_cast<const char*>(text_); }
    std::size_t size() const { return size_; }

    std::string str() const { return valid() ? std::string(data(), size_) : std::string(); }
    // Null when there is no text. Text libxml2 had to assemble is handed
    // over to the array rather than copied, so call this once.
    boost::shared_ptr<const Tamtk::Utf8Array> utf8();

private:
    const xmlChar* text_;
    xmlChar* owned_;
    std::size_t size_;
};

// A name as written: "prefix:local", or just "local" without a prefix.
std::string qualifiedName(const xmlNs* ns, const xmlChar* local);

// Text allocated by libxml2 as UTF-8 in an array, without a copy; null for
// null. The text is the array's from the call on, whatever happens.
boost::shared_ptr<const Tamtk::Utf8Array> adoptText(xmlChar* text);

}  // namespace internal
}  // namespace Tamxml
