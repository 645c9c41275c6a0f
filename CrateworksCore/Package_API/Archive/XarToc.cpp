#include "CrateworksCore/Package_API/Archive/XarToc.h"

#include <algorithm>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include "CrateworksCore/Package_API/Archive/XarLimits.h"
#include "Platform/Base64.h"
#include "Platform/Strings.h"

namespace crateworks::xar {

std::optional<uint64_t> parseU64(std::string_view text) {
    if (text.empty() || text.size() > 20) return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        uint64_t digit = uint64_t(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

namespace {

bool named(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

bool hasElementChildren(const xmlNode* node) {
    for (const xmlNode* c = node->children; c; c = c->next)
        if (c->type == XML_ELEMENT_NODE) return true;
    return false;
}

std::optional<std::string> textOf(const xmlNode* node) {
    std::optional<std::string> text;
    for (const xmlNode* c = node->children; c; c = c->next) {
        if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && c->content) {
            if (!text) text.emplace();
            text->append(reinterpret_cast<const char*>(c->content));
        }
    }
    return text;
}

std::string trimmed(std::string_view s) {
    auto isSpace = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return std::string(s);
}

std::vector<std::pair<std::string, std::string>> attributesOf(const xmlNode* node) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const xmlAttr* a = node->properties; a; a = a->next) {
        xmlChar* value = xmlNodeListGetString(node->doc, a->children, 1);
        out.emplace_back(reinterpret_cast<const char*>(a->name), value ? reinterpret_cast<const char*>(value) : "");
        xmlFree(value);
    }
    return out;
}

std::string attribute(const Property& p, std::string_view name) {
    for (const auto& [key, value] : p.attributes)
        if (key == name) return value;
    return {};
}

bool isSafeName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

uint64_t countFileElements(const xmlNode* node) {
    uint64_t n = 1;
    for (const xmlNode* c = node->children; c; c = c->next)
        if (named(c, "file")) n += countFileElements(c);
    return n;
}

class Parser {
public:
    explicit Parser(std::string* diagnostic) : diagnostic_(diagnostic) {}

    std::optional<Toc> run(xmlDoc* doc) {
        if (doc->intSubset) return fail("the TOC carries a DOCTYPE");
        const xmlNode* root = xmlDocGetRootElement(doc);
        if (!root || !named(root, "xar")) return fail("the TOC has no <xar> root");
        const xmlNode* tocNode = nullptr;
        for (const xmlNode* c = root->children; c && !tocNode; c = c->next)
            if (named(c, "toc")) tocNode = c;
        if (!tocNode) return fail("the TOC has no <toc> element");
        for (const xmlNode* c = tocNode->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE) continue;
            bool ok = named(c, "file") ? parseFile(c, nullptr, 1) : parseArchiveElement(c);
            if (!ok) return std::nullopt;
        }
        return std::move(toc_);
    }

private:
    std::nullopt_t fail(std::string message) {
        if (diagnostic_) *diagnostic_ = std::move(message);
        return std::nullopt;
    }

    void collectLeaves(const xmlNode* node, const std::string& prefix, std::vector<Property>& out) {
        for (const xmlNode* c = node->children; c; c = c->next) {
            if (c->type != XML_ELEMENT_NODE || named(c, "file")) continue;
            std::string name = prefix + reinterpret_cast<const char*>(c->name);
            if (hasElementChildren(c)) {
                collectLeaves(c, name + "/", out);
                continue;
            }
            Property p{name, textOf(c), attributesOf(c)};
            if (p.value && attribute(p, "enctype") == "base64") {
                auto decoded = platform::base64::decode(*p.value);
                p.value = decoded ? std::optional<std::string>(std::string(decoded->begin(), decoded->end()))
                                  : std::nullopt;
            }
            out.push_back(std::move(p));
        }
    }

    bool number(const std::vector<Property>& props, std::string_view name, const std::string& where,
                std::optional<uint64_t>& out) {
        for (const auto& p : props) {
            if (p.name != name) continue;
            out = p.value ? parseU64(trimmed(*p.value)) : std::nullopt;
            if (!out) return (fail(fmt::format("{} of {} is not an unsigned 64-bit number", name, where)), false);
            return true;
        }
        return true;
    }

    bool parseArchiveElement(const xmlNode* node) {
        std::string name = reinterpret_cast<const char*>(node->name);
        if (!hasElementChildren(node)) {
            toc_.properties.push_back(Property{name, textOf(node), attributesOf(node)});
            return true;
        }
        std::vector<Property> leaves;
        collectLeaves(node, name + "/", leaves);
        if (name == "checksum") {
            for (const auto& [key, value] : attributesOf(node))
                if (key == "style") toc_.checksumStyle = value;
            if (!number(leaves, "checksum/offset", "the TOC checksum", toc_.checksumOffset) ||
                !number(leaves, "checksum/size", "the TOC checksum", toc_.checksumSize))
                return false;
        } else if (name == "signature" || name == "x-signature") {
            if (!parseSignature(node, leaves, name)) return false;
        }
        toc_.properties.insert(toc_.properties.end(), leaves.begin(), leaves.end());
        return true;
    }

    void collectCertificates(const xmlNode* node, std::vector<platform::Data>& out) {
        for (const xmlNode* c = node->children; c; c = c->next) {
            if (named(c, "X509Certificate")) {
                if (auto der = platform::base64::decode(textOf(c).value_or(""))) out.push_back(std::move(*der));
            } else if (c->type == XML_ELEMENT_NODE) {
                collectCertificates(c, out);
            }
        }
    }

    bool parseSignature(const xmlNode* node, const std::vector<Property>& leaves, const std::string& name) {
        Signature s;
        for (const auto& [key, value] : attributesOf(node))
            if (key == "style") s.type = value;
        std::optional<uint64_t> offset, size;
        if (!number(leaves, name + "/offset", "a signature", offset) ||
            !number(leaves, name + "/size", "a signature", size))
            return false;
        s.offset = offset.value_or(0);
        s.size = size.value_or(0);
        collectCertificates(node, s.certificates);
        toc_.signatures.push_back(std::move(s));
        return true;
    }

    bool parseData(Entry& entry) {
        DataInfo data;
        std::optional<uint64_t> offset, length, size;
        if (!number(entry.properties, "data/offset", entry.path, offset) ||
            !number(entry.properties, "data/length", entry.path, length) ||
            !number(entry.properties, "data/size", entry.path, size))
            return false;
        if (!offset || !length || !size) return (fail(fmt::format("the data of {} is incomplete", entry.path)), false);
        data.offset = *offset;
        data.length = *length;
        data.size = *size;
        for (const auto& p : entry.properties) {
            if (p.name == "data/encoding") {
                data.encoding = encodingForStyle(attribute(p, "style"));
            } else if (p.name == "data/archived-checksum") {
                data.archivedChecksumStyle = attribute(p, "style");
                data.archivedChecksum = lowerTrimmed(p.value.value_or(""));
            } else if (p.name == "data/extracted-checksum") {
                data.extractedChecksumStyle = attribute(p, "style");
                data.extractedChecksum = lowerTrimmed(p.value.value_or(""));
            }
        }
        entry.data = std::move(data);
        return true;
    }

    static std::string lowerTrimmed(std::string_view s) {
        std::string out = trimmed(s);
        std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
        return out;
    }

    bool parseFile(const xmlNode* node, Entry* parent, unsigned depth) {
        if (depth > kMaxDepth) return (fail(fmt::format("entries nest deeper than kMaxDepth ({})", kMaxDepth)), false);
        auto entry = std::make_unique<Entry>();
        collectLeaves(node, "", entry->properties);
        const Property* name = entry->find("name");
        if (!name || !name->value || !isSafeName(*name->value)) {
            // An unsafe name refuses the entry and everything below it.
            toc_.refusedEntries += countFileElements(node);
            return true;
        }
        if (++entryCount_ > kMaxEntryCount)
            return (fail(fmt::format("more entries than kMaxEntryCount ({})", kMaxEntryCount)), false);
        entry->name = *name->value;
        if (const Property* type = entry->find("type"); type && type->value) entry->type = trimmed(*type->value);
        for (const auto& [key, value] : attributesOf(node))
            if (key == "id") entry->id = parseU64(value).value_or(0);
        entry->parent = parent;
        entry->depth = depth;
        entry->path = parent ? parent->path + "/" + entry->name : entry->name;
        bool hasData = std::any_of(entry->properties.begin(), entry->properties.end(),
                                   [](const Property& p) { return platform::str::hasPrefix(p.name, "data/"); });
        if (hasData && !parseData(*entry)) return false;
        auto& siblings = parent ? parent->children : toc_.topLevel;
        entry->indexInParent = siblings.size();
        siblings.push_back(entry.get());
        Entry* self = entry.get();
        toc_.entries.push_back(std::move(entry));
        for (const xmlNode* c = node->children; c; c = c->next)
            if (named(c, "file") && !parseFile(c, self, depth + 1)) return false;
        return true;
    }

    std::string* diagnostic_;
    Toc toc_;
    uint64_t entryCount_ = 0;
};

// Names and link targets that are not valid UTF-8 or hold control characters are
// written as base64.
bool needsBase64(std::string_view text) {
    if (!platform::str::isValidUTF8({text.data(), text.size()})) return true;
    return std::any_of(text.begin(), text.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7f; });
}

void appendEscaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default:
            if ((unsigned char)c >= 0x20 || c == '\t' || c == '\n') out += c;
        }
    }
}

void appendLeaf(std::string& out, std::string_view element, const Property& p, int indent) {
    out.append(indent, ' ');
    out += '<';
    out += element;
    bool base64 = p.value && (p.name == "name" || p.name == "link") && needsBase64(*p.value);
    for (const auto& [key, value] : p.attributes) {
        if (key == "enctype") continue;
        fmt::format_to(std::back_inserter(out), " {}=\"", key);
        appendEscaped(out, value);
        out += '"';
    }
    if (base64) out += " enctype=\"base64\"";
    if (!p.value) {
        out += "/>\n";
        return;
    }
    out += '>';
    if (base64) out += platform::base64::encode({reinterpret_cast<const uint8_t*>(p.value->data()), p.value->size()});
    else appendEscaped(out, *p.value);
    fmt::format_to(std::back_inserter(out), "</{}>\n", element);
}

// Writes properties whose names share their first `level` components, nesting the
// elements that consecutive properties have in common.
void appendProperties(std::string& out, const std::vector<const Property*>& props, size_t begin, size_t end,
                      size_t level, int indent) {
    auto component = [&](const Property* p) -> std::string_view {
        std::string_view name = p->name;
        for (size_t i = 0; i < level; ++i) name = name.substr(name.find('/') + 1);
        return name.substr(0, name.find('/'));
    };
    auto isLeaf = [&](const Property* p) { return size_t(std::count(p->name.begin(), p->name.end(), '/')) == level; };
    for (size_t i = begin; i < end;) {
        std::string_view head = component(props[i]);
        if (isLeaf(props[i])) {
            appendLeaf(out, head, *props[i], indent);
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < end && !isLeaf(props[j]) && component(props[j]) == head) ++j;
        fmt::format_to(std::back_inserter(out), "{:{}}<{}>\n", "", indent, head);
        appendProperties(out, props, i, j, level + 1, indent + 1);
        fmt::format_to(std::back_inserter(out), "{:{}}</{}>\n", "", indent, head);
        i = j;
    }
}

void appendData(std::string& out, const DataInfo& d, int indent) {
    std::string pad(indent, ' ');
    fmt::format_to(std::back_inserter(out),
                   "{0}<data>\n{0} <length>{1}</length>\n{0} <offset>{2}</offset>\n{0} <size>{3}</size>\n"
                   "{0} <encoding style=\"{4}\"/>\n",
                   pad, d.length, d.offset, d.size, styleForEncoding(d.encoding));
    if (!d.archivedChecksum.empty())
        fmt::format_to(std::back_inserter(out), "{} <archived-checksum style=\"{}\">{}</archived-checksum>\n", pad,
                       d.archivedChecksumStyle, d.archivedChecksum);
    if (!d.extractedChecksum.empty())
        fmt::format_to(std::back_inserter(out), "{} <extracted-checksum style=\"{}\">{}</extracted-checksum>\n", pad,
                       d.extractedChecksumStyle, d.extractedChecksum);
    out += pad + "</data>\n";
}

void appendEntry(std::string& out, const Entry& entry, int indent) {
    fmt::format_to(std::back_inserter(out), "{:{}}<file id=\"{}\">\n", "", indent, entry.id);
    Property name{"name", entry.name, {}};
    std::vector<const Property*> props{&name};
    for (const auto& p : entry.properties)
        if (p.name != "name" && !platform::str::hasPrefix(p.name, "data/")) props.push_back(&p);
    appendProperties(out, props, 0, props.size(), 0, indent + 1);
    if (entry.data) appendData(out, *entry.data, indent + 1);
    for (const Entry* child : entry.children) appendEntry(out, *child, indent + 1);
    fmt::format_to(std::back_inserter(out), "{:{}}</file>\n", "", indent);
}

}  // namespace

std::optional<Toc> parseToc(std::string_view xml, std::string* diagnostic) {
    if (xml.size() > kMaxUncompressedTOCSize || xml.size() > size_t(INT32_MAX)) {
        if (diagnostic) *diagnostic = "the TOC is larger than kMaxUncompressedTOCSize";
        return std::nullopt;
    }
    // HUGE lifts the parser's own nesting cap so that kMaxDepth is the one that holds;
    // no DTD is loaded and no entity is substituted.
    int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE;
    xmlDoc* doc = xmlReadMemory(xml.data(), int(xml.size()), nullptr, nullptr, options);
    if (!doc) {
        if (diagnostic) *diagnostic = "the TOC is not well-formed XML";
        return std::nullopt;
    }
    auto toc = Parser(diagnostic).run(doc);
    xmlFreeDoc(doc);
    return toc;
}

std::string serializeToc(const Toc& toc, const std::string& creationTime) {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xar>\n <toc>\n";
    fmt::format_to(std::back_inserter(out), "  <creation-time>{}</creation-time>\n", creationTime);
    fmt::format_to(std::back_inserter(out),
                   "  <checksum style=\"{}\">\n   <offset>{}</offset>\n   <size>{}</size>\n  </checksum>\n",
                   toc.checksumStyle, toc.checksumOffset.value_or(0), toc.checksumSize.value_or(0));
    for (const auto& s : toc.signatures) {
        fmt::format_to(std::back_inserter(out), "  <signature style=\"{}\">\n   <offset>{}</offset>\n   <size>{}</size>\n",
                       s.type, s.offset, s.size);
        out += "   <KeyInfo xmlns=\"http://www.w3.org/2000/09/xmldsig#\">\n    <X509Data>\n";
        for (const auto& der : s.certificates)
            out += "     <X509Certificate>" + platform::base64::encode(der) + "</X509Certificate>\n";
        out += "    </X509Data>\n   </KeyInfo>\n  </signature>\n";
    }
    for (const Entry* entry : toc.topLevel) appendEntry(out, *entry, 2);
    out += " </toc>\n</xar>\n";
    return out;
}

}  // namespace crateworks::xar
