// XPath over libxml2 trees: one evaluated expression with typed access to its result, a walker
// over node sets, and a small handle that evaluates relative to one element.
#ifndef FERRYGATE_XML_XML_XPATH_H
#define FERRYGATE_XML_XML_XPATH_H

#include <functional>
#include <memory>
#include <string>

#include "xml/xml_wrap.h"

struct _xmlNodeSet;
typedef struct _xmlNodeSet xmlNodeSet;
struct _xmlXPathContext;
typedef struct _xmlXPathContext xmlXPathContext;
struct _xmlXPathObject;
typedef struct _xmlXPathObject xmlXPathObject;

namespace tavik {

class ExTraceable;

// One expression, evaluated on construction. Copies share the expression text, the evaluation
// context and the result. The tree is borrowed and must outlive every copy.
class tXPathExpr {
  public:
    // Relative to `contextNode`, or to the document when it is null. tError_XPath_CantEvaluate
    // when the expression yields no result (a syntax error, say).
    tXPathExpr(xmlDoc* doc, const std::string& expression, xmlNode* contextNode = nullptr);
    tXPathExpr(const tXmlDocument& doc, const std::string& expression,
               xmlNode* contextNode = nullptr);

    // The result as a node set, possibly empty or null; tError_XPath_TypesMismatch when the
    // result is of another type.
    xmlNodeSet* getNodeSet() const;
    // The first selected node in document order; tError_XPath_CantEvaluate when none is.
    xmlNode* getXmlNode() const;
    // The XPath string value: for a node set that of its first node, "" when it is empty.
    std::string str() const;
    // The XPath boolean value: a node set is true when it is not empty.
    bool boolean() const;

    std::string expression() const;
    // The raw result, owned by this expression.
    xmlXPathObject* getResult() const { return result_.get(); }

  private:
    std::shared_ptr<xmlChar> expression_;
    std::shared_ptr<xmlXPathContext> context_;
    std::shared_ptr<xmlXPathObject> result_;

    static log4cpp::Category& logger;
};

// The boolean value of `expression` evaluated relative to `contextNode` (or the document).
bool testXPathExpr(xmlDoc* doc, const std::string& expression, xmlNode* contextNode = nullptr);
bool testXPathExpr(const tXmlDocument& doc, const std::string& expression,
                   xmlNode* contextNode = nullptr);

// One operation on one node, applied by foreach_xmlnode.
class tXmlOperator {
  public:
    virtual ~tXmlOperator();
    virtual void act(xmlNode* node) const = 0;
};

using XmlNodeErrorHandler = std::function<void(const ExTraceable&)>;

// Applies `op` to every node that `expr` selected. A tagged exception (ExTraceable) from one
// node goes to `onError` and the walk goes on; with an empty `onError` the node is just
// skipped. Other exceptions end the walk. tError_XmlInternal when the result is not a node set.
// Returns 1.
int foreach_xmlnode(const tXPathExpr& expr, const tXmlOperator& op,
                    const XmlNodeErrorHandler& onError);

// The first child element of `node` named exactly `name`, or null.
xmlNode* getXmlChild(xmlNode* node, const std::string& name);

// Whether an attribute value that the library returned is present.
bool is_xml_attr_set(const xmlChar* value);

// A borrowed (document, element) pair; cheap to copy.
class XmlNode {
  public:
    XmlNode(xmlDoc* doc, xmlNode* node) : doc_(doc), node_(node) {}

    // `expression` evaluated relative to this node.
    tXPathExpr operator[](const std::string& expression) const;
    bool test(const std::string& expression) const;
    // The first node that `expression` selects; tError_XPath_CantEvaluate when there is none.
    XmlNode getNode(const std::string& expression) const;
    // The parent element; NoParentNode for the root element or a detached node.
    XmlNode getParent() const;

    xmlDoc* getDoc() const { return doc_; }
    xmlNode* get() const { return node_; }

  private:
    xmlDoc* doc_;
    xmlNode* node_;
};

}  // namespace tavik

#endif  // FERRYGATE_XML_XML_XPATH_H
