#include "MapServices/Common/XmlNode.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "Core/Checked.h"

namespace MapServices {

namespace {

using Element = rapidxml::xml_node<char>;

bool IsElement(const Element* node) noexcept { return node->type() == rapidxml::node_element; }

// First child element of exactly that name. No element has an empty name, and asking rapidxml
// for one would match the nameless text nodes.
Element* FirstChild(const Element* parent, std::string_view name, bool caseSensitive) {
    if (name.empty()) return nullptr;
    for (Element* child = parent->first_node(name.data(), name.size(), caseSensitive); child;
         child = child->next_sibling(name.data(), name.size(), caseSensitive)) {
        if (IsElement(child)) return child;
    }
    return nullptr;
}

void AppendChildren(const Element* parent, std::string_view name, bool caseSensitive, std::vector<Element*>& out) {
    if (name == "*") {
        for (Element* child = parent->first_node(); child; child = child->next_sibling())
            if (IsElement(child)) out.push_back(child);
        return;
    }
    if (name.empty()) return;
    for (Element* child = parent->first_node(name.data(), name.size(), caseSensitive); child;
         child = child->next_sibling(name.data(), name.size(), caseSensitive)) {
        if (IsElement(child)) out.push_back(child);
    }
}

[[noreturn]] void ThrowMissing() { throw std::runtime_error(AttributeDoesNotExist); }

// rapidxml descends one call per element level; deeper documents are refused before parsing.
constexpr int MaxElementDepth = 512;

// Skips past the first `end` at or after `at`; the end of the text when there is none.
size_t SkipPast(std::string_view text, size_t at, std::string_view end) {
    const size_t found = text.find(end, at);
    return found == std::string_view::npos ? text.size() : found + end.size();
}

// Counts element levels the way the parser will meet them: comments, CDATA sections and
// processing instructions hold no elements, a DOCTYPE ends at the first '>' outside its
// brackets, a quoted attribute value may hold '>' and "/>", and a self-closing tag opens no level.
void CheckElementDepth(std::string_view text) {
    int depth = 0;
    size_t at = 0;
    while ((at = text.find('<', at)) != std::string_view::npos) {
        const std::string_view rest = text.substr(at);
        if (rest.starts_with("<?")) {
            at = SkipPast(text, at + 2, "?>");
        } else if (rest.starts_with("<!--")) {
            at = SkipPast(text, at + 4, "-->");
        } else if (rest.starts_with("<![CDATA[")) {
            at = SkipPast(text, at + 9, "]]>");
        } else if (rest.starts_with("<!")) {
            int brackets = 0;
            for (at += 2; at < text.size() && (text[at] != '>' || brackets > 0); ++at) {
                if (text[at] == '[')
                    ++brackets;
                else if (text[at] == ']' && brackets > 0)
                    --brackets;
            }
            ++at;
        } else if (rest.starts_with("</")) {
            depth = std::max(0, depth - 1);
            at = SkipPast(text, at + 2, ">");
        } else {
            char quote = 0;
            bool selfClosing = false;
            for (++at; at < text.size(); ++at) {
                const char c = text[at];
                if (quote) {
                    if (c == quote) quote = 0;
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '>') {
                    selfClosing = text[at - 1] == '/';
                    break;
                }
            }
            ++at;
            if (!selfClosing && ++depth > MaxElementDepth) throw std::runtime_error("XML nesting too deep");
        }
    }
}

}  // namespace

std::vector<std::string> SplitString(std::string_view text, std::string_view delimiter) {
    std::vector<std::string> pieces;
    ForEachSplitPiece(text, delimiter, [&](std::string_view piece) { pieces.emplace_back(piece); });
    return pieces;
}

std::string XmlAttribute::Value() const { return std::string(View()); }

std::string_view XmlAttribute::View() const {
    if (!attribute_) ThrowMissing();
    return {attribute_->value(), attribute_->value_size()};
}

std::string_view XmlNode::Name() const noexcept {
    if (!element_) return {};
    return {element_->name(), element_->name_size()};
}

XmlNode XmlNode::FindNode(std::string_view path, bool caseSensitive) const {
    Element* node = element_;
    if (!node) return {};
    ForEachSplitPiece(path, "/", [&](std::string_view step) {
        if (node) node = FirstChild(node, step, caseSensitive);
    });
    return XmlNode(node);
}

std::vector<XmlNode> XmlNode::FindNodes(std::string_view path, bool caseSensitive) const {
    if (!element_) return {};
    std::vector<Element*> current{element_};
    std::vector<Element*> next;
    ForEachSplitPiece(path, "/", [&](std::string_view step) {
        next.clear();
        for (const Element* parent : current) AppendChildren(parent, step, caseSensitive, next);
        current.swap(next);
    });
    std::vector<XmlNode> result;
    result.reserve(current.size());
    for (Element* node : current) result.emplace_back(node);
    return result;
}

XmlAttribute XmlNode::Attribute(std::string_view name) const {
    if (!element_) return {};
    if (!attributesRead_) {
        for (auto* attribute = element_->first_attribute(); attribute; attribute = attribute->next_attribute())
            attributes_.emplace_back(std::string_view(attribute->name(), attribute->name_size()), attribute);
        attributesRead_ = true;
    }
    // From the back: of two attributes with one name, the later one is the one that counts.
    for (auto it = attributes_.rbegin(); it != attributes_.rend(); ++it)
        if (it->first == name) return XmlAttribute(it->second);
    return {};
}

std::string XmlNode::Value() const { return std::string(View()); }

std::string_view XmlNode::View() const {
    if (!element_) ThrowMissing();
    return {element_->value(), element_->value_size()};
}

std::string XmlNode::ValueOr(std::string_view fallback) const {
    if (!element_) return std::string(fallback);
    return std::string(element_->value(), element_->value_size());
}

double XmlNode::ValueAsDouble() const { return Core::Stod(Value()); }

XmlDocument::XmlDocument(std::string_view text)
    : buffer_(new char[text.size() + 1]), document_(std::make_unique<rapidxml::xml_document<char>>()) {
    if (!text.empty()) std::memcpy(buffer_.get(), text.data(), text.size());
    buffer_[text.size()] = '\0';
    CheckElementDepth(text);
    document_->parse<rapidxml::parse_default>(buffer_.get());
}

XmlDocument::~XmlDocument() = default;

XmlNode XmlDocument::FirstElement() const {
    for (Element* node = document_->first_node(); node; node = node->next_sibling())
        if (IsElement(node)) return XmlNode(node);
    return {};
}

XmlNode XmlDocument::FirstElement(std::string_view name) const {
    if (name.empty()) return {};
    for (Element* node = document_->first_node(name.data(), name.size(), true); node;
         node = node->next_sibling(name.data(), name.size(), true)) {
        if (IsElement(node)) return XmlNode(node);
    }
    return {};
}

}  // namespace MapServices
