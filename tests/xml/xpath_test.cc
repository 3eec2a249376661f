#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "xml/xml_xpath.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::messageOf;

class XPathTest : public ::testing::Test {
  protected:
    XPathTest()
        : doc_(std::string("<r><a n=\"1\">one</a><b/><a n=\"2\">two</a><a n=\"3\">three</a></r>")) {
        doc_.initFileDoc("r");
    }
    // A document's destructor may throw (status documents save there), so a class that holds
    // one and overrides a noexcept destructor has to promise it does not.
    ~XPathTest() noexcept override {}
    tXmlRkuDocument doc_;
};

TEST_F(XPathTest, ResultsConvertByTheXPathRules) {
    EXPECT_EQ("one", tXPathExpr(doc_, "//a").str());
    EXPECT_EQ("", tXPathExpr(doc_, "//missing").str());
    EXPECT_EQ("3", tXPathExpr(doc_, "count(//a)").str());
    EXPECT_TRUE(testXPathExpr(doc_, "//b"));
    EXPECT_FALSE(testXPathExpr(doc_, "//missing"));
    EXPECT_EQ(0, xmlXPathNodeSetGetLength(tXPathExpr(doc_, "//missing").getNodeSet()));
    EXPECT_EQ("The result of expression 'count(//a)' is not a 'nodeset' type",
              messageOf<&tError_XPath_TypesMismatch>(
                  [&] { tXPathExpr(doc_, "count(//a)").getNodeSet(); }));
    EXPECT_EQ(
        "The XML document is invalid for XPath exception.\nCan not evaluate result of "
        "expression '//a['",
        messageOf<&tError_XPath_CantEvaluate>([&] { tXPathExpr(doc_, "//a["); }));
}

TEST_F(XPathTest, RelativeExpressionsStartAtTheContextNode) {
    const XmlNode root(doc_.getDoc(), doc_.getRootNode());
    EXPECT_EQ("two", root["a[@n='2']"].str());
    const XmlNode second = root.getNode("a[2]");
    EXPECT_EQ("2", second["@n"].str());
    EXPECT_TRUE(second.test("self::a"));
    EXPECT_EQ(doc_.getRootNode(), second.getParent().get());
    EXPECT_EQ("No parent node on requested XML element",
              messageOf<&NoParentNode>([&] { root.getParent(); }));
    EXPECT_EQ(
        "The XML document is invalid for XPath exception.\nCan not evaluate result of "
        "expression 'c at path '/r/a[2]''",
        messageOf<&tError_XPath_CantEvaluate>([&] { second.getNode("c"); }));
    EXPECT_EQ(
        "The XML document is invalid for XPath exception.\nCan not evaluate result of "
        "expression '//c'",
        messageOf<&tError_XPath_CantEvaluate>([&] { tXPathExpr(doc_, "//c").getXmlNode(); }));
}

TEST_F(XPathTest, ChildLookupComparesElementNamesExactly) {
    EXPECT_EQ("b", std::string(
                       reinterpret_cast<const char*>(getXmlChild(doc_.getRootNode(), "b")->name)));
    EXPECT_EQ(nullptr, getXmlChild(doc_.getRootNode(), "B"));
    EXPECT_EQ(nullptr, getXmlChild(getXmlChild(doc_.getRootNode(), "a"), "text"));
    EXPECT_EQ("Assertion failed: node != NULL",
              messageOf<&AssertionFailed>([] { getXmlChild(nullptr, "a"); }));
    EXPECT_TRUE(is_xml_attr_set(reinterpret_cast<const xmlChar*>("")));
    EXPECT_FALSE(is_xml_attr_set(nullptr));
}

// Collects the text of each node; the node "two" fails with a tagged kind, "boom" with another.
struct Collect : tXmlOperator {
    mutable std::vector<std::string> seen;
    void act(xmlNode* node) const override {
        const std::string text = reinterpret_cast<const char*>(node->children->content);
        if (text == "two") TAVIK_RAISE(tError_WrongContent, "bad " + text);
        if (text == "boom") throw std::logic_error("untagged");
        seen.push_back(text);
    }
};

TEST_F(XPathTest, WalkerHandsTaggedFailuresToTheCallbackAndGoesOn) {
    Collect op;
    std::vector<std::string> errors;
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc_, "//a"), op,
                                 [&](const ExTraceable& e) { errors.push_back(e.what()); }));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), op.seen);
    EXPECT_EQ(std::vector<std::string>{"bad two"}, errors);

    Collect quiet;
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc_, "//a"), quiet, nullptr));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), quiet.seen);

    EXPECT_EQ("Can not evaluate XPath expression: count(//a)", messageOf<&tError_XmlInternal>([&] {
                  foreach_xmlnode(tXPathExpr(doc_, "count(//a)"), quiet, nullptr);
              }));
}

TEST(XPathWalker, UntaggedFailuresEndTheWalk) {
    tXmlRkuDocument doc(std::string("<r><a>boom</a><a>after</a></r>"));
    Collect op;
    bool called = false;
    EXPECT_THROW(
        foreach_xmlnode(tXPathExpr(doc, "//a"), op, [&](const ExTraceable&) { called = true; }),
        std::logic_error);
    EXPECT_FALSE(called);
    EXPECT_TRUE(op.seen.empty());
}

}  // namespace
}  // namespace tavik
