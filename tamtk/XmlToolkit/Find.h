#pragma once

// Evaluating XPath expressions over documents and elements. Absolute paths
// start at the document; relative ones at the element given. Evaluation
// failures (an unknown function, an undeclared prefix) raise
// Tamxml::XmlException with libxml2's report.

#include <boost/shared_ptr.hpp>
#include <vector>

#include "Toolkit/Export.h"
#include "Toolkit/Utf8Array.h"
#include "XmlToolkit/Document.h"
#include "XmlToolkit/Element.h"
#include "XmlToolkit/XPath.h"

namespace Tamxml {

typedef std::vector<boost::shared_ptr<const Element>> ElementArray;

// The elements the expression selects, in document order (other kinds of
// node are left out). Null when the expression does not yield a node-set at
// all ("count(*)"), empty when it selects nothing.
TAMTK_API boost::shared_ptr<const ElementArray> find_elements(
    boost::shared_ptr<const Document> document, const XPath& path);
TAMTK_API boost::shared_ptr<const ElementArray> find_elements(
    boost::shared_ptr<const Element> element, const XPath& path);

// The first element the expression selects from `element`; null when none.
TAMTK_API boost::shared_ptr<const Element> find_first_element(
    boost::shared_ptr<const Element> element, const XPath& path);

// The string value of the result: of its first node for a node-set, the
// value itself for a string, number or boolean. Null when the node-set is
// empty.
TAMTK_API boost::shared_ptr<const Tamtk::Utf8Array> find_first_value(
    boost::shared_ptr<const Document> document, const XPath& path);

}  // namespace Tamxml
