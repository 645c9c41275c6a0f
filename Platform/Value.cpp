#include "Platform/Value.h"

#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <chrono>

namespace platform {

struct Value::ArrayBox {
    platform::Array items;
};
struct Value::DictionaryBox {
    platform::Dictionary items;
};

Value::Value(platform::Array a) : v_(std::make_shared<ArrayBox>(ArrayBox{std::move(a)})) {}
Value::Value(platform::Dictionary d) : v_(std::make_shared<DictionaryBox>(DictionaryBox{std::move(d)})) {}
Value::~Value() = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(Value&&) noexcept = default;

Value::Value(const Value& other) { *this = other; }

Value& Value::operator=(const Value& other) {
    if (this == &other) return *this;
    switch (other.type()) {
    case Type::Array: v_ = std::make_shared<ArrayBox>(*std::get<8>(other.v_)); break;
    case Type::Dictionary: v_ = std::make_shared<DictionaryBox>(*std::get<9>(other.v_)); break;
    case Type::Null: v_ = std::monostate{}; break;
    case Type::Boolean: v_ = std::get<1>(other.v_); break;
    case Type::Integer: v_ = std::get<2>(other.v_); break;
    case Type::UnsignedInteger: v_ = std::get<3>(other.v_); break;
    case Type::Real: v_ = std::get<4>(other.v_); break;
    case Type::String: v_ = std::get<5>(other.v_); break;
    case Type::Data: v_ = std::get<6>(other.v_); break;
    case Type::Date: v_ = std::get<7>(other.v_); break;
    case Type::Foreign: v_ = std::get<10>(other.v_); break;
    }
    return *this;
}

bool Value::isNumber() const {
    auto t = type();
    return t == Type::Integer || t == Type::UnsignedInteger || t == Type::Real;
}

std::optional<bool> Value::boolean() const {
    if (auto* b = std::get_if<bool>(&v_)) return *b;
    return std::nullopt;
}

std::optional<int64_t> Value::integer() const {
    if (auto* i = std::get_if<int64_t>(&v_)) return *i;
    if (auto* u = std::get_if<uint64_t>(&v_); u && *u <= uint64_t(INT64_MAX)) return int64_t(*u);
    return std::nullopt;
}

std::optional<uint64_t> Value::unsignedInteger() const {
    if (auto* u = std::get_if<uint64_t>(&v_)) return *u;
    if (auto* i = std::get_if<int64_t>(&v_); i && *i >= 0) return uint64_t(*i);
    return std::nullopt;
}

std::optional<double> Value::real() const {
    if (auto* d = std::get_if<double>(&v_)) return *d;
    if (auto* i = std::get_if<int64_t>(&v_)) return double(*i);
    if (auto* u = std::get_if<uint64_t>(&v_)) return double(*u);
    return std::nullopt;
}

const std::string* Value::string() const { return std::get_if<std::string>(&v_); }
const platform::Data* Value::data() const { return std::get_if<platform::Data>(&v_); }
std::optional<platform::Date> Value::date() const {
    if (auto* d = std::get_if<platform::Date>(&v_)) return *d;
    return std::nullopt;
}
const platform::Array* Value::array() const {
    auto* box = std::get_if<std::shared_ptr<ArrayBox>>(&v_);
    return box ? &(*box)->items : nullptr;
}
platform::Array* Value::array() {
    auto* box = std::get_if<std::shared_ptr<ArrayBox>>(&v_);
    return box ? &(*box)->items : nullptr;
}
const platform::Dictionary* Value::dictionary() const {
    auto* box = std::get_if<std::shared_ptr<DictionaryBox>>(&v_);
    return box ? &(*box)->items : nullptr;
}
platform::Dictionary* Value::dictionary() {
    auto* box = std::get_if<std::shared_ptr<DictionaryBox>>(&v_);
    return box ? &(*box)->items : nullptr;
}
const platform::Foreign* Value::foreign() const { return std::get_if<platform::Foreign>(&v_); }

Value Value::propertyListSafe() const {
    switch (type()) {
    case Type::Foreign: return Value();
    case Type::Array: {
        platform::Array out;
        for (const auto& item : *array())
            if (item.type() != Type::Foreign) out.push_back(item.propertyListSafe());
        return Value(std::move(out));
    }
    case Type::Dictionary: {
        platform::Dictionary out;
        for (const auto& [key, item] : *dictionary())
            if (item.type() != Type::Foreign) out.set(key, item.propertyListSafe());
        return Value(std::move(out));
    }
    default: return *this;
    }
}

std::string Value::description() const {
    switch (type()) {
    case Type::Null: return "(null)";
    case Type::Boolean: return *boolean() ? "true" : "false";
    case Type::Integer: return std::to_string(std::get<int64_t>(v_));
    case Type::UnsignedInteger: return std::to_string(std::get<uint64_t>(v_));
    case Type::Real: return fmt::format("{}", std::get<double>(v_));
    case Type::String: return *string();
    case Type::Data: return fmt::format("<{} bytes>", data()->size());
    case Type::Date: return date()->description();
    case Type::Foreign: return foreign()->text;
    case Type::Array: {
        std::string out = "(";
        for (size_t i = 0; i < array()->size(); ++i) out += (i ? ", " : "") + (*array())[i].description();
        return out + ")";
    }
    case Type::Dictionary: {
        std::string out = "{";
        bool first = true;
        for (const auto& [key, item] : *dictionary()) {
            out += (first ? "" : "; ") + key + " = " + item.description();
            first = false;
        }
        return out + "}";
    }
    }
    return {};
}

bool Value::operator==(const Value& other) const {
    if (isNumber() && other.isNumber() && type() != other.type()) {
        if (type() == Type::Real || other.type() == Type::Real) return real() == other.real();
        auto a = integer(), b = other.integer();
        if (a && b) return *a == *b;
        return unsignedInteger() == other.unsignedInteger() && unsignedInteger().has_value();
    }
    if (type() != other.type()) return false;
    switch (type()) {
    case Type::Array: return *array() == *other.array();
    case Type::Dictionary: return *dictionary() == *other.dictionary();
    default: return v_ == other.v_;
    }
}

// ---- Date ----

Date Date::now() {
    auto t = std::chrono::system_clock::now().time_since_epoch();
    return Date{std::chrono::duration<double>(t).count()};
}

static std::tm utcTime(double seconds) {
    time_t whole = static_cast<time_t>(std::floor(seconds));
    std::tm tm{};
    gmtime_r(&whole, &tm);
    return tm;
}

std::string Date::description() const {
    std::tm tm = utcTime(secondsSince1970);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                       tm.tm_hour, tm.tm_min, tm.tm_sec);
}

std::string Date::iso8601() const {
    std::tm tm = utcTime(secondsSince1970);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                       tm.tm_hour, tm.tm_min, tm.tm_sec);
}

std::optional<Date> Date::fromISO8601(std::string_view s) {
    auto digits = [&](size_t pos, size_t n, int& out) {
        if (pos + n > s.size()) return false;
        out = 0;
        for (size_t i = pos; i < pos + n; ++i) {
            if (s[i] < '0' || s[i] > '9') return false;
            out = out * 10 + (s[i] - '0');
        }
        return true;
    };
    int year, mon, day, hour, min, sec;
    if (!digits(0, 4, year) || s.size() < 19 || s[4] != '-' || !digits(5, 2, mon) || s[7] != '-' ||
        !digits(8, 2, day) || (s[10] != 'T' && s[10] != ' ') || !digits(11, 2, hour) || s[13] != ':' ||
        !digits(14, 2, min) || s[16] != ':' || !digits(17, 2, sec))
        return std::nullopt;
    if (mon < 1 || mon > 12 || day < 1 || day > 31 || hour > 23 || min > 59 || sec > 60) return std::nullopt;
    size_t pos = 19;
    double fraction = 0;
    if (pos < s.size() && s[pos] == '.') {
        double scale = 0.1;
        for (++pos; pos < s.size() && s[pos] >= '0' && s[pos] <= '9'; ++pos, scale /= 10) fraction += (s[pos] - '0') * scale;
    }
    int offset = 0;
    if (pos < s.size()) {
        if (s[pos] == 'Z' && pos + 1 == s.size()) {
        } else if ((s[pos] == '+' || s[pos] == '-') && s.size() == pos + 6 && s[pos + 3] == ':') {
            int oh, om;
            if (!digits(pos + 1, 2, oh) || !digits(pos + 4, 2, om)) return std::nullopt;
            offset = (s[pos] == '+' ? 1 : -1) * (oh * 3600 + om * 60);
        } else {
            return std::nullopt;
        }
    }
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    return Date{double(timegm(&tm)) - offset + fraction};
}

// ---- Dictionary ----

namespace {
constexpr size_t kIndexThreshold = 16;
}

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    for (const auto& e : entries) set(e.first, e.second);
}

ptrdiff_t Dictionary::indexOf(std::string_view key) const {
    if (index_) {
        auto it = index_->find(std::string(key));
        return it == index_->end() ? -1 : ptrdiff_t(it->second);
    }
    for (size_t i = 0; i < entries_.size(); ++i)
        if (entries_[i].first == key) return ptrdiff_t(i);
    return -1;
}

void Dictionary::rebuildIndex() {
    if (entries_.size() <= kIndexThreshold) {
        index_.reset();
        return;
    }
    auto index = std::make_shared<std::unordered_map<std::string, size_t>>();
    index->reserve(entries_.size());
    for (size_t i = 0; i < entries_.size(); ++i) index->emplace(entries_[i].first, i);
    index_ = std::move(index);
}

const Value* Dictionary::find(std::string_view key) const {
    auto i = indexOf(key);
    return i < 0 ? nullptr : &entries_[size_t(i)].second;
}
Value* Dictionary::find(std::string_view key) {
    auto i = indexOf(key);
    return i < 0 ? nullptr : &entries_[size_t(i)].second;
}
const std::string* Dictionary::findString(std::string_view key) const {
    auto* v = find(key);
    return v ? v->string() : nullptr;
}
const Array* Dictionary::findArray(std::string_view key) const {
    auto* v = find(key);
    return v ? v->array() : nullptr;
}
const Dictionary* Dictionary::findDictionary(std::string_view key) const {
    auto* v = find(key);
    return v ? v->dictionary() : nullptr;
}

void Dictionary::set(std::string key, Value value) {
    if (auto i = indexOf(key); i >= 0) {
        entries_[size_t(i)].second = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (index_ && index_.use_count() == 1)
        index_->emplace(entries_.back().first, entries_.size() - 1);
    else if (entries_.size() > kIndexThreshold)
        rebuildIndex();
}

bool Dictionary::remove(std::string_view key) {
    auto i = indexOf(key);
    if (i < 0) return false;
    entries_.erase(entries_.begin() + i);
    rebuildIndex();
    return true;
}

std::vector<std::string> Dictionary::keys() const {
    std::vector<std::string> out;
    out.reserve(entries_.size());
    for (const auto& e : entries_) out.push_back(e.first);
    return out;
}

bool Dictionary::operator==(const Dictionary& other) const {
    if (size() != other.size()) return false;
    for (const auto& [key, value] : entries_) {
        auto* theirs = other.find(key);
        if (!theirs || !(*theirs == value)) return false;
    }
    return true;
}

}  // namespace platform
