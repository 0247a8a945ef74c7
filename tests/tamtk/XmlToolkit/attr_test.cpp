#include <gtest/gtest.h>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

boost::shared_ptr<const Tamxml::Element> element(const std::string& attributes) {
    return parse("<e xmlns:p='urn:p' " + attributes + "/>")->root();
}

// The value of attribute `a` cast to T, or the message of the cast's refusal.
template <class T>
std::string cast(const std::string& attributes) {
    try {
        std::ostringstream out;
        out << element(attributes)->attr("a")->value_cast<T>();
        return out.str();
    } catch (const Tamxml::ValueCastException& x) {
        return x.what();
    }
}

}  // namespace

TEST(XmlAttr, LookupByNameAndPrefix) {
    auto e = element("a='plain' p:a='prefixed' b='x &amp; &#x20AC;'");
    EXPECT_EQ(e->attr("a")->name() + "=" + str(e->attr("a")->value()), "a=plain");
    EXPECT_EQ(e->attr("p:a")->name() + "=" + str(e->attr("p:a")->value()), "p:a=prefixed");
    EXPECT_EQ(str(e->attr("b")->value()), "x & \xE2\x82\xAC");
    EXPECT_FALSE(e->attr("missing"));
    EXPECT_FALSE(e->attr("q:a"));
}

TEST(XmlAttr, CastsAndTheirRefusals) {
    const std::string empty = "Empty value";
    const std::string noCast = "Could not perform the cast from the value to the specific type";
    const struct {
        std::string result;
        std::string expected;
    } rows[] = {
        {cast<unsigned long>("a='42'"), "42"},
        {cast<int>("a='-7'"), "-7"},
        {cast<double>("a='2.5'"), "2.5"},
        {cast<std::string>("a=' spaced '"), " spaced "},
        {cast<std::string>("a=''"), empty},
        {cast<unsigned long>("a=''"), empty},
        {cast<unsigned long>("a='abc'"), noCast},
        {cast<int>("a='12x'"), noCast},
        {cast<int>("a=' 12'"), noCast},
        {cast<unsigned long>("a='-1'"), noCast},  // not wrapped round
        {cast<unsigned long>("a='99999999999999999999999'"), noCast},
        {cast<short>("a='70000'"), noCast},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.result, r.expected);
    }
    // The cast family belongs to the XML family.
    EXPECT_THROW(element("a=''")->attr("a")->value_cast<std::string>(), Tamxml::XmlException);
}
