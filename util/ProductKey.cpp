#include "util/ProductKey.h"

#include "platform/Utf.h"

namespace mst_util {

namespace {

std::u16string Widen(const std::string& text) {
    std::u16string wide;
    Osb::UTF8ToUTF16HostEndian(text.data(), static_cast<std::ptrdiff_t>(text.size()), wide);
    return wide;
}

}  // namespace

std::u16string product_key(const std::string& product, const std::string& version) {
    std::u16string path = Widen("Software\\Orvanta\\");
    path += Widen(product);
    path += Widen("\\");
    if (!version.empty()) {
        path += Widen(version);
        path += Widen("\\");
    }
    return path;
}

}  // namespace mst_util
