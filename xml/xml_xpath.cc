#include "xml/xml_xpath.h"

#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include "xml/xml_internal.h"
#include "xml/xml_parse.h"

namespace tavik {

using xml_detail::toString;
using xml_detail::toXml;
using xml_detail::XmlCharPtr;

namespace {
log4cpp::Category& xmlLogger = log4cpp::Category::getInstance("p.Xml");
}  // namespace

log4cpp::Category& tXPathExpr::logger = log4cpp::Category::getInstance("p.Xml");

tXPathExpr::tXPathExpr(xmlDoc* doc, const std::string& expression, xmlNode* contextNode)
    : expression_(xmlStrdup(toXml(expression)), rkuFreeXmlChar),
      context_(xmlXPathNewContext(doc), xmlXPathFreeContext) {
    if (!context_) TAVIK_XML_RAISE(logger, AssertionFailed, "xpathCtx_.get() != NULL");
    // Without a node of its own the context would select nothing by a relative expression.
    context_->node = contextNode != nullptr ? contextNode : reinterpret_cast<xmlNode*>(doc);
    tXmlErrorCollector errors;
    result_.reset(xmlXPathEvalExpression(expression_.get(), context_.get()), xmlXPathFreeObject);
    if (!result_) {
        logger.error(errors.text());
        TAVIK_XML_RAISE(logger, tError_XPath_CantEvaluate, expression);
    }
}

tXPathExpr::tXPathExpr(const tXmlDocument& doc, const std::string& expression, xmlNode* contextNode)
    : tXPathExpr(doc.getDoc(), expression, contextNode) {}

std::string tXPathExpr::expression() const { return toString(expression_.get()); }

xmlNodeSet* tXPathExpr::getNodeSet() const {
    if (result_->type != XPATH_NODESET)
        TAVIK_XML_RAISE(logger, tError_XPath_TypesMismatch, expression(), "nodeset");
    return result_->nodesetval;
}

xmlNode* tXPathExpr::getXmlNode() const {
    xmlNodeSet* nodes = getNodeSet();
    if (nodes == nullptr || nodes->nodeNr == 0) {
        std::string where = expression();
        xmlNode* from = context_->node;
        const bool fromDocument = from == reinterpret_cast<xmlNode*>(context_->doc);
        XmlCharPtr path(from != nullptr && !fromDocument ? xmlGetNodePath(from) : nullptr);
        if (path) where += " at path '" + toString(path.get()) + "'";
        TAVIK_XML_RAISE(logger, tError_XPath_CantEvaluate, where);
    }
    xmlXPathNodeSetSort(nodes);
    return nodes->nodeTab[0];
}

std::string tXPathExpr::str() const {
    XmlCharPtr text(xmlXPathCastToString(result_.get()));
    return toString(text.get());
}

bool tXPathExpr::boolean() const { return xmlXPathCastToBoolean(result_.get()) != 0; }

bool testXPathExpr(xmlDoc* doc, const std::string& expression, xmlNode* contextNode) {
    return tXPathExpr(doc, expression, contextNode).boolean();
}

bool testXPathExpr(const tXmlDocument& doc, const std::string& expression, xmlNode* contextNode) {
    return testXPathExpr(doc.getDoc(), expression, contextNode);
}

tXmlOperator::~tXmlOperator() = default;

int foreach_xmlnode(const tXPathExpr& expr, const tXmlOperator& op,
                    const XmlNodeErrorHandler& onError) {
    const xmlXPathObject* result = expr.getResult();
    if (result->type != XPATH_NODESET || result->nodesetval == nullptr)
        TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                        "Can not evaluate XPath expression: " + expr.expression());
    const xmlNodeSet* nodes = result->nodesetval;
    const int count = nodes->nodeNr;
    for (int i = 0; i < count; ++i) {
        try {
            op.act(nodes->nodeTab[i]);
        } catch (const ExTraceable& e) {
            if (onError) onError(e);
        }
    }
    return 1;
}

xmlNode* getXmlChild(xmlNode* node, const std::string& name) {
    if (node == nullptr) TAVIK_XML_RAISE(xmlLogger, AssertionFailed, "node != NULL");
    for (xmlNode* child = node->children; child != nullptr; child = child->next)
        if (child->type == XML_ELEMENT_NODE && tXmlRkuDocument::stringEq(child->name, name))
            return child;
    return nullptr;
}

bool is_xml_attr_set(const xmlChar* value) { return value != nullptr; }

tXPathExpr XmlNode::operator[](const std::string& expression) const {
    return tXPathExpr(doc_, expression, node_);
}

bool XmlNode::test(const std::string& expression) const {
    return testXPathExpr(doc_, expression, node_);
}

XmlNode XmlNode::getNode(const std::string& expression) const {
    return XmlNode(doc_, (*this)[expression].getXmlNode());
}

XmlNode XmlNode::getParent() const {
    xmlNode* parent = node_ != nullptr ? node_->parent : nullptr;
    if (parent == nullptr || parent->type != XML_ELEMENT_NODE)
        TAVIK_XML_RAISE(xmlLogger, NoParentNode);
    return XmlNode(doc_, parent);
}

}  // namespace tavik
