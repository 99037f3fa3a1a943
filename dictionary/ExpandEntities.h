// The second pass over the text of a value: entities `#{name}` and `#{number}` become code units.
//
// One pass, left to right. A `#` opens an entity only when `{` follows and at least 3 units follow
// the `#`. Behind `#{`, the rows of the entity table are tried in order, and the first whose name
// begins the rest is taken (names are case-sensitive, and none is a prefix of another). With no
// row, a number is tried: the first of the prefixes `U+`, `u` and the empty one that the rest is
// longer than and begins with, then 1 to 4 hexadecimal digits (the first the highest); with no
// digit there is no entity, and no further prefix is tried. The entity counts only if the unit
// right behind its body is `}`. It then becomes its unit (`endl` becomes CR LF; a number becomes
// that number as one unit); otherwise the `#` is copied and the scan goes on behind it.
//
// Entities: endl (CR LF), tab, cr, lf; the 96 names of U+00A0 to U+00FF in order (nbsp ... yuml);
// and quot amp lt gt OElig oelig Scaron scaron Yuml circ tilde ensp emsp thinsp zwnj zwj lrm rlm
// ndash mdash lsquo rsquo sbquo ldquo rdquo bdquo dagger Dagger permil lsaquo rsaquo euro.
// So `#{ucirc}` is U+00FB (rows before numbers) and `#{uc}` is U+000C; `#{u}` and `#{1F600}` stay.
//
// The result is never longer than the input, and nothing outside `units[0, length)` is read.
// Never fails. Stateless: safe from any thread.
#pragma once

#include <cstdint>

#include "dictionary/ByteRunValueRef.h"

namespace lexkit_private {

// The text of `length` units at `units` (which may be null when `length` is 0) with its entities
// expanded. An empty result is the shared empty value.
ByteRunValueRef ExpandEntities(const char16_t* units, uint32_t length);

}  // namespace lexkit_private
