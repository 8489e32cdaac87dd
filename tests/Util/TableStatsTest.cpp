#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <cstdint>

using Kesto::TableStats;

TEST(TableStats, FormatsItsThreeFields) {
  EXPECT_EQ(fmt::format("{}", TableStats{64, 3, 17}), "TableStats( buckets:64, longestChain:3, occupiedSlots:17 )");
  EXPECT_EQ(fmt::format("{}", TableStats{}), "TableStats( buckets:0, longestChain:0, occupiedSlots:0 )");
  EXPECT_EQ(fmt::format("{}", TableStats{UINT64_MAX, 0, 1}),
            "TableStats( buckets:18446744073709551615, longestChain:0, occupiedSlots:1 )");
}

TEST(TableStats, EqualWhenAllThreeFieldsAre) {
  const TableStats base{8, 2, 5};
  EXPECT_TRUE(base == (TableStats{8, 2, 5}));
  EXPECT_FALSE(base == (TableStats{9, 2, 5}));
  EXPECT_FALSE(base == (TableStats{8, 3, 5}));
  EXPECT_FALSE(base == (TableStats{8, 2, 6}));
  EXPECT_TRUE(base != (TableStats{8, 2, 6}));
}
