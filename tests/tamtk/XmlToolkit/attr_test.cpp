#include <gtest/gtest.h>

#include "XmlTestSupport.h"

using namespace xmltest;

namespace {

const char* const kEmpty = "Empty value";
const char* const kNoCast = "Could not perform the cast from the value to the specific type";

boost::shared_ptr<const Tamxml::Element> element(const std::string& attributes) {
    return parse("<e xmlns:p='urn:p' " + attributes + "/>")->root();
}

// The message of the ValueCastException that casting `e`'s attribute `a` to T raises.
template <class T>
std::string castFailure(const boost::shared_ptr<const Tamxml::Element>& e) {
    try {
        e->attr("a")->value_cast<T>();
    } catch (const Tamxml::ValueCastException& x) {
        return x.what();
    }
    return "no exception";
}

}  // namespace

TEST(XmlAttr, LookupByNameAndPrefix) {
    auto e = element("a='plain' p:a='prefixed' b='x &amp; &#x20AC;'");
    EXPECT_EQ(e->attr("a")->value_cast<std::string>(), "plain");
    EXPECT_EQ(e->attr("a")->name(), "a");
    EXPECT_EQ(e->attr("p:a")->value_cast<std::string>(), "prefixed");
    EXPECT_EQ(e->attr("p:a")->name(), "p:a");
    EXPECT_EQ(str(e->attr("b")->value()), "x & \xE2\x82\xAC");
    EXPECT_FALSE(e->attr("missing"));
    EXPECT_FALSE(e->attr("q:a"));
    EXPECT_EQ(str(element("a=''")->attr("a")->value()), "");
}

TEST(XmlAttr, CastsThatSucceed) {
    EXPECT_EQ(element("a='42'")->attr("a")->value_cast<unsigned long>(), 42ul);
    EXPECT_EQ(element("a='-7'")->attr("a")->value_cast<int>(), -7);
    EXPECT_DOUBLE_EQ(element("a='2.5'")->attr("a")->value_cast<double>(), 2.5);
    EXPECT_EQ(element("a=' spaced '")->attr("a")->value_cast<std::string>(), " spaced ");
}

TEST(XmlAttr, CastFailuresNameTheirReason) {
    const struct {
        const char* attributes;
        std::string (*cast)(const boost::shared_ptr<const Tamxml::Element>&);
        const char* message;
    } cases[] = {
        {"a=''", &castFailure<std::string>, kEmpty},
        {"a=''", &castFailure<unsigned long>, kEmpty},
        {"a='abc'", &castFailure<unsigned long>, kNoCast},
        {"a='12x'", &castFailure<int>, kNoCast},
        {"a=' 12'", &castFailure<int>, kNoCast},
        {"a='-1'", &castFailure<unsigned long>, kNoCast},  // not wrapped round
        {"a='99999999999999999999999'", &castFailure<unsigned long>, kNoCast},
        {"a='70000'", &castFailure<short>, kNoCast},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.cast(element(c.attributes)), c.message) << c.attributes;
    }
    // The cast family belongs to the XML family.
    EXPECT_THROW(element("a=''")->attr("a")->value_cast<std::string>(), Tamxml::XmlException);
}
