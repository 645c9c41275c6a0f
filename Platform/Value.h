// The one value type for property-list values and attribute dictionaries.
//
// A Value is null, a boolean, a signed or unsigned 64-bit integer, a real, a string,
// data, a date, an array, a dictionary (keeping insertion order), or a foreign value
// (a URL or an opaque object) that no property list can hold. Values are copied
// deeply; propertyListSafe() drops the foreign ones.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace platform {

class Value;
class Dictionary;
using Array = std::vector<Value>;
using Data = std::vector<uint8_t>;

// A point in time, as seconds since 1970-01-01 00:00:00 UTC (fractions allowed).
struct Date {
    double secondsSince1970 = 0;

    static Date now();
    // Fixed, human-readable form with date, time and zone offset: "2026-11-23 10:00:00 +0000".
    std::string description() const;
    // ISO 8601 in UTC, "2026-11-23T10:00:00Z".
    std::string iso8601() const;
    // Parses "YYYY-MM-DDTHH:MM:SS" with optional fraction and optional "Z" or "+HH:MM"
    // (a time without zone is UTC). Absent when the text is not such a date.
    static std::optional<Date> fromISO8601(std::string_view text);

    auto operator<=>(const Date&) const = default;
};

// A value that a property list cannot hold: a URL, or an object of the host's.
struct Foreign {
    std::string kind;  // "URL", or the object's class name
    std::string text;  // the URL string, or a description
    bool operator==(const Foreign&) const = default;
};

class Value {
public:
    enum class Type { Null, Boolean, Integer, UnsignedInteger, Real, String, Data, Date, Array, Dictionary, Foreign };

    Value() = default;
    Value(std::nullptr_t) {}
    Value(bool b) : v_(b) {}
    Value(int i) : v_(int64_t(i)) {}
    Value(long i) : v_(int64_t(i)) {}
    Value(long long i) : v_(int64_t(i)) {}
    Value(unsigned u) : v_(uint64_t(u)) {}
    Value(unsigned long u) : v_(uint64_t(u)) {}
    Value(unsigned long long u) : v_(uint64_t(u)) {}
    Value(double d) : v_(d) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(std::string s) : v_(std::move(s)) {}
    Value(std::string_view s) : v_(std::string(s)) {}
    Value(platform::Data d) : v_(std::move(d)) {}
    Value(platform::Date d) : v_(d) {}
    Value(platform::Array a);
    Value(platform::Dictionary d);
    Value(platform::Foreign f) : v_(std::move(f)) {}

    Value(const Value& other);
    Value(Value&&) noexcept;
    Value& operator=(const Value& other);
    Value& operator=(Value&&) noexcept;
    ~Value();

    static Value url(std::string text) { return Value(platform::Foreign{"URL", std::move(text)}); }

    Type type() const { return static_cast<Type>(v_.index()); }
    bool isNull() const { return type() == Type::Null; }
    bool isNumber() const;  // integer, unsigned integer or real (not boolean)

    // Typed views; absent (or null) when the value is of another type.
    std::optional<bool> boolean() const;
    // Integers of either signedness, when the value fits; reals are not converted.
    std::optional<int64_t> integer() const;
    std::optional<uint64_t> unsignedInteger() const;
    // Any number as a real.
    std::optional<double> real() const;
    const std::string* string() const;
    const platform::Data* data() const;
    std::optional<platform::Date> date() const;
    const platform::Array* array() const;
    platform::Array* array();
    const platform::Dictionary* dictionary() const;
    platform::Dictionary* dictionary();
    const platform::Foreign* foreign() const;

    // A copy without foreign values, at every depth; a foreign value itself becomes null.
    Value propertyListSafe() const;
    // A short debugging text of the value.
    std::string description() const;

    bool operator==(const Value& other) const;

private:
    struct ArrayBox;
    struct DictionaryBox;
    std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, platform::Data,
                 platform::Date, std::shared_ptr<ArrayBox>, std::shared_ptr<DictionaryBox>, platform::Foreign>
        v_;
};

// A dictionary with string keys that keeps its keys in insertion order.
class Dictionary {
public:
    using Entry = std::pair<std::string, Value>;

    Dictionary() = default;
    Dictionary(std::initializer_list<Entry> entries);

    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    // Typed lookups: null when the key is missing or holds another type.
    const std::string* findString(std::string_view key) const;
    const Array* findArray(std::string_view key) const;
    const Dictionary* findDictionary(std::string_view key) const;

    // Replaces the value of an existing key in place, or appends a new key.
    void set(std::string key, Value value);
    bool remove(std::string_view key);

    std::vector<Entry>::const_iterator begin() const { return entries_.begin(); }
    std::vector<Entry>::const_iterator end() const { return entries_.end(); }
    std::vector<Entry>::iterator begin() { return entries_.begin(); }
    std::vector<Entry>::iterator end() { return entries_.end(); }
    std::vector<std::string> keys() const;

    bool operator==(const Dictionary& other) const;

private:
    ptrdiff_t indexOf(std::string_view key) const;
    void rebuildIndex();
    std::vector<Entry> entries_;
    // Key to position, kept only once the dictionary grows past a few entries.
    std::shared_ptr<std::unordered_map<std::string, size_t>> index_;
};

}  // namespace platform
