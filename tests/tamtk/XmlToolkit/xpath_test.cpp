#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <type_traits>

#include "XmlTestSupport.h"

using namespace xmltest;
using Tamxml::XPath;

namespace {

const char* const kConfig =
    "<Channel>"
    "<Default>"
    "<RecipientList><To value='a@x'/><To value='b@x'/><!-- c --><To value='c@x'/></RecipientList>"
    "<Sender name='Ops' email='ops@x'/>"
    "<Subject value='Alert'/>"
    "</Default>"
    "<EventGroup enabled='yes'><Message>Host %host% <b>down</b></Message>"
    "<Event id='1' enabled='yes'/><Event id='2' enabled='no'/><Event id='3' enabled='yes'/>"
    "</EventGroup>"
    "</Channel>";

// "name(first attribute)" of each element `path` finds from `context`, or
// "<null>" for no node-set; from an element, find_first_element must agree.
template <class Context>
std::string found(const boost::shared_ptr<Context>& context, const char* path) {
    auto elements = Tamxml::find_elements(context, XPath(path));
    if (!elements)
        return "<null>";
    std::string out;
    for (const auto& e : *elements) {
        const xmlAttr* a = e->get()->properties;
        out +=
            e->name() + "(" + (a ? reinterpret_cast<const char*>(a->children->content) : "") + ") ";
    }
    if constexpr (std::is_same<Context, const Tamxml::Element>::value) {
        auto first = Tamxml::find_first_element(context, path);
        EXPECT_EQ(first ? first->get() : nullptr,
                  elements->empty() ? nullptr : elements->front()->get())
            << path;
    }
    return out;
}

}  // namespace

TEST(XmlXPath, FirstValueOfEachKindOfResult) {
    auto doc = parse(kConfig);
    const struct {
        const char* path;
        const char* expected;
    } cases[] = {
        {"/Channel/Default/Subject/@value", "Alert"},
        {"/Channel/Default/RecipientList/To/@value", "a@x"},  // first of several
        {"/Channel/EventGroup/Message", "Host %host% down"},  // all descendant text
        {"/Channel/Default/RecipientList/comment()", " c "},
        {"count(//Event[@enabled='yes'])", "2"},
        {"concat(//Sender/@name, '-', //Sender/@email)", "Ops-ops@x"},
        {"1 div 4", "0.25"},
        {"boolean(//Nothing)", "false"},
        {"string(//Nothing)", ""},  // a string, even when empty, is a value
        {"/Channel/Nothing", "<null>"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(str(Tamxml::find_first_value(doc, XPath(c.path))), c.expected) << c.path;
    }
}

// Relative paths start at the element, absolute ones at the document; nodes
// that are not elements are left out.
TEST(XmlXPath, FindElementsFromDocumentAndElement) {
    auto doc = parse(kConfig);
    auto root = doc->root();
    auto group = Tamxml::find_first_element(root, "EventGroup[@enabled='yes']");
    ASSERT_TRUE(group);
    EXPECT_EQ(found(doc, "/Channel/Default/Sender"), "Sender(Ops) ");
    EXPECT_EQ(found(root, "Default/RecipientList/*"), "To(a@x) To(b@x) To(c@x) ");
    EXPECT_EQ(found(group, "./Event[@enabled='yes']"), "Event(1) Event(3) ");
    EXPECT_EQ(found(group, "/Channel/Default"), "Default() ");
    EXPECT_EQ(found(group, "../Default/Subject"), "Subject(Alert) ");
    EXPECT_EQ(found(doc, "/Channel/Missing"), "");
    EXPECT_EQ(found(root, "Missing"), "");
    EXPECT_EQ(found(doc, "count(/Channel)"), "<null>");
    EXPECT_EQ(found(doc, "//@value"), "");
    EXPECT_EQ(found(root, "//@value"), "");

    const XPath fromUtf8(boost::make_shared<const Tamtk::Utf8Array>("//Sender/@name"));
    EXPECT_EQ(str(Tamxml::find_first_value(doc, fromUtf8)), "Ops");
    EXPECT_THROW(XPath(boost::shared_ptr<const Tamtk::Utf8Array>()), Tamtk::NullPointerException);
}
