#include "MapServices/Common/XmlNode.h"

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
