// UriArena against uriparser's own conformance check for memory managers, and URLs whose
// segments overflow the arena into the heap.
#include "platform/url/UriArena.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/url/Url.h"

namespace daskel::platform {
namespace {

TEST(UriArena, PassesUriparsersChecksOfAMemoryManager) {
  UriArena arena;
  EXPECT_EQ(uriTestMemoryManager(arena.manager()), URI_SUCCESS);
  // Again on an arena that is full: everything then comes from the heap.
  EXPECT_EQ(uriTestMemoryManager(arena.manager()), URI_SUCCESS);
}

TEST(UriArena, AUrlWithMoreSegmentsThanTheArenaHoldsParsesAsAnyOther) {
  std::string path;
  for (int i = 0; i < 300; ++i) {
    path += "/segment" + std::to_string(i);
  }
  auto url = Url::fromString("file://" + path);
  ASSERT_TRUE(url.has_value());
  EXPECT_EQ(url->path(), path);
  EXPECT_EQ(url->lastPathComponent(), "segment299");
  auto parent = url->deletingLastPathComponent();
  ASSERT_TRUE(parent.has_value());
  EXPECT_EQ(parent->path(), path.substr(0, path.rfind('/') + 1));
}

}  // namespace
}  // namespace daskel::platform
