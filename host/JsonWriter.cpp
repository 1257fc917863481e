#include "host/JsonWriter.h"

#include "host/Text.h"

#include <fmt/format.h>

#include <cassert>
#include <cmath>

namespace Host {
void JsonWriter::BeginObject() { Begin(/*isObject=*/true); }
void JsonWriter::EndObject() { End(/*isObject=*/true); }
void JsonWriter::BeginArray() { Begin(/*isObject=*/false); }
void JsonWriter::EndArray() { End(/*isObject=*/false); }

void JsonWriter::Name(std::string_view name) {
    assert(!levels.empty() && levels.back().isObject && !hasName);
    if (!levels.back().isEmpty)
        text += ',';
    levels.back().isEmpty = false;
    NewLine();
    Quote(name);
    text += ": ";
    hasName = true;
}

void JsonWriter::Text(std::string_view value) {
    BeginValue();
    Quote(value);
}

void JsonWriter::Number(std::uint64_t value) {
    BeginValue();
    text += fmt::format("{}", value);
}

void JsonWriter::Number(double value) {
    if (!std::isfinite(value))
        return Null();
    BeginValue();
    text += fmt::format("{}", value);
}

void JsonWriter::Boolean(bool value) {
    BeginValue();
    text += value ? "true" : "false";
}

void JsonWriter::Null() {
    BeginValue();
    text += "null";
}

void JsonWriter::BeginValue() {
    if (levels.empty() || levels.back().isObject) {
        assert(hasName == !levels.empty());
        hasName = false;
        return;
    }
    if (!levels.back().isEmpty)
        text += ',';
    levels.back().isEmpty = false;
    NewLine();
}

void JsonWriter::Begin(bool isObject) {
    BeginValue();
    text += isObject ? '{' : '[';
    levels.push_back({isObject, /*isEmpty=*/true});
}

void JsonWriter::End(bool isObject) {
    assert(!levels.empty() && levels.back().isObject == isObject && !hasName);
    bool const wasEmpty = levels.back().isEmpty;
    levels.pop_back();
    if (!wasEmpty)
        NewLine();
    text += isObject ? '}' : ']';
    if (levels.empty())
        text += '\n';
}

void JsonWriter::NewLine() {
    text += '\n';
    text.append(levels.size() * 2, ' ');
}

void JsonWriter::Quote(std::string_view value) {
    text += '"';
    for (char const c : MakeUtf8(value)) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            text += '\\';
            text += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            text += fmt::format("\\u{:04x}", byte);
        } else {
            text += c;
        }
    }
    text += '"';
}
}
