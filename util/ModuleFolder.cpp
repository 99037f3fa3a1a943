#include "util/ModuleFolder.h"

#include <array>
#include <boost/algorithm/string/replace.hpp>

#include "platform/ModulePath.h"
#include "util/UtfConvert.h"

namespace mst_util {

namespace {

constexpr uint32_t kPathBufferUnits = 260;

}  // namespace

std::string folder_of(const std::u16string& modulePath) {
    std::string text = to_utf8(modulePath);
    // A backslash on a POSIX system is a character of a name, not a separator; it is turned into a
    // slash all the same, so that a path handed over in Windows form still yields its folder.
    boost::algorithm::replace_all(text, "\\", "/");
    const size_t slash = text.rfind('/');
    text.resize(slash == std::string::npos ? 0 : slash);
    return text;
}

std::string module_folder() {
    std::array<char16_t, kPathBufferUnits> buffer{};
    // A cut path comes back terminated inside the buffer, and a failure leaves it empty, so the
    // text is taken up to its NUL in every case.
    Osb::GetModuleFileNameW(buffer.data(), kPathBufferUnits);
    return folder_of(std::u16string(buffer.data()));
}

}  // namespace mst_util
