#include "Platform/PropertyListFailure.h"

#include <array>
#include <cstring>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <memory>
#include <mutex>
#include <optional>
#include <plist/plist.h>
#include <string_view>

#include "Platform/LazyLibrary.h"

namespace platform::plist::detail {

namespace {

constexpr size_t kBinaryHeaderSize = 8;  // "bplist00"
constexpr size_t kBinaryTrailerSize = 32;

uint64_t bigEndian(std::span<const uint8_t> bytes) {
    uint64_t value = 0;
    for (uint8_t b : bytes) value = (value << 8) | b;
    return value;
}

std::string binaryFailure(std::span<const uint8_t> bytes) {
    const std::string_view prefix = "The binary property list ";
    if (bytes.size() < kBinaryHeaderSize + kBinaryTrailerSize)
        return fmt::format("{}is {} bytes long, too short for its header and {}-byte trailer.", prefix, bytes.size(),
                           kBinaryTrailerSize);
    auto trailer = bytes.subspan(bytes.size() - kBinaryTrailerSize);
    const unsigned offsetSize = trailer[6];
    const unsigned referenceSize = trailer[7];
    const uint64_t objectCount = bigEndian(trailer.subspan(8, 8));
    const uint64_t topObject = bigEndian(trailer.subspan(16, 8));
    const uint64_t offsetTable = bigEndian(trailer.subspan(24, 8));
    const uint64_t trailerStart = bytes.size() - kBinaryTrailerSize;
    if (offsetSize == 0 || offsetSize > 8 || referenceSize == 0 || referenceSize > 8)
        return fmt::format("{}has a damaged trailer at byte {}: offsets of {} bytes, references of {} bytes.", prefix,
                           trailerStart, offsetSize, referenceSize);
    if (objectCount == 0 || topObject >= objectCount)
        return fmt::format("{}names object {} as its top object but holds {} objects.", prefix, topObject, objectCount);
    if (offsetTable < kBinaryHeaderSize || offsetTable >= trailerStart ||
        objectCount > (trailerStart - offsetTable) / offsetSize)
        return fmt::format("{}has an offset table at byte {} that does not fit before its trailer at byte {}.", prefix,
                           offsetTable, trailerStart);
    for (uint64_t i = 0; i < objectCount; ++i) {
        uint64_t at = bigEndian(bytes.subspan(offsetTable + i * offsetSize, offsetSize));
        if (at < kBinaryHeaderSize || at >= offsetTable)
            return fmt::format("{}places object {} at byte {}, outside its objects (bytes {} to {}).", prefix, i, at,
                               kBinaryHeaderSize, offsetTable);
    }
    return std::string(prefix) + "holds an object that cannot be read.";
}

// The byte offset of a 1-based line and character column.
size_t byteOffset(std::string_view text, int line, int column) {
    size_t at = 0;
    for (int l = 1; l < line && at < text.size(); ++l) {
        size_t feed = text.find('\n', at);
        if (feed == std::string_view::npos) return text.size();
        at = feed + 1;
    }
    for (int c = 1; c < column && at < text.size(); ++c) {
        ++at;
        while (at < text.size() && (uint8_t(text[at]) & 0xC0) == 0x80) ++at;  // continuation bytes
    }
    return at;
}

struct FirstError {
    bool seen = false;
    int line = 0;
    int column = 0;
    std::string message;
};

// libxml2, loaded only when a broken XML property list has to be described
// (Platform/LazyLibrary): with ICU behind it, linking it would cost every process.
#define FERRYHOLD_XML_FUNCTIONS(X, ...)                                                               \
    X(__VA_ARGS__, InitParser) X(__VA_ARGS__, NewParserCtxt) X(__VA_ARGS__, FreeParserCtxt)            \
    X(__VA_ARGS__, FreeDoc) X(__VA_ARGS__, GetLineNo) X(__VA_ARGS__, SetGenericErrorFunc)              \
    X(__VA_ARGS__, CtxtReadMemory) X(__VA_ARGS__, DocGetRootElement)
// The accessors behind the xmlGenericError and xmlGenericErrorContext macros.
#define FERRYHOLD_XML_GLOBALS(X, ...) X(__VA_ARGS__, GenericError) X(__VA_ARGS__, GenericErrorContext)

struct XmlLibrary {
    static constexpr const char* kFileName = "libxml2.so.2";
    FERRYHOLD_XML_FUNCTIONS(FERRYHOLD_LAZY_POINTER, xml)
    FERRYHOLD_XML_GLOBALS(FERRYHOLD_LAZY_POINTER, __xml)
    static std::vector<platform::detail::LazySymbol> symbols(XmlLibrary& table) {
        return {FERRYHOLD_XML_FUNCTIONS(FERRYHOLD_LAZY_SYMBOL, table, xml)
                    FERRYHOLD_XML_GLOBALS(FERRYHOLD_LAZY_SYMBOL, table, __xml)};
    }
};

// Later errors mostly follow from the first, so only that one is kept.
void keepFirstError(void* context, xmlErrorPtr error) {
    auto* parser = static_cast<xmlParserCtxtPtr>(context);
    auto* first = static_cast<FirstError*>(parser->_private);
    if (first->seen || !error || error->level < XML_ERR_ERROR) return;
    first->seen = true;
    first->line = error->line;
    first->column = error->int2;
    first->message = error->message ? error->message : "";
    while (!first->message.empty() && (first->message.back() == '\n' || first->message.back() == ' '))
        first->message.pop_back();
}

struct ParserDeleter {
    const XmlLibrary* xml;
    void operator()(xmlParserCtxt* parser) const { xml->FreeParserCtxt(parser); }
};
struct DocumentDeleter {
    const XmlLibrary* xml;
    void operator()(xmlDoc* document) const { xml->FreeDoc(document); }
};

std::string_view nameOf(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

bool isElement(const xmlNode* node) { return node->type == XML_ELEMENT_NODE; }

const xmlNode* firstElement(const xmlNode* node) {
    for (; node; node = node->next)
        if (isElement(node)) return node;
    return nullptr;
}

bool isValueElement(std::string_view name) {
    static constexpr std::array<std::string_view, 10> kValues{"dict", "array", "string", "integer", "real",
                                                              "date", "data",  "true",   "false",   "key"};
    for (auto known : kValues)
        if (name == known) return true;
    return false;
}

// The first element of a well-formed document that no property list holds there.
std::optional<std::string> structuralFailure(const XmlLibrary& xml, const xmlNode* node) {
    if (!isValueElement(nameOf(node)) || nameOf(node) == "key")
        return fmt::format("Line {}: <{}> is not a property-list value.", xml.GetLineNo(node), nameOf(node));
    bool inDictionary = nameOf(node) == "dict";
    bool wantKey = true;
    for (const xmlNode* child = firstElement(node->children); child; child = firstElement(child->next)) {
        if (inDictionary) {
            bool isKey = nameOf(child) == "key";
            if (isKey != wantKey)
                return fmt::format("Line {}: <dict> holds <{}> where a {} belongs.", xml.GetLineNo(child),
                                   nameOf(child), wantKey ? "<key>" : "value");
            wantKey = !wantKey;
            if (isKey) continue;
        }
        if (nameOf(node) != "dict" && nameOf(node) != "array")
            return fmt::format("Line {}: <{}> holds the element <{}>.", xml.GetLineNo(child), nameOf(node),
                               nameOf(child));
        if (auto failure = structuralFailure(xml, child)) return failure;
    }
    return std::nullopt;
}

// The library reports encoding errors through its generic handler (standard error),
// whatever the parser's options say; while a document is examined they are dropped, as
// the first error is what the failure reason gives.
void dropGenericError(void*, const char*, ...) {}

std::string xmlFailure(std::span<const uint8_t> bytes) {
    std::string why;
    const XmlLibrary* xml = platform::detail::lazyTable<XmlLibrary>(&why);
    if (!xml)
        return fmt::format("The XML document cannot be examined: {} cannot be loaded: {}", XmlLibrary::kFileName, why);
    static std::once_flag initialised;
    std::call_once(initialised, [xml] { xml->InitParser(); });
    std::unique_ptr<xmlParserCtxt, ParserDeleter> parser(xml->NewParserCtxt(), ParserDeleter{xml});
    if (!parser) return "The XML document cannot be examined: out of memory.";
    FirstError first;
    parser->_private = &first;
    parser->sax->serror = keepFirstError;
    xmlGenericErrorFunc previousHandler = *xml->GenericError();
    void* previousContext = *xml->GenericErrorContext();
    xml->SetGenericErrorFunc(nullptr, dropGenericError);
    std::unique_ptr<xmlDoc, DocumentDeleter> document(
        xml->CtxtReadMemory(parser.get(), reinterpret_cast<const char*>(bytes.data()), int(bytes.size()), nullptr,
                            nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES),
        DocumentDeleter{xml});
    xml->SetGenericErrorFunc(previousContext, previousHandler);
    if (first.seen && (!document || !parser->wellFormed)) {
        std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return fmt::format("XML error at line {}, column {} (byte {}): {}", first.line, first.column,
                           byteOffset(text, first.line, first.column), first.message);
    }
    const xmlNode* root = document ? xml->DocGetRootElement(document.get()) : nullptr;
    if (!root) return "The XML document has no root element.";
    if (nameOf(root) != "plist")
        return fmt::format("The XML document's root element is <{}>, not <plist>.", nameOf(root));
    const xmlNode* top = firstElement(root->children);
    if (!top) return fmt::format("Line {}: <plist> holds no value.", xml->GetLineNo(root));
    if (auto failure = structuralFailure(*xml, top)) return *failure;
    return "The XML document is well formed but not a property list.";
}

}  // namespace

std::string failureReason(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return "The data is empty.";
    if (bytes.size() > UINT32_MAX) return "The data is larger than 4 GiB.";
    if (plist_is_binary(reinterpret_cast<const char*>(bytes.data()), uint32_t(bytes.size()))) return binaryFailure(bytes);
    if (bytes.size() > size_t(INT32_MAX)) return "The XML document is larger than 2 GiB.";
    return xmlFailure(bytes);
}

}  // namespace platform::plist::detail
