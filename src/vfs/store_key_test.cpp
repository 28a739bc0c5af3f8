#include "vfs/store_key.hpp"

#include <gtest/gtest.h>

namespace kst {
namespace {

TEST(StoreKey, Fnv1aMatchesPublishedVectors) {
  EXPECT_EQ(fnv1a_32(""), 0x811c9dc5u);
  EXPECT_EQ(fnv1a_32("a"), 0xe40c292cu);
  EXPECT_EQ(fnv1a_32("foobar"), 0xbf9cf968u);
  EXPECT_EQ(fnv1a_64(""), 0xcbf29ce484222325ull);
  EXPECT_EQ(fnv1a_64("a"), 0xaf63dc4c8601ec8cull);
}

TEST(StoreKey, ShortPathsKeepTheirTextWithUnsafeCharactersReplaced) {
  EXPECT_EQ(store_key("C:\\proj\\x-1.2"), "C__proj_x-1.2");
  EXPECT_EQ(store_key("/home/me/proj"), "_home_me_proj");
  std::string forty(40, 'a');
  EXPECT_EQ(store_key(forty), forty);
}

TEST(StoreKey, LongPathsAreCutAt24AndHashedOverTheOriginalBytes) {
  std::string path = "/home/someone/projects/a-rather-long-name/sub";
  std::string key = store_key(path);
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", fnv1a_32(path));
  EXPECT_EQ(key, "_home_someone_projects_a_" + std::string(hex));
  EXPECT_EQ(key.size(), 24u + 1 + 8);
  // Two paths that replace to the same text still get different keys.
  std::string other = "/home/someone/projects/a-rather-long-name.sub";
  EXPECT_NE(store_key(other), key);
}

}  // namespace
}  // namespace kst
