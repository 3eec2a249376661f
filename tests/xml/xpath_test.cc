#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/raised.h"
#include "xml/xml_xpath.h"

namespace tavik {
namespace {

using testing::messageOf;

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

TEST(XPath, ResultsConvertByTheXPathRulesAndTheWalkerGoesOnAfterTaggedFailures) {
    tXmlRkuDocument doc(std::string("<r><a n=\"1\">one</a><b/><a>two</a><a>three</a></r>"));
    doc.initFileDoc("r");
    EXPECT_EQ("one", tXPathExpr(doc, "//a").str());
    EXPECT_EQ("", tXPathExpr(doc, "//missing").str());
    EXPECT_EQ("3", tXPathExpr(doc, "count(//a)").str());
    EXPECT_EQ("The result of expression 'count(//a)' is not a 'nodeset' type",
              messageOf<&tError_XPath_TypesMismatch>(
                  [&] { tXPathExpr(doc, "count(//a)").getNodeSet(); }));
    const std::string cantEvaluate =
        "The XML document is invalid for XPath exception.\nCan not evaluate result of "
        "expression '";
    EXPECT_EQ(cantEvaluate + "//a['",
              messageOf<&tError_XPath_CantEvaluate>([&] { tXPathExpr(doc, "//a["); }));
    const XmlNode first = XmlNode(doc.getDoc(), doc.getRootNode()).getNode("a");
    EXPECT_EQ("1", first["@n"].str());
    // The context node's path follows the expression inside the quotes.
    EXPECT_EQ(cantEvaluate + "c at path '/r/a[1]''",
              messageOf<&tError_XPath_CantEvaluate>([&] { first.getNode("c"); }));

    Collect op, quiet, stopped;
    std::vector<std::string> errors;
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc, "//a"), op,
                                 [&](const ExTraceable& e) { errors.push_back(e.what()); }));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), op.seen);
    EXPECT_EQ(std::vector<std::string>{"bad two"}, errors);
    foreach_xmlnode(tXPathExpr(doc, "//a"), quiet, nullptr);
    EXPECT_EQ(op.seen, quiet.seen);
    EXPECT_EQ("Can not evaluate XPath expression: count(//a)", messageOf<&tError_XmlInternal>([&] {
                  foreach_xmlnode(tXPathExpr(doc, "count(//a)"), quiet, nullptr);
              }));
    tXmlRkuDocument other(std::string("<r><a>boom</a><a>after</a></r>"));
    EXPECT_THROW(foreach_xmlnode(tXPathExpr(other, "//a"), stopped, nullptr), std::logic_error);
    EXPECT_TRUE(stopped.seen.empty());
}

}  // namespace
}  // namespace tavik
