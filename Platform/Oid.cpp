#include "Platform/Oid.h"

#include "Platform/OpenSSLHandles.h"

namespace platform::security {

namespace {
// The DER of the whole OID (tag, length, content), as d2i_ASN1_OBJECT wants it.
Data wholeEncoding(const Data& content) {
    Data der{0x06};
    size_t n = content.size();
    if (n < 0x80) {
        der.push_back(uint8_t(n));
    } else {
        Data length;
        for (; n > 0; n >>= 8) length.insert(length.begin(), uint8_t(n & 0xff));
        der.push_back(uint8_t(0x80 | length.size()));
        der.insert(der.end(), length.begin(), length.end());
    }
    der.insert(der.end(), content.begin(), content.end());
    return der;
}
}  // namespace

std::optional<Oid> Oid::fromDotted(std::string_view dotted) {
    if (dotted.empty() || dotted.find_first_not_of("0123456789.") != std::string_view::npos ||
        dotted.find("..") != std::string_view::npos || dotted.front() == '.' || dotted.back() == '.' ||
        dotted.find('.') == std::string_view::npos)
        return std::nullopt;
    const CryptoLibrary* crypto = CryptoLibrary::get();
    if (!crypto) return std::nullopt;
    detail::ObjectPtr object(crypto->OBJ_txt2obj(std::string(dotted).c_str(), 1));
    if (!object || crypto->OBJ_length(object.get()) == 0) return std::nullopt;
    const unsigned char* data = crypto->OBJ_get0_data(object.get());
    return Oid(Data(data, data + crypto->OBJ_length(object.get())));
}

std::string Oid::dotted() const {
    const CryptoLibrary* crypto = CryptoLibrary::get();
    if (bytes_.empty() || !crypto) return {};
    Data der = wholeEncoding(bytes_);
    const unsigned char* p = der.data();
    detail::ObjectPtr object(crypto->d2i_ASN1_OBJECT(nullptr, &p, long(der.size())));
    if (!object) return {};
    int needed = crypto->OBJ_obj2txt(nullptr, 0, object.get(), 1);
    if (needed <= 0) return {};
    std::string text(size_t(needed) + 1, '\0');
    crypto->OBJ_obj2txt(text.data(), needed + 1, object.get(), 1);
    text.resize(size_t(needed));
    return text;
}

}  // namespace platform::security
