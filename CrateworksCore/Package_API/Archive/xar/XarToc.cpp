#include "CrateworksCore/Package_API/Archive/xar/XarToc.h"

#include <algorithm>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/xmlreader.h>

#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"
#include "Platform/Base64.h"
#include "Platform/LazyLibrary.h"
#include "Platform/Strings.h"

namespace crateworks::xar {

File Toc::first() const { return topLevel.empty() ? nullptr : topLevel.front(); }

File Toc::next(File file) const {
    if (!file) return nullptr;
    if (!file->children.empty()) return file->children.front();
    for (File f = file; f; f = f->parent) {
        const auto& siblings = f->parent ? f->parent->children : topLevel;
        if (f->indexInParent + 1 < siblings.size()) return siblings[f->indexInParent + 1];
    }
    return nullptr;
}

File Toc::find(const std::string& path) const {
    if (!indexed_) {
        for (File f = first(); f; f = next(f)) index_.emplace(f->path, f);
        indexed_ = true;
    }
    auto it = index_.find(path);
    return it == index_.end() ? nullptr : it->second;
}

File Toc::add(File parent, std::string_view name, std::string type, uint64_t id) {
    auto entry = std::make_unique<Entry>();
    entry->id = id;
    entry->name = name;
    entry->type = type;
    entry->parent = parent;
    entry->depth = parent ? parent->depth + 1 : 1;
    entry->path = parent ? parent->path + "/" + entry->name : entry->name;
    auto& siblings = parent ? parent->children : topLevel;
    entry->indexInParent = siblings.size();
    siblings.push_back(entry.get());
    entry->properties.push_back(Property{"name", entry->name, {}});
    entry->properties.push_back(Property{"type", std::move(type), {}});
    if (indexed_) index_.emplace(entry->path, entry.get());
    entries.push_back(std::move(entry));
    return entries.back().get();
}

std::optional<std::string> Toc::archiveProperty(std::string_view name) const {
    for (const auto& p : properties)
        if (p.name == name) return p.value;
    return std::nullopt;
}

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

std::string trimmed(std::string_view s) {
    auto isSpace = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return std::string(s);
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

std::string lowerTrimmed(std::string_view s) {
    std::string out = trimmed(s);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

// libxml2's reader, loaded when a TOC is first read (Platform/LazyLibrary): with ICU
// behind it, linking it would cost every program of the system at start-up.
#define FERRYHOLD_XML_READER_FUNCTIONS(X, ...)                                                       \
    X(__VA_ARGS__, ReaderForMemory) X(__VA_ARGS__, FreeTextReader) X(__VA_ARGS__, TextReaderRead)      \
    X(__VA_ARGS__, TextReaderNodeType) X(__VA_ARGS__, TextReaderConstValue)                            \
    X(__VA_ARGS__, TextReaderConstName) X(__VA_ARGS__, TextReaderMoveToNextAttribute)                  \
    X(__VA_ARGS__, TextReaderMoveToElement) X(__VA_ARGS__, TextReaderIsEmptyElement)
FERRYHOLD_LAZY_TABLE(XmlReaderLibrary, "libxml2.so.2", FERRYHOLD_XML_READER_FUNCTIONS, xml);

// Reads the TOC as a stream of elements (no document tree is built): every leaf
// element below a <file> becomes a property named by its element path, <file>
// elements become entries, and the archive-level elements are read for the checksum
// and the signatures.
class Parser {
public:
    Parser(const XmlReaderLibrary& xml, xmlTextReaderPtr reader, std::string* diagnostic)
        : xml_(xml), reader_(reader), diagnostic_(diagnostic) {}

    std::optional<Toc> run() {
        int rc;
        while ((rc = xml_.TextReaderRead(reader_)) == 1) {
            bool ok = true;
            switch (xml_.TextReaderNodeType(reader_)) {
            case XML_READER_TYPE_DOCUMENT_TYPE: return fail("the TOC carries a DOCTYPE");
            case XML_READER_TYPE_ELEMENT: ok = startElement(); break;
            case XML_READER_TYPE_END_ELEMENT: ok = endElement(); break;
            case XML_READER_TYPE_TEXT:
            case XML_READER_TYPE_CDATA:
                if (!frames_.empty()) {
                    Frame& top = frames_.back();
                    if (!top.text) top.text.emplace();
                    top.text->append(reinterpret_cast<const char*>(xml_.TextReaderConstValue(reader_)));
                }
                break;
            default: break;
            }
            if (!ok) return std::nullopt;
        }
        if (rc != 0) return fail("the TOC is not well-formed XML");
        if (!sawToc_) return fail("the TOC has no <xar><toc> elements");
        return std::move(toc_);
    }

private:
    enum class Kind { Outside, Toc, File, Inner };
    struct Frame {
        Kind kind;
        std::string name;
        std::string propertyPath;  // element path below the enclosing <file> or <toc>
        std::vector<std::pair<std::string, std::string>> attributes;
        std::optional<std::string> text;
        bool hasElementChild = false;
        size_t entryIndex = 0;  // for File frames: index into pending_
    };
    struct Pending {
        std::unique_ptr<Entry> owned;  // until the entry is registered in the TOC
        Entry* entry = nullptr;
        bool decided = false;  // registered, or refused
        bool refused = false;
    };

    std::nullopt_t fail(std::string message) {
        if (diagnostic_ && diagnostic_->empty()) *diagnostic_ = std::move(message);
        return std::nullopt;
    }
    bool failed(std::string message) {
        fail(std::move(message));
        return false;
    }

    std::vector<std::pair<std::string, std::string>> readAttributes() {
        std::vector<std::pair<std::string, std::string>> out;
        while (xml_.TextReaderMoveToNextAttribute(reader_) == 1)
            out.emplace_back(reinterpret_cast<const char*>(xml_.TextReaderConstName(reader_)),
                             reinterpret_cast<const char*>(xml_.TextReaderConstValue(reader_)));
        xml_.TextReaderMoveToElement(reader_);
        return out;
    }

    // The innermost <file> being read, or null at the archive level.
    Pending* currentFile() {
        for (auto it = frames_.rbegin(); it != frames_.rend(); ++it)
            if (it->kind == Kind::File) return &pending_[it->entryIndex];
        return nullptr;
    }

    bool startElement() {
        std::string name = reinterpret_cast<const char*>(xml_.TextReaderConstName(reader_));
        bool empty = xml_.TextReaderIsEmptyElement(reader_);
        Frame frame{Kind::Inner, name, name, readAttributes(), std::nullopt, false, 0};
        if (frames_.empty()) {
            frame.kind = Kind::Outside;
            if (name != "xar") return failed("the TOC has no <xar> root");
        } else {
            Frame& parent = frames_.back();
            parent.hasElementChild = true;
            if (parent.kind == Kind::Outside) {
                frame.kind = name == "toc" ? Kind::Toc : Kind::Outside;
                sawToc_ = sawToc_ || name == "toc";
            } else if (name == "file" && (parent.kind == Kind::Toc || parent.kind == Kind::File)) {
                if (!startFile(frame)) return false;
            } else if (parent.kind == Kind::Inner) {
                frame.propertyPath = parent.propertyPath + "/" + name;
            }
        }
        frames_.push_back(std::move(frame));
        return empty ? endElement() : true;
    }

    bool startFile(Frame& frame) {
        unsigned depth = unsigned(pending_.size()) + 1;
        if (depth > kMaxDepth) return failed(fmt::format("entries nest deeper than kMaxDepth ({})", kMaxDepth));
        if (!pending_.empty() && !decide(pending_.back())) return false;
        frame.kind = Kind::File;
        frame.propertyPath.clear();
        frame.entryIndex = pending_.size();
        Pending p;
        p.owned = std::make_unique<Entry>();
        p.entry = p.owned.get();
        p.entry->depth = depth;
        for (const auto& [key, value] : frame.attributes)
            if (key == "id") p.entry->id = parseU64(value).value_or(0);
        pending_.push_back(std::move(p));
        return true;
    }

    // Registers the entry (its name is known by now) or refuses it with its subtree.
    bool decide(Pending& p) {
        if (p.decided) return true;
        p.decided = true;
        Pending* parent = pending_.size() > 1 && &p == &pending_.back() ? &pending_[pending_.size() - 2] : nullptr;
        const Property* name = p.entry->find("name");
        if ((parent && parent->refused) || !name || !name->value || !isSafeName(*name->value)) {
            p.refused = true;
            return true;
        }
        if (++entryCount_ > kMaxEntryCount)
            return failed(fmt::format("more entries than kMaxEntryCount ({})", kMaxEntryCount));
        Entry* e = p.entry;
        Entry* parentEntry = parent ? parent->entry : nullptr;
        e->name = *name->value;
        e->parent = parentEntry;
        e->path = parentEntry ? parentEntry->path + "/" + e->name : e->name;
        auto& siblings = parentEntry ? parentEntry->children : toc_.topLevel;
        e->indexInParent = siblings.size();
        siblings.push_back(e);
        toc_.entries.push_back(std::move(p.owned));
        return true;
    }

    bool endElement() {
        Frame frame = std::move(frames_.back());
        frames_.pop_back();
        if (frame.kind == Kind::File) return endFile();
        if (frame.kind != Kind::Inner) return true;
        Pending* file = currentFile();
        if (file && file->refused) return true;
        if (!frame.hasElementChild) return addLeaf(frame, file ? file->entry : nullptr);
        if (!file) return endArchiveElement(frame);
        return true;
    }

    bool addLeaf(Frame& frame, Entry* entry) {
        Property p{frame.propertyPath, std::move(frame.text), std::move(frame.attributes)};
        if (p.value && attribute(p, "enctype") == "base64") {
            auto decoded = platform::base64::decode(*p.value);
            p.value = decoded ? std::optional<std::string>(std::string(decoded->begin(), decoded->end())) : std::nullopt;
        }
        if (!entry) {
            archiveLeaves_.push_back(p);
            toc_.properties.push_back(std::move(p));
            return true;
        }
        entry->properties.push_back(std::move(p));
        return true;
    }

    bool endArchiveElement(const Frame& frame) {
        // An archive-level element with children is complete: its leaves are gathered.
        std::vector<Property> leaves;
        leaves.swap(archiveLeaves_);
        if (frame.propertyPath.find('/') != std::string::npos) {
            // Nested deeper (KeyInfo inside a signature): keep gathering for the parent.
            archiveLeaves_ = std::move(leaves);
            return true;
        }
        if (frame.name == "checksum") {
            for (const auto& [key, value] : frame.attributes)
                if (key == "style") toc_.checksumStyle = value;
            return number(leaves, "checksum/offset", "the TOC checksum", toc_.checksumOffset) &&
                   number(leaves, "checksum/size", "the TOC checksum", toc_.checksumSize);
        }
        if (frame.name == "signature" || frame.name == "x-signature") {
            Signature s;
            for (const auto& [key, value] : frame.attributes)
                if (key == "style") s.type = value;
            std::optional<uint64_t> offset, size;
            if (!number(leaves, frame.name + "/offset", "a signature", offset) ||
                !number(leaves, frame.name + "/size", "a signature", size))
                return false;
            s.offset = offset.value_or(0);
            s.size = size.value_or(0);
            for (const auto& leaf : leaves) {
                if (!platform::str::hasSuffix(leaf.name, "/X509Certificate") || !leaf.value) continue;
                if (auto der = platform::base64::decode(*leaf.value)) s.certificates.push_back(std::move(*der));
            }
            toc_.signatures.push_back(std::move(s));
        }
        return true;
    }

    bool number(const std::vector<Property>& props, std::string_view name, const std::string& where,
                std::optional<uint64_t>& out) {
        for (const auto& p : props) {
            if (p.name != name) continue;
            out = p.value ? parseU64(trimmed(*p.value)) : std::nullopt;
            if (!out) return failed(fmt::format("{} of {} is not an unsigned 64-bit number", name, where));
            return true;
        }
        return true;
    }

    bool endFile() {
        Pending& p = pending_.back();
        if (!decide(p)) return false;
        bool ok = true;
        if (p.refused) {
            toc_.refusedEntries += 1;
        } else {
            Entry& entry = *p.entry;
            if (const Property* type = entry.find("type"); type && type->value) entry.type = trimmed(*type->value);
            bool hasData = std::any_of(entry.properties.begin(), entry.properties.end(),
                                       [](const Property& q) { return platform::str::hasPrefix(q.name, "data/"); });
            ok = !hasData || parseData(entry);
        }
        pending_.pop_back();
        return ok;
    }

    bool parseData(Entry& entry) {
        DataInfo data;
        std::optional<uint64_t> offset, length, size;
        if (!number(entry.properties, "data/offset", entry.path, offset) ||
            !number(entry.properties, "data/length", entry.path, length) ||
            !number(entry.properties, "data/size", entry.path, size))
            return false;
        if (!offset || !length || !size) return failed(fmt::format("the data of {} is incomplete", entry.path));
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

    const XmlReaderLibrary& xml_;
    xmlTextReaderPtr reader_;
    std::string* diagnostic_;
    Toc toc_;
    std::vector<Frame> frames_;
    std::vector<Pending> pending_;       // the <file> elements open now, outermost first
    std::vector<Property> archiveLeaves_;
    uint64_t entryCount_ = 0;
    bool sawToc_ = false;
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
    int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE | XML_PARSE_NOBLANKS;
    std::string why;
    const XmlReaderLibrary* library = platform::detail::lazyTable<XmlReaderLibrary>(&why);
    if (!library) {
        if (diagnostic) *diagnostic = fmt::format("the TOC cannot be read: {} cannot be loaded: {}",
                                                  XmlReaderLibrary::kFileName, why);
        return std::nullopt;
    }
    xmlTextReaderPtr reader = library->ReaderForMemory(xml.data(), int(xml.size()), nullptr, nullptr, options);
    if (!reader) {
        if (diagnostic) *diagnostic = "the TOC is not well-formed XML";
        return std::nullopt;
    }
    if (diagnostic) diagnostic->clear();
    auto toc = Parser(*library, reader, diagnostic).run();
    library->FreeTextReader(reader);
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
