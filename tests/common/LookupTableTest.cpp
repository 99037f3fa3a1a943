#include <gtest/gtest.h>

#include <memory>

#include "common/OsbLookup.h"

namespace {

// A table of plain non-null markers: an element is "present" when its pointer is set.
using Table = Vigil::LookupTable<std::shared_ptr<int>, 1024>;

std::shared_ptr<int> Item(int v = 0) { return std::make_shared<int>(v); }

TEST(LookupTableTest, FirstInsertionsStartAtSlotOne) {
    Table table;
    EXPECT_EQ(table.insert(Item()), 0x401u);
    EXPECT_EQ(table.insert(Item()), 0x402u);
}

TEST(LookupTableTest, The1024thInsertionLandsInSlotZero) {
    Table table;
    uint32_t id = 0;
    for (int i = 0; i < 1024; ++i) id = table.insert(Item());
    EXPECT_EQ(id, 0x400u);
}

TEST(LookupTableTest, ReusedSlotGetsTheNextGenerationAndTheOldIdDies) {
    Table table;
    uint32_t first = table.insert(Item());
    ASSERT_EQ(first, 0x401u);
    table.clear(table.indexOf(first));
    EXPECT_THROW(table.indexOf(first), Osb::ExLookupId);
    // Walk the cursor round once so that the search starts at slot 1 again.
    table.setCursorForTesting(1024);
    EXPECT_EQ(table.insert(Item()), 0x801u);
    EXPECT_EQ(table.generationForTesting(1), 2u);
}

TEST(LookupTableTest, SearchSkipsTakenSlotsButTheCursorMovesByOne) {
    Table table;
    table.setCursorForTesting(4);
    table.insert(Item());  // slot 5
    table.insert(Item());  // slot 6
    table.setCursorForTesting(4);
    EXPECT_EQ(table.insert(Item()) & 1023, 7u);
    EXPECT_EQ(table.cursorForTesting(), 5u);  // the next search starts at slot 6
    EXPECT_EQ(table.insert(Item()) & 1023, 8u);
}

TEST(LookupTableTest, FullTableRaisesAndAFreedSlotIsTakenNext) {
    Table table;
    std::vector<uint32_t> ids;
    for (int i = 0; i < 1024; ++i) ids.push_back(table.insert(Item(i)));
    EXPECT_THROW(table.insert(Item()), Osb::ExLookupTableFull);
    uint32_t freed = ids[517];
    table.clear(table.indexOf(freed));
    uint32_t again = table.insert(Item());
    EXPECT_EQ(again & 1023, freed & 1023);
    EXPECT_EQ(again >> 10, (freed >> 10) + 1);
}

TEST(LookupTableTest, IndexOfRefusesWrongGenerationsAndEmptySlots) {
    Table table;
    uint32_t id = table.insert(Item(7));
    EXPECT_EQ(table.indexOf(id), 1u);
    EXPECT_EQ(*table.at(1), 7);
    const uint32_t refused[] = {0u, 0x001u, 0x801u, 0x402u, id | (5u << 10)};
    for (uint32_t bad : refused) {
        EXPECT_THROW(table.indexOf(bad), Osb::ExLookupId) << std::hex << bad;
    }
}

}  // namespace
