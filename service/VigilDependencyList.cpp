#include "service/VigilDependencyList.h"

namespace Vigil {

namespace {

bool IsBlank(char16_t c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

}  // namespace

std::u16string DependencyList(const std::u16string& value) {
    std::u16string list;
    size_t at = 0;
    while (at < value.size()) {
        while (at < value.size() && IsBlank(value[at])) ++at;
        const size_t start = at;
        while (at < value.size() && !IsBlank(value[at])) ++at;
        if (at > start) {
            list.append(value, start, at - start);
            list.push_back(u'\0');
        }
    }
    if (!list.empty()) list.push_back(u'\0');
    return list;
}

}  // namespace Vigil
