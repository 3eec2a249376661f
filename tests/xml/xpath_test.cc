#include <gtest/gtest.h>
#include <libxml/xpath.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/raised.h"
#include "xml/xml_xpath.h"

namespace tavik {
namespace {

using testing::messageOf;

const char kCantEvaluate[] =
    "The XML document is invalid for XPath exception.\nCan not evaluate result of expression '";

class XPathTest : public ::testing::Test {
  protected:
    XPathTest() { doc_.initFileDoc("r"); }
    ~XPathTest() noexcept override {}  // holds a document, whose destructor may throw
    tXmlRkuDocument doc_{std::string("<r><a n=\"1\">one</a><b/><a>two</a><a>three</a></r>")};
};

TEST_F(XPathTest, ResultsConvertByTheXPathRulesFromTheirContextNode) {
    EXPECT_EQ("one", tXPathExpr(doc_, "//a").str());
    EXPECT_EQ("", tXPathExpr(doc_, "//missing").str());
    EXPECT_EQ("3", tXPathExpr(doc_, "count(//a)").str());
    EXPECT_TRUE(testXPathExpr(doc_, "//b"));
    EXPECT_FALSE(testXPathExpr(doc_, "//missing"));
    EXPECT_EQ("The result of expression 'count(//a)' is not a 'nodeset' type",
              messageOf<&tError_XPath_TypesMismatch>(
                  [&] { tXPathExpr(doc_, "count(//a)").getNodeSet(); }));
    EXPECT_EQ(kCantEvaluate + std::string("//a['"),
              messageOf<&tError_XPath_CantEvaluate>([&] { tXPathExpr(doc_, "//a["); }));

    const XmlNode root(doc_.getDoc(), doc_.getRootNode());
    EXPECT_EQ("two", root["a[2]"].str());
    const XmlNode first = root.getNode("a");
    EXPECT_EQ("1", first["@n"].str());
    // The context node's path follows the expression inside the quotes.
    EXPECT_EQ(kCantEvaluate + std::string("c at path '/r/a[1]''"),
              messageOf<&tError_XPath_CantEvaluate>([&] { first.getNode("c"); }));
}

// Collects the text of each node; "two" fails with a tagged kind, "boom" with another.
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
    Collect op, quiet;
    std::vector<std::string> errors;
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc_, "//a"), op,
                                 [&](const ExTraceable& e) { errors.push_back(e.what()); }));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), op.seen);
    EXPECT_EQ(std::vector<std::string>{"bad two"}, errors);
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc_, "//a"), quiet, nullptr));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), quiet.seen);
    EXPECT_EQ("Can not evaluate XPath expression: count(//a)", messageOf<&tError_XmlInternal>([&] {
                  foreach_xmlnode(tXPathExpr(doc_, "count(//a)"), quiet, nullptr);
              }));

    tXmlRkuDocument other(std::string("<r><a>boom</a><a>after</a></r>"));
    Collect stopped;
    EXPECT_THROW(foreach_xmlnode(tXPathExpr(other, "//a"), stopped, nullptr), std::logic_error);
    EXPECT_TRUE(stopped.seen.empty());
}

}  // namespace
}  // namespace tavik
