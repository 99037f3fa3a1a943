#include "dictionary/ByteSwapUnicodeReader.h"

namespace lexkit_private {

bool ByteSwapUnicodeReader::ReadUnit(char16_t& unit) { return ReadUnitInOrder(unit, true); }

}  // namespace lexkit_private
