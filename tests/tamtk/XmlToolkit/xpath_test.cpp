#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <vector>

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

std::vector<std::string> names(const boost::shared_ptr<const Tamxml::ElementArray>& elements,
                               const char* attribute) {
    std::vector<std::string> out;
    for (const auto& e : *elements) {
        out.push_back(e->attr(attribute)->value_cast<std::string>());
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

TEST(XmlXPath, FindElementsFromDocumentAndElement) {
    auto doc = parse(kConfig);
    auto defaults = Tamxml::find_elements(doc, XPath("/Channel/Default"));
    ASSERT_TRUE(defaults);
    ASSERT_EQ(defaults->size(), 1u);

    auto recipients = Tamxml::find_elements(defaults->front(), "RecipientList/*");
    ASSERT_TRUE(recipients);
    EXPECT_EQ(names(recipients, "value"), (std::vector<std::string>{"a@x", "b@x", "c@x"}));

    auto group = Tamxml::find_first_element(doc->root(), "EventGroup[@enabled='yes']");
    ASSERT_TRUE(group);
    auto events = Tamxml::find_elements(group, "./Event[@enabled='yes']");
    EXPECT_EQ(names(events, "id"), (std::vector<std::string>{"1", "3"}));

    // Relative paths start at the element, absolute ones at the document.
    EXPECT_EQ(Tamxml::find_elements(group, "/Channel/Default")->size(), 1u);
    EXPECT_EQ(Tamxml::find_first_element(group, "../Default/Sender")->name(), "Sender");
}

TEST(XmlXPath, NoNodeSetIsNullNoNodeIsEmpty) {
    auto doc = parse(kConfig);
    auto none = Tamxml::find_elements(doc, XPath("/Channel/Missing"));
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
    EXPECT_FALSE(Tamxml::find_elements(doc, XPath("count(/Channel)")));
    EXPECT_FALSE(Tamxml::find_first_element(doc->root(), "Missing"));
    // Nodes that are not elements are left out.
    EXPECT_TRUE(Tamxml::find_elements(doc, XPath("//@value"))->empty());
    EXPECT_FALSE(Tamxml::find_first_element(doc->root(), "//@value"));

    const XPath fromUtf8(boost::make_shared<const Tamtk::Utf8Array>("//Sender/@name"));
    EXPECT_EQ(str(Tamxml::find_first_value(doc, fromUtf8)), "Ops");
    EXPECT_THROW(XPath(boost::shared_ptr<const Tamtk::Utf8Array>()), Tamtk::NullPointerException);
}

TEST(XmlXPath, EvaluationErrorsCarryLibxml2ReportAndLeaveNothingBehind) {
    auto doc = parse(kConfig);
    testing::internal::CaptureStderr();
    std::string message =
        xmlFailure([&] { Tamxml::find_first_value(doc, XPath("nosuch(/Channel)")); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NE(message.find("Could not evaluate XPath expression 'nosuch(/Channel)'"),
              std::string::npos)
        << message;
    EXPECT_NE(message.find("Unregistered function"), std::string::npos) << message;
    message = xmlFailure([&] { Tamxml::find_elements(doc, XPath("/p:Channel")); });
    EXPECT_NE(message.find("Undefined namespace prefix"), std::string::npos) << message;
    EXPECT_EQ(str(Tamxml::find_first_value(doc, XPath("//Subject/@value"))), "Alert");
}
