#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace TellarMaps {

// Builds the one JSON object a command prints on success, keys in the order they are added.
class JsonObject {
public:
    JsonObject& Add(std::string_view key, std::string_view value) {
        Key(key);
        Quote(value);
        return *this;
    }
    JsonObject& Add(std::string_view key, const char* value) { return Add(key, std::string_view(value)); }
    JsonObject& Add(std::string_view key, int64_t value) {
        Key(key);
        text_ += std::to_string(value);
        return *this;
    }
    JsonObject& Add(std::string_view key, double value) {
        Key(key);
        Number(value);
        return *this;
    }
    JsonObject& Add(std::string_view key, const std::vector<double>& values) {
        Key(key);
        text_ += '[';
        for (size_t i = 0; i < values.size(); ++i) {
            if (i) text_ += ',';
            Number(values[i]);
        }
        text_ += ']';
        return *this;
    }
    std::string Text() const { return "{" + text_ + "}"; }

private:
    void Key(std::string_view key) {
        if (!text_.empty()) text_ += ',';
        Quote(key);
        text_ += ':';
    }
    void Number(double value) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.17g", value);
        text_ += buffer;
    }
    void Quote(std::string_view value) {
        text_ += '"';
        for (char c : value) {
            switch (c) {
            case '"': text_ += "\\\""; break;
            case '\\': text_ += "\\\\"; break;
            case '\n': text_ += "\\n"; break;
            case '\r': text_ += "\\r"; break;
            case '\t': text_ += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    text_ += escaped;
                } else {
                    text_ += c;
                }
            }
        }
        text_ += '"';
    }

    std::string text_;
};

} // namespace TellarMaps
