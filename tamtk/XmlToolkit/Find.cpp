#include "XmlToolkit/Find.h"

#include <libxml/xpathInternals.h>

#include <boost/make_shared.hpp>

#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Errors.h"
#include "XmlToolkit/NodeText.h"

namespace Tamxml {
namespace {

const char* const _source = "XmlToolkit/XPath";

// One evaluation of a compiled expression. The thread's XPath context is
// reused from call to call; only the document and context node change.
class Evaluation {
public:
    Evaluation(const XPath& path, xmlDocPtr doc, xmlNodePtr node) {
        xmlXPathContextPtr context = errors_.xpathContext();
        if (context == nullptr) {
            TAMTK_THROW(
                XmlException, _source,
                "Could not evaluate XPath expression '" << path.text() << "': " << errors_.text());
        }
        context->doc = doc;
        context->node = node;
        context->contextSize = -1;
        context->proximityPosition = -1;
        result_ = xmlXPathCompiledEval(path.get(), context);
        // Not left pointing at a document that may be freed before the next call.
        context->doc = nullptr;
        context->node = nullptr;
        if (result_ == nullptr) {
            TAMTK_THROW(
                XmlException, _source,
                "Could not evaluate XPath expression '" << path.text() << "': " << errors_.text());
        }
    }
    ~Evaluation() { xmlXPathFreeObject(result_); }
    Evaluation(const Evaluation&) = delete;
    Evaluation& operator=(const Evaluation&) = delete;

    bool isNodeSet() const {
        return result_->type == XPATH_NODESET || result_->type == XPATH_XSLT_TREE;
    }
    // libxml2 may leave an empty node-set without a node table.
    int count() const { return result_->nodesetval != nullptr ? result_->nodesetval->nodeNr : 0; }
    xmlNodePtr node(int i) const { return result_->nodesetval->nodeTab[i]; }
    xmlXPathObjectPtr get() const { return result_; }

private:
    internal::ErrorScope errors_;
    xmlXPathObjectPtr result_ = nullptr;
};

template <class Owner>
const Owner& _required(const Owner& owner, const char* what) {
    if (!owner) {
        TAMTK_THROW(Tamtk::NullPointerException, _source, "No " << what << " to search");
    }
    return owner;
}

boost::shared_ptr<const ElementArray> _elements(const Evaluation& evaluation,
                                                const boost::shared_ptr<const Document>& owner) {
    if (!evaluation.isNodeSet()) {
        return boost::shared_ptr<const ElementArray>();
    }
    boost::shared_ptr<ElementArray> elements = boost::make_shared<ElementArray>();
    const int count = evaluation.count();
    elements->reserve(count);
    for (int i = 0; i < count; ++i) {
        xmlNodePtr node = evaluation.node(i);
        if (node->type == XML_ELEMENT_NODE) {
            elements->push_back(boost::make_shared<const Element>(owner, node));
        }
    }
    return elements;
}

}  // namespace

boost::shared_ptr<const ElementArray> find_elements(boost::shared_ptr<const Document> document,
                                                    const XPath& path) {
    xmlDocPtr doc = _required(document, "document")->get();
    return _elements(Evaluation(path, doc, reinterpret_cast<xmlNodePtr>(doc)), document);
}

boost::shared_ptr<const ElementArray> find_elements(boost::shared_ptr<const Element> element,
                                                    const XPath& path) {
    xmlNodePtr node = _required(element, "element")->get();
    return _elements(Evaluation(path, node->doc, node), element->document());
}

boost::shared_ptr<const Element> find_first_element(boost::shared_ptr<const Element> element,
                                                    const XPath& path) {
    xmlNodePtr node = _required(element, "element")->get();
    Evaluation evaluation(path, node->doc, node);
    if (evaluation.isNodeSet()) {
        const int count = evaluation.count();
        for (int i = 0; i < count; ++i) {
            if (evaluation.node(i)->type == XML_ELEMENT_NODE) {
                return boost::make_shared<const Element>(element->document(), evaluation.node(i));
            }
        }
    }
    return boost::shared_ptr<const Element>();
}

boost::shared_ptr<const Tamtk::Utf8Array> find_first_value(
    boost::shared_ptr<const Document> document, const XPath& path) {
    xmlDocPtr doc = _required(document, "document")->get();
    Evaluation evaluation(path, doc, reinterpret_cast<xmlNodePtr>(doc));
    if (evaluation.isNodeSet()) {
        if (evaluation.count() == 0) {
            return boost::shared_ptr<const Tamtk::Utf8Array>();
        }
        return internal::NodeText(evaluation.node(0)).utf8();
    }
    const xmlXPathObjectPtr result = evaluation.get();
    if (result->type == XPATH_STRING) {
        // The result is freed right after; its string moves into the array.
        xmlChar* text = result->stringval;
        result->stringval = nullptr;
        return internal::adoptText(text);
    }
    return internal::adoptText(xmlXPathCastToString(result));
}

}  // namespace Tamxml
