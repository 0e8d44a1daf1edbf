#include <gtest/gtest.h>

#include <rapidxml/rapidxml.hpp>
#include <string>
#include <vector>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Common/XmlNode.h"

using CapabilitiesTests::MessageOf;
using MapServices::SplitString;
using MapServices::XmlDocument;
using MapServices::XmlNode;

namespace {

using Pieces = std::vector<std::string>;

std::vector<std::string> Names(const std::vector<XmlNode>& nodes) {
    std::vector<std::string> names;
    for (const XmlNode& node : nodes) names.emplace_back(node.Name());
    return names;
}

std::vector<std::string> Texts(const std::vector<XmlNode>& nodes) {
    std::vector<std::string> texts;
    for (const XmlNode& node : nodes) texts.push_back(node.Value());
    return texts;
}

constexpr const char* Document = R"(<?xml version="1.0"?>
<!DOCTYPE root>
<!-- a comment -->
<root a="1" b="2" a="3" empty="">
  text before
  <ows:Title>Prefixed</ows:Title>
  <Item id="x">one</Item>
  <Group><Item>two</Item><Other>o</Other><Item>three</Item></Group>
  <Group><Item>four</Item><![CDATA[cdata]]></Group>
  <Item>five &amp; more</Item>
  <Number> 2.5e3 </Number>
  <Empty/>
</root>)";

}  // namespace

TEST(SplitString, PiecesAndSpecialForms) {
    struct Row {
        const char* text;
        const char* delimiter;
        Pieces pieces;
    } rows[] = {
        {"a,b,c", ",", {"a", "b", "c"}},
        {"a,,b", ",", {"a", "b"}},
        {",a,b,", ",", {"a", "b"}},
        {"abc", ",", {"abc"}},
        {"", ",", {""}},
        {",", ",", {","}},
        {",,,", ",", {",,,"}},
        {"urn:ogc:def:crs:EPSG::3857", ":", {"urn", "ogc", "def", "crs", "EPSG", "3857"}},
        {"a<>b<>", "<>", {"a", "b"}},
        {"x", "", {"x"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(SplitString(row.text, row.delimiter), row.pieces);
    }
}

TEST(XmlNode, FindNodeTakesTheFirstMatchPerStep) {
    const XmlDocument document(Document);
    const XmlNode root = document.FirstElement();
    EXPECT_EQ(root.FindNode("Item").Value(), "one");
    EXPECT_EQ(root.FindNode("Group/Item").Value(), "two");
    EXPECT_EQ(root.FindNode("Item").Attribute("id").Value(), "x");
    // Names carry their prefix; the flag goes to the name comparison.
    EXPECT_EQ(root.FindNode("ows:Title").Value(), "Prefixed");
    EXPECT_TRUE(root.FindNode("Title").IsEmpty());
    EXPECT_TRUE(root.FindNode("OWS:TITLE").IsEmpty());
    EXPECT_EQ(root.FindNode("OWS:TITLE", false).Value(), "Prefixed");
    // A missing step anywhere gives the empty handle, and so does an empty handle.
    EXPECT_TRUE(root.FindNode("Group/Missing/Item").IsEmpty());
    EXPECT_TRUE(XmlNode().FindNode("Item").IsEmpty());
    // "*" is a literal name here, and an empty step matches no (nameless) text node.
    EXPECT_TRUE(root.FindNode("*").IsEmpty());
    EXPECT_TRUE(root.FindNode("").IsEmpty());
    // Empty pieces of a path are dropped like those of any split text.
    EXPECT_EQ(root.FindNode("/Group//Item").Value(), "two");
}

TEST(XmlNode, FindNodesCollectsAllMatchesInDocumentOrder) {
    const XmlDocument document(Document);
    const XmlNode root = document.FirstElement();
    EXPECT_EQ(Texts(root.FindNodes("Item")), (Pieces{"one", "five & more"}));
    EXPECT_EQ(Texts(root.FindNodes("Group/Item")), (Pieces{"two", "three", "four"}));
    EXPECT_EQ(Names(root.FindNodes("Group/*")), (Pieces{"Item", "Other", "Item", "Item"}));
    EXPECT_EQ(Names(root.FindNodes("*")), (Pieces{"ows:Title", "Item", "Group", "Group", "Item", "Number", "Empty"}));
    EXPECT_EQ(root.FindNodes("GROUP/ITEM", false).size(), 3u);
    EXPECT_TRUE(root.FindNodes("Group/Missing").empty());
    EXPECT_TRUE(XmlNode().FindNodes("*").empty());
}

TEST(XmlNode, AttributesAndValues) {
    const XmlDocument document(Document);
    const XmlNode root = document.FirstElement();
    // Of two attributes with one name the last counts, also after the table is built.
    EXPECT_EQ(root.Attribute("a").Value(), "3");
    EXPECT_EQ(root.Attribute("empty").Value(), "");
    EXPECT_TRUE(root.Attribute("missing").IsEmpty());
    EXPECT_TRUE(root.Attribute("A").IsEmpty());
    EXPECT_EQ(MessageOf([&] { root.Attribute("missing").Value(); }), "Attribute does not exist");
    EXPECT_TRUE(XmlNode().Attribute("a").IsEmpty());
    // A copy keeps working on its own table.
    const XmlNode copy = root;
    EXPECT_EQ(copy.Attribute("a").Value(), "3");

    // An element without text reads as "".
    EXPECT_EQ(root.FindNode("Empty").Value(), "");
    EXPECT_EQ(root.FindNode("Empty").ValueOr("fallback"), "");
    EXPECT_EQ(root.FindNode("Missing").ValueOr("fallback"), "fallback");
    EXPECT_EQ(MessageOf([&] { root.FindNode("Missing").Value(); }), "Attribute does not exist");

    EXPECT_DOUBLE_EQ(root.FindNode("Number").ValueAsDouble(), 2500.0);
    EXPECT_EQ(MessageOf([&] { root.FindNode("Item").ValueAsDouble(); }), "invalid stod argument");
    EXPECT_EQ(MessageOf([&] { root.FindNode("Empty").ValueAsDouble(); }), "invalid stod argument");
    EXPECT_EQ(MessageOf([&] { root.FindNode("Missing").ValueAsDouble(); }), "Attribute does not exist");
}

TEST(XmlDocument, ParserErrorsPassThroughAndTopLevelSearch) {
    EXPECT_EQ(MessageOf([] { XmlDocument("no markup"); }), "expected <");
    EXPECT_EQ(MessageOf([] { XmlDocument("<a><b></a>"); }), "unexpected end of data");
    EXPECT_EQ(MessageOf([] { XmlDocument("<a></a"); }), "expected >");
    EXPECT_THROW(XmlDocument("<a"), rapidxml::parse_error);
    // A UTF-8 byte order mark is skipped; declarations and comments make no elements.
    const XmlDocument withBom("\xEF\xBB\xBF<?xml version=\"1.0\"?><!-- c --><first/><second/>");
    EXPECT_EQ(withBom.FirstElement().Name(), "first");
    EXPECT_EQ(withBom.FirstElement("second").Name(), "second");
    EXPECT_TRUE(withBom.FirstElement("third").IsEmpty());
    EXPECT_TRUE(XmlDocument("").FirstElement().IsEmpty());
    EXPECT_TRUE(XmlDocument("<!-- only a comment -->").FirstElement().IsEmpty());
}

namespace {

std::string Nested(int levels, const std::string& open = "<a>", const std::string& inside = "") {
    std::string text;
    for (int i = 0; i < levels; ++i) text += open;
    text += inside;
    for (int i = 0; i < levels; ++i) text += "</a>";
    return text;
}

}  // namespace

// A document nested deeper than 512 elements is refused before the parser descends into it;
// markup that opens no element does not count.
TEST(XmlDocument, DeepNestingIsRefused) {
    const std::string tooDeep = "XML nesting too deep";
    const std::string deepText = Nested(600, "<b>");
    const struct {
        const char* name;
        std::string document;
        std::string message;
    } cases[] = {
        {"100,000 levels", Nested(100000), tooDeep},
        {"512 levels", Nested(512), ""},
        {"513 levels", Nested(513), tooDeep},
        {"quoted '>' and '/>'", Nested(513, "<a x=\"/>\" y='>'>"), tooDeep},
        {"self-closing tags", "<r>" + Nested(1000, "<a/>").substr(0, 4000) + "</r>", ""},
        {"comment", "<r><!--" + deepText + "--></r>", ""},
        {"CDATA", "<r><![CDATA[" + deepText + "]]></r>", ""},
        {"processing instruction", "<?pi " + deepText + "?><r/>", ""},
        {"DOCTYPE with a subset", "<!DOCTYPE r [<!ENTITY e '>'>]>" + Nested(512), ""},
        {"DOCTYPE then too deep", "<!DOCTYPE r [<!ELEMENT r ANY>]>" + Nested(513), tooDeep},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string message = "<parsed>";
        try {
            const XmlDocument document(c.document);
            message = "";
        } catch (const std::exception& e) {
            message = e.what();
        }
        EXPECT_EQ(message, c.message);
    }
}
