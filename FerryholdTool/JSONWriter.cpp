#include "FerryholdTool/JSONWriter.h"

#include <cmath>
#include <fmt/format.h>

#include "Platform/Base64.h"

namespace ferryhold {

namespace {

// The length of the UTF-8 sequence starting at `at`, or 0 when it is not well formed
// (overlong forms, surrogates and code points above U+10FFFF included).
size_t utf8SequenceLength(const std::string& s, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char lead = byte(at);
    size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || at + length > s.size()) return 0;
    uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(at + i) & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

bool isForeign(const platform::Value& value) { return value.type() == platform::Value::Type::Foreign; }

}  // namespace

std::string JSONWriter::write(const platform::Value& value) {
    std::string out;
    JSONWriter writer(out);
    writer.value(value, 0);
    out += '\n';
    return out;
}

void JSONWriter::newline(int depth) {
    out_ += '\n';
    out_.append(size_t(depth) * 2, ' ');
}

void JSONWriter::value(const platform::Value& v, int depth) {
    using Type = platform::Value::Type;
    switch (v.type()) {
    case Type::Null:
    case Type::Foreign:
        out_ += "null";
        break;
    case Type::Boolean:
        out_ += *v.boolean() ? "true" : "false";
        break;
    case Type::Integer:
        out_ += fmt::format("{}", *v.integer());
        break;
    case Type::UnsignedInteger:
        out_ += fmt::format("{}", *v.unsignedInteger());
        break;
    case Type::Real:
        real(*v.real());
        break;
    case Type::String:
        string(*v.string());
        break;
    case Type::Data:
        string(platform::base64::encode(*v.data()));
        break;
    case Type::Date:
        string(v.date()->iso8601());
        break;
    case Type::Array:
        array(*v.array(), depth);
        break;
    case Type::Dictionary:
        dictionary(*v.dictionary(), depth);
        break;
    }
}

void JSONWriter::real(double number) {
    // JSON has no infinities or NaN.
    if (!std::isfinite(number)) {
        out_ += "null";
        return;
    }
    std::string text = fmt::format("{}", number);
    if (text.find_first_of(".eE") == std::string::npos) text += ".0";
    out_ += text;
}

void JSONWriter::string(const std::string& text) {
    out_ += '"';
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t length = utf8SequenceLength(text, i);
        if (length == 0) {
            out_ += "\\ufffd";
            ++i;
            continue;
        }
        if (length > 1) {
            out_.append(text, i, length);
        } else if (c == '"' || c == '\\') {
            out_ += '\\';
            out_ += char(c);
        } else if (c == '\n') {
            out_ += "\\n";
        } else if (c == '\r') {
            out_ += "\\r";
        } else if (c == '\t') {
            out_ += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            out_ += fmt::format("\\u{:04x}", c);
        } else {
            out_ += char(c);
        }
        i += length;
    }
    out_ += '"';
}

void JSONWriter::array(const platform::Array& items, int depth) {
    out_ += '[';
    bool first = true;
    for (const auto& item : items) {
        if (isForeign(item)) continue;
        out_ += first ? "" : ",";
        first = false;
        newline(depth + 1);
        value(item, depth + 1);
    }
    if (!first) newline(depth);
    out_ += ']';
}

void JSONWriter::dictionary(const platform::Dictionary& entries, int depth) {
    out_ += '{';
    bool first = true;
    for (const auto& [key, item] : entries) {
        if (isForeign(item)) continue;
        out_ += first ? "" : ",";
        first = false;
        newline(depth + 1);
        string(key);
        out_ += ": ";
        value(item, depth + 1);
    }
    if (!first) newline(depth);
    out_ += '}';
}

}  // namespace ferryhold
