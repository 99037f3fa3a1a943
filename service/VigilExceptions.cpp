#include "service/VigilExceptions.h"

#include "platform/SysLog.h"

namespace Vigil {

namespace {

std::u16string MessageTextOf(uint32_t messageId) {
    // The text is fetched into a buffer of the event log's size and copied out; the exception
    // keeps only its own copy.
    char16_t buffer[4096 / sizeof(char16_t)];
    uint32_t units = Osb::SysLogGetMessage(sizeof(buffer), buffer, messageId);
    return std::u16string(buffer, units);
}

}  // namespace

template <uint32_t kMessageId>
ExMessage<kMessageId>::ExMessage(Osb::ExWhere where)
    : Osb::Exception(Osb::ExReason(MessageTextOf(kMessageId), where, 1)) {}

template class ExMessage<MessageId::kInvalidHeader>;
template class ExMessage<MessageId::kInvalidLength>;
template class ExMessage<MessageId::kInvalidDataValues>;
template class ExMessage<MessageId::kUnsupported>;
template class ExMessage<MessageId::kInvalidVersion>;

}  // namespace Vigil
