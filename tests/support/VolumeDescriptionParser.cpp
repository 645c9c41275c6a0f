#include "support/VolumeDescriptionParser.h"

#include <charconv>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "support/VolumeBuilder.h"

namespace testsupport {

namespace {

struct LineError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Options of one line: key=value pairs and bare flags.
class Options {
public:
    explicit Options(const std::vector<std::string>& words, size_t from) {
        for (size_t i = from; i < words.size(); ++i) {
            auto eq = words[i].find('=');
            if (eq == std::string::npos)
                values_[words[i]] = std::nullopt;
            else
                values_[words[i].substr(0, eq)] = words[i].substr(eq + 1);
        }
    }

    bool flag(const std::string& key) { return take(key).has_value(); }
    std::optional<std::string> text(const std::string& key) {
        auto value = take(key);
        if (!value) return std::nullopt;
        if (!*value) throw LineError(key + " needs a value");
        return **value;
    }
    std::optional<uint64_t> number(const std::string& key, int base = 10) {
        auto value = text(key);
        if (!value) return std::nullopt;
        return parseNumber(key, *value, base);
    }
    static uint64_t parseNumber(const std::string& what, const std::string& value, int base = 10) {
        uint64_t out = 0;
        auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), out, base);
        if (value.empty() || ec != std::errc() || end != value.data() + value.size())
            throw LineError(what + " " + value + " is not a number");
        return out;
    }
    // Every option must have been used by the keyword.
    void finish() const {
        if (!values_.empty()) throw LineError("unknown option " + values_.begin()->first);
    }

private:
    std::optional<std::optional<std::string>> take(const std::string& key) {
        auto it = values_.find(key);
        if (it == values_.end()) return std::nullopt;
        auto value = it->second;
        values_.erase(it);
        return value;
    }
    std::map<std::string, std::optional<std::string>> values_;
};

ItemOptions itemOptions(Options& options) {
    ItemOptions out;
    if (auto mode = options.number("mode", 8)) out.mode = mode_t(*mode);
    if (auto owner = options.number("owner")) out.owner = uid_t(*owner);
    if (auto group = options.number("group")) out.group = gid_t(*group);
    out.text = options.text("text");
    out.fill = options.flag("fill");
    out.acl = options.text("acl");
    return out;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');)
        if (!part.empty()) out.push_back(part);
    return out;
}

void need(const std::vector<std::string>& words, size_t count, const char* usage) {
    if (words.size() < count) throw LineError(std::string("expected: ") + usage);
}

template <typename Target>
bool addItem(Target& target, const std::vector<std::string>& words) {
    const std::string& keyword = words[0];
    if (keyword == "dir") {
        need(words, 2, "dir PATH [options]");
        Options options(words, 2);
        auto item = itemOptions(options);
        options.finish();
        target.directory(words[1], item);
    } else if (keyword == "file") {
        need(words, 2, "file PATH [size=N] [options]");
        Options options(words, 2);
        uint64_t size = options.number("size").value_or(0);
        auto item = itemOptions(options);
        options.finish();
        target.file(words[1], item.text ? item.text->size() : size, item);
    } else if (keyword == "link") {
        need(words, 3, "link PATH TARGET [options]");
        Options options(words, 3);
        auto item = itemOptions(options);
        options.finish();
        target.symlink(words[1], words[2], item);
    } else {
        return false;
    }
    return true;
}

void addPackageLine(PackageBuilder& package, const std::vector<std::string>& words) {
    if (addItem(package, words)) return;
    if (words[0] == "entry") {
        need(words, 2, "entry PATH [type=file|dir|link] [options]");
        Options options(words, 2);
        std::string type = options.text("type").value_or("file");
        auto item = itemOptions(options);
        options.finish();
        package.entry(words[1], type, item);
    } else if (words[0] == "generate") {
        need(words, 3, "generate COUNT FOLDER [fanout=N]");
        Options options(words, 3);
        size_t fanout = options.number("fanout").value_or(100);
        options.finish();
        package.generate(Options::parseNumber("count", words[1]), words[2], fanout);
    } else {
        throw LineError("unknown package item " + words[0]);
    }
}

void applyPackageOptions(PackageBuilder& package, Options& options) {
    using D = PackageDescription;
    if (auto version = options.text("version")) package.version(*version == "none" ? std::nullopt : version);
    if (auto groups = options.text("groups")) package.groups(splitList(*groups));
    if (auto date = options.text("date")) {
        auto parsed = platform::Date::fromISO8601(*date);
        if (!parsed) throw LineError("date=" + *date + " is not an ISO 8601 date");
        package.installDate(*parsed);
    }
    if (auto name = options.text("name")) package.packageFileName(*name);
    if (auto in = options.text("in")) {
        static const std::map<std::string, D::Location> kLocations{
            {"secure", D::Location::Secure}, {"library", D::Location::Library}, {"boms", D::Location::LibraryBOMs}};
        if (!kLocations.count(*in)) throw LineError("in=" + *in + ": expected secure, library or boms");
        package.location(kLocations.at(*in));
    }
    if (auto form = options.text("plist")) {
        static const std::map<std::string, D::PropertyListForm> kForms{{"xml", D::PropertyListForm::XML},
                                                                       {"binary", D::PropertyListForm::Binary},
                                                                       {"missing", D::PropertyListForm::Missing},
                                                                       {"damaged", D::PropertyListForm::Damaged}};
        if (!kForms.count(*form)) throw LineError("plist=" + *form + ": expected xml, binary, missing or damaged");
        package.propertyList(kForms.at(*form));
    }
    if (options.flag("checksums")) package.checksums();
    if (options.flag("acls")) package.acls();
}

void applyBOMOption(PackageBuilder& package, Options& options, bool allowMissing) {
    auto bom = options.text("bom");
    if (!bom) return;
    if (*bom == "damaged")
        package.damagedBOM();
    else if (*bom == "missing" && allowMissing)
        package.missingBOM();
    else
        throw LineError("bom=" + *bom + " is not understood here");
}

std::optional<PackageBuilder> addTopLevelLine(VolumeBuilder& volume, const std::vector<std::string>& words) {
    using D = PackageDescription;
    const std::string& keyword = words[0];
    if (addItem(volume, words)) return std::nullopt;
    if (keyword == "system") {
        need(words, 2, "system VERSION");
        Options(words, 2).finish();
        volume.systemVersion(words[1]);
        return std::nullopt;
    }
    if (keyword == "user") {
        need(words, 2, "user NAME [uid=N] [gid=N]");
        Options options(words, 2);
        auto uid = options.number("uid").value_or(501);
        auto gid = options.number("gid").value_or(20);
        options.finish();
        volume.user(words[1], uid_t(uid), gid_t(gid));
        return std::nullopt;
    }
    if (keyword == "package") {
        need(words, 2, "package IDENTIFIER [options]");
        Options options(words, 2);
        auto package = volume.package(words[1]);
        applyPackageOptions(package, options);
        applyBOMOption(package, options, false);
        options.finish();
        return package;
    }
    if (keyword == "bundle") {
        need(words, 2, "bundle NAME.pkg [identifier=ID] [version=V] [layout=contents|resources|flat] [info=none]");
        Options options(words, 2);
        auto package = volume.bundle(words[1], options.text("identifier"));
        if (auto version = options.text("version")) package.version(*version == "none" ? std::nullopt : version);
        if (auto layout = options.text("layout")) {
            static const std::map<std::string, D::BundleLayout> kLayouts{{"contents", D::BundleLayout::Contents},
                                                                         {"resources", D::BundleLayout::Resources},
                                                                         {"flat", D::BundleLayout::Flat}};
            if (!kLayouts.count(*layout)) throw LineError("layout=" + *layout + ": expected contents, resources or flat");
            package.layout(kLayouts.at(*layout));
        }
        if (auto info = options.text("info")) {
            if (*info != "none") throw LineError("info=" + *info + ": expected none");
            package.withoutInfoDictionary();
        }
        applyBOMOption(package, options, true);
        options.finish();
        return package;
    }
    throw LineError("unknown keyword " + keyword);
}

}  // namespace

std::vector<std::string> splitDescriptionLine(const std::string& line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
        if (i == line.size() || line[i] == '#') break;
        std::string word;
        bool quoted = false;
        for (; i < line.size() && (quoted || (line[i] != ' ' && line[i] != '\t' && line[i] != '\r')); ++i) {
            char c = line[i];
            if (c == '"') {
                quoted = !quoted;
            } else if (quoted && c == '\\' && i + 1 < line.size()) {
                char e = line[++i];
                word += e == 'n' ? '\n' : e == 't' ? '\t' : e;
            } else {
                word += c;
            }
        }
        if (quoted) throw LineError("unterminated quote");
        words.push_back(std::move(word));
    }
    return words;
}

void parseVolumeDescription(VolumeBuilder& volume, const std::string& text, const std::string& origin) {
    std::stringstream in(text);
    std::optional<PackageBuilder> package;
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        try {
            auto words = splitDescriptionLine(line);
            if (words.empty()) continue;
            bool indented = line[0] == ' ' || line[0] == '\t';
            if (indented) {
                if (!package) throw LineError("an indented line needs a package or bundle above it");
                addPackageLine(*package, words);
            } else {
                auto next = addTopLevelLine(volume, words);
                package.reset();
                if (next) package.emplace(*next);
            }
        } catch (const LineError& error) {
            throw std::runtime_error(origin + ":" + std::to_string(number) + ": " + error.what());
        }
    }
}

}  // namespace testsupport
