#include "memory/memo_props.hpp"

#include <gtest/gtest.h>

namespace kx::memory {
namespace {

TEST(MemoProps, BarCombinesNamesIntoBits) {
  std::string unknown;
  EXPECT_EQ(parse_props("procedure|usage", unknown), 129u);
  EXPECT_EQ(parse_props(" procedure | usage ", unknown), 129u);
  EXPECT_EQ(parse_props("", unknown), 0u);
  EXPECT_EQ(parse_props("temporal", unknown), 65536u);
}

TEST(MemoProps, UnknownNameIsReported) {
  std::string unknown;
  EXPECT_FALSE(parse_props("note|bogus", unknown).has_value());
  EXPECT_EQ(unknown, "bogus");
}

TEST(MemoProps, TemporalIsAcceptedButNotAdvertised) {
  EXPECT_EQ(memo_properties().size(), 17u);
  EXPECT_EQ(advertised_property_names(),
            "procedure|history|preference|note|example|foundation|protocol|usage|decision|"
            "constraint|reference|state|lesson|warning|design|todo");
  EXPECT_EQ(props_to_text(65536 | 1), "procedure|temporal");
}

TEST(MemoProps, ZeroIsUntypedAndVectorBitIsNoProperty) {
  EXPECT_EQ(props_to_text(0), "untyped");
  EXPECT_EQ(props_to_text(0x80000000u), "untyped");
}

}  // namespace
}  // namespace kx::memory
