// The XML toolkit against bare libxml2/libxslt doing the same work: the
// toolkit's share of the event pipeline is the difference between each pair.

#include <benchmark/benchmark.h>
#include <libxml/xpath.h>
#include <libxslt/transform.h>
#include <libxslt/xsltutils.h>

#include <sstream>
#include <string>

#include "XmlToolkit/Xml.h"

namespace {

const std::string kEvent =
    "<Event><Id>4711</Id><Severity>critical</Severity><Host>web-01.example.org</Host>"
    "<Service>httpd</Service><Text>Service httpd stopped responding on port 443</Text>"
    "<Attributes><A name='region'>eu-west</A><A name='rack'>r12</A><A name='owner'>ops</A>"
    "</Attributes><Time>2024-05-01T12:00:00Z</Time></Event>";

const std::string kStylesheet =
    "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
    "<xsl:output method='text'/><xsl:param name='locale'/>"
    "<xsl:template match='/'>[<xsl:value-of select='$locale'/>] <xsl:value-of "
    "select='/Event/Host'/>: <xsl:for-each select='/Event/Attributes/A'><xsl:value-of "
    "select='@name'/>=<xsl:value-of select='.'/>;</xsl:for-each></xsl:template>"
    "</xsl:stylesheet>";

const char* const kPath = "/Event/Attributes/A[@name='rack']";

boost::shared_ptr<const Tamxml::Document> parse(const std::string& text) {
    return Tamxml::Document::fromMemory(text.data(), text.size());
}

void BM_XPathValue_Bare(benchmark::State& state) {
    auto doc = parse(kEvent);
    xmlXPathCompExprPtr compiled = xmlXPathCompile(reinterpret_cast<const xmlChar*>(kPath));
    xmlXPathContextPtr context = xmlXPathNewContext(doc->get());
    for (auto _ : state) {
        xmlXPathObjectPtr result = xmlXPathCompiledEval(compiled, context);
        xmlChar* text = xmlXPathCastToString(result);
        benchmark::DoNotOptimize(text);
        xmlFree(text);
        xmlXPathFreeObject(result);
    }
    xmlXPathFreeContext(context);
    xmlXPathFreeCompExpr(compiled);
}
BENCHMARK(BM_XPathValue_Bare);

void BM_XPathValue_Toolkit(benchmark::State& state) {
    auto doc = parse(kEvent);
    const Tamxml::XPath path(kPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Tamxml::find_first_value(doc, path));
    }
}
BENCHMARK(BM_XPathValue_Toolkit);

void BM_Transform_Bare(benchmark::State& state) {
    auto doc = parse(kEvent);
    xsltStylesheetPtr style = xsltParseStylesheetDoc(xmlCopyDoc(parse(kStylesheet)->get(), 1));
    const char* params[] = {"locale", "'en_GB'", nullptr};
    for (auto _ : state) {
        xmlDocPtr result = xsltApplyStylesheet(style, doc->get(), params);
        xmlChar* text = nullptr;
        int length = 0;
        xsltSaveResultToString(&text, &length, result, style);
        std::string out(reinterpret_cast<const char*>(text), length);
        benchmark::DoNotOptimize(out);
        xmlFree(text);
        xmlFreeDoc(result);
    }
    xsltFreeStylesheet(style);
}
BENCHMARK(BM_Transform_Bare);

void BM_Transform_Toolkit(benchmark::State& state) {
    auto doc = parse(kEvent);
    auto xslt = Tamxml::make_transform(parse(kStylesheet));
    for (auto _ : state) {
        std::ostringstream out;
        Tamxml::transform(out, xslt, doc, "locale", "en_GB");
        benchmark::DoNotOptimize(out.str());
    }
}
BENCHMARK(BM_Transform_Toolkit);

}  // namespace

BENCHMARK_MAIN();
