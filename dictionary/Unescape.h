// The first of the two passes that turn the raw text of a value (a line of a text file, or the
// default text of a lookup) into its final text: backslash and caret escapes, then
// ExpandEntities over the result.
//
// One pass, left to right. `\` and `^` open an escape; the next unit is looked up in the escape
// table of the opener:
//   backslash:  "->U+0022  n->U+000A  r->U+000D  t->U+0009  b->U+0008
//   caret:      Q->U+0022  [->U+201C  ]->U+201D  {->U+2018  }->U+2019  C->U+00A9  R->U+00AE
//               T->U+2122  D->U+00B0  B->U+2022  #->U+2318  !->U+00AC  I->U+2206  S->U+2211
//               n->U+000A  r->U+000D
// A unit with a row gives that row's unit; any other gives the opener and then itself, unless it
// is the opener again (so `^^` is `^`, `\\` is `\`, `\x` stays two units). An opener at the end of
// the text stays as it is. Escapes act before entities: `^#{tab}` gives U+2318 and then `{tab}`.
//
// The result is never longer than the input, and nothing outside `units[0, length)` is read.
// Never fails. Stateless: safe from any thread.
#pragma once

#include <cstdint>

#include "dictionary/ByteRunValueRef.h"

namespace lexkit_private {

// The final text of `length` units at `units` (which may be null when `length` is 0). An empty
// result is the shared empty value.
ByteRunValueRef Unescape(const char16_t* units, uint32_t length);

}  // namespace lexkit_private
