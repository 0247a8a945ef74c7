#pragma once

// The whole XML toolkit: documents, elements and attributes, XPath search,
// XSLT transformation.

#include "XmlToolkit/Attr.h"
#include "XmlToolkit/Document.h"
#include "XmlToolkit/Element.h"
#include "XmlToolkit/Find.h"
#include "XmlToolkit/XPath.h"
#include "XmlToolkit/Xslt.h"
