#include "platform/Exception.h"

#include <string>

#include "platform/ErrorCode.h"

namespace Osb {

const std::u16string& Exception::what() const {
    static const std::u16string kNone;
    return reasons_.empty() ? kNone : reasons_.front().what();
}

ExSystem::ExSystem(uint32_t status, ExWhere where)
    : Exception(ExReason(ErrorText(status), where)), status_(status) {}

namespace {
std::u16string Widen(const std::string& text) { return std::u16string(text.begin(), text.end()); }
}  // namespace

ExLookupId::ExLookupId(uint32_t id, ExWhere where)
    : Exception(ExReason(
          u"No entry of the lookup table has the id " + Widen(std::to_string(id)) + u".", where)),
      id_(id) {}

ExLookupTableFull::ExLookupTableFull(ExWhere where)
    : Exception(ExReason(u"The lookup table has no free slot.", where)) {}

}  // namespace Osb
