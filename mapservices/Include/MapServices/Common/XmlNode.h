#pragma once
// A thin handle layer over rapidxml for the capabilities readers. An empty handle means "not
// found"; reading a value through an empty handle fails with "Attribute does not exist".
#include <memory>
#include <rapidxml/rapidxml.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace MapServices {

// The one message for mandatory data missing from a capabilities document.
inline constexpr const char* AttributeDoesNotExist = "Attribute does not exist";

// Pieces of `text` between occurrences of `delimiter`, empty pieces left out; when nothing was
// found at all the whole text is the only piece (so "", "abc" and "," each give one piece).
std::vector<std::string> SplitString(std::string_view text, std::string_view delimiter);

// The same pieces as views into `text`, handed to `piece` in order without building strings.
template <class F>
void ForEachSplitPiece(std::string_view text, std::string_view delimiter, F&& piece) {
    if (delimiter.empty()) {
        piece(text);
        return;
    }
    bool added = false;
    size_t position = 0;
    for (size_t found = text.find(delimiter); found != std::string_view::npos; found = text.find(delimiter, position)) {
        if (found > position) {
            piece(text.substr(position, found - position));
            added = true;
        }
        position = found + delimiter.size();
    }
    if (position >= 1 && position < text.size()) {
        piece(text.substr(position));
        added = true;
    }
    if (!added) piece(text);
}

// One attribute of an element, or nothing.
class XmlAttribute {
public:
    XmlAttribute() = default;
    explicit XmlAttribute(rapidxml::xml_attribute<char>* attribute) noexcept : attribute_(attribute) {}

    bool IsEmpty() const noexcept { return attribute_ == nullptr; }
    explicit operator bool() const noexcept { return attribute_ != nullptr; }

    // The value; "Attribute does not exist" on an empty handle.
    std::string Value() const;
    // The value as a view into the document; same failure.
    std::string_view View() const;

    rapidxml::xml_attribute<char>* Raw() const noexcept { return attribute_; }

private:
    rapidxml::xml_attribute<char>* attribute_ = nullptr;
};

// One element of a parsed document, or nothing. Copies are independent; the document must
// outlive every handle.
class XmlNode {
public:
    XmlNode() = default;
    explicit XmlNode(rapidxml::xml_node<char>* element) noexcept : element_(element) {}

    bool IsEmpty() const noexcept { return element_ == nullptr; }
    explicit operator bool() const noexcept { return element_ != nullptr; }

    // The element's name with any namespace prefix; empty for an empty handle.
    std::string_view Name() const noexcept;

    // "/"-separated element names; each step takes the first child element of that name.
    XmlNode FindNode(std::string_view path, bool caseSensitive = true) const;
    // All matches in document order; a step that is exactly "*" takes children of any name.
    std::vector<XmlNode> FindNodes(std::string_view path, bool caseSensitive = true) const;

    // The attribute of that exact name (the last one when the name repeats), or an empty handle.
    XmlAttribute Attribute(std::string_view name) const;

    // The element's text; "Attribute does not exist" on an empty handle.
    std::string Value() const;
    std::string_view View() const;
    // The element's text, or `fallback` on an empty handle.
    std::string ValueOr(std::string_view fallback) const;
    // The element's text as a double ("invalid stod argument", ...).
    double ValueAsDouble() const;

    rapidxml::xml_node<char>* Raw() const noexcept { return element_; }

private:
    rapidxml::xml_node<char>* element_ = nullptr;
    // Attribute table by name, filled at the first Attribute call. A short list searched from
    // the back serves as the map: documents give an element a handful of attributes at most.
    mutable std::vector<std::pair<std::string_view, rapidxml::xml_attribute<char>*>> attributes_;
    mutable bool attributesRead_ = false;
};

// A writable, zero-terminated copy of a text parsed by rapidxml at the default flags. rapidxml's
// parse_error leaves the constructor unchanged.
class XmlDocument {
public:
    explicit XmlDocument(std::string_view text);
    ~XmlDocument();
    XmlDocument(const XmlDocument&) = delete;
    XmlDocument& operator=(const XmlDocument&) = delete;

    // The first top-level element, or an empty handle.
    XmlNode FirstElement() const;
    // The first top-level element of exactly that name, or an empty handle.
    XmlNode FirstElement(std::string_view name) const;

private:
    std::unique_ptr<char[]> buffer_;
    std::unique_ptr<rapidxml::xml_document<char>> document_;
};

} // namespace MapServices
