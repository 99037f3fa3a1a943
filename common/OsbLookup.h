// LookupTable: a fixed table of N slots that hands out ids for its entries.
//
// An id is (generation << 10) | slot: the low 10 bits name the slot, the rest must equal the
// number of insertions into that slot so far. A slot used again gets a new generation, so an old id
// never matches again, and a valid id is never 0.
//
// Not synchronised: the owner guards the table with its own lock (the client table with
// clientTableMutex).
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "platform/Exception.h"

namespace Vigil {

template <typename Element, uint32_t N>
class LookupTable {
    static_assert(N == 1024, "ids keep the slot in their low 10 bits");

  public:
    static constexpr uint32_t kSlotBits = 10;
    static constexpr uint32_t kSlotMask = N - 1;

    // Stores `element` in the first empty slot at or after the one the cursor names, and returns
    // its id. The cursor advances by one per insertion, wherever the search ended. Raises
    // Osb::ExLookupTableFull when every slot is taken; the table is then unchanged but for the
    // cursor.
    uint32_t insert(Element element) {
        ++cursor_;
        uint32_t start = cursor_ & kSlotMask;
        for (uint32_t probe = 0; probe < N; ++probe) {
            uint32_t slot = (start + probe) & kSlotMask;
            if (slots_[slot]) continue;
            ++generation_[slot];
            slots_[slot] = std::move(element);
            return (generation_[slot] << kSlotBits) | slot;
        }
        throw Osb::ExLookupTableFull(OSB_HERE);
    }

    // The slot of a live id. Raises Osb::ExLookupId when the slot is empty or the id's generation
    // is not the slot's current one.
    uint32_t indexOf(uint32_t id) const {
        uint32_t slot = id & kSlotMask;
        if (generation_[slot] != (id >> kSlotBits) || !slots_[slot]) {
            throw Osb::ExLookupId(id, OSB_HERE);
        }
        return slot;
    }

    Element& at(uint32_t slot) { return slots_[slot & kSlotMask]; }
    // Empties a slot; its generation stays.
    void clear(uint32_t slot) { slots_[slot & kSlotMask] = Element(); }

    uint32_t cursorForTesting() const { return cursor_; }
    void setCursorForTesting(uint32_t cursor) { cursor_ = cursor; }
    uint32_t generationForTesting(uint32_t slot) const { return generation_[slot & kSlotMask]; }

  private:
    uint32_t cursor_ = 0;
    std::array<uint32_t, N> generation_{};
    std::array<Element, N> slots_{};
};

}  // namespace Vigil
