// The five exceptions that say what was wrong with a client's message. Each carries one reason:
// its message-table text in the language the platform selects, with the raising source position.
// Constructing one writes nothing to the event log.
#pragma once

#include <cstdint>

#include "platform/Exception.h"

namespace Vigil {

namespace MessageId {
constexpr uint32_t kStarted = 0x20000A0A;
constexpr uint32_t kPaused = 0x20000A0B;
constexpr uint32_t kResumed = 0x20000A0C;
constexpr uint32_t kStopped = 0x20000A0D;
constexpr uint32_t kDescription = 0x22020A02;
constexpr uint32_t kSystemError = 0xE0000A0E;
constexpr uint32_t kUnexpectedException = 0xE0000A0F;
constexpr uint32_t kInvalidHeader = 0xE0000A10;
constexpr uint32_t kInvalidLength = 0xE0000A11;
constexpr uint32_t kInvalidDataValues = 0xE0000A12;
constexpr uint32_t kUnsupported = 0xE0000A13;
constexpr uint32_t kInvalidVersion = 0xE0000A14;
}  // namespace MessageId

// The shape the five share: the base's reason, built from the text of `messageId`.
template <uint32_t kMessageId>
class ExMessage : public Osb::Exception {
  public:
    explicit ExMessage(Osb::ExWhere where);
    Osb::Exception* clone() const override { return new ExMessage(*this); }
};

using ExInvalidHeader = ExMessage<MessageId::kInvalidHeader>;
using ExInvalidLength = ExMessage<MessageId::kInvalidLength>;
using ExInvalidDataValues = ExMessage<MessageId::kInvalidDataValues>;
using ExUnsupported = ExMessage<MessageId::kUnsupported>;
using ExInvalidVersion = ExMessage<MessageId::kInvalidVersion>;

extern template class ExMessage<MessageId::kInvalidHeader>;
extern template class ExMessage<MessageId::kInvalidLength>;
extern template class ExMessage<MessageId::kInvalidDataValues>;
extern template class ExMessage<MessageId::kUnsupported>;
extern template class ExMessage<MessageId::kInvalidVersion>;

}  // namespace Vigil
