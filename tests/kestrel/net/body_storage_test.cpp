// The transport's recycled storage for large bodies, without a transfer: which kept block a new
// body gets, how many are kept, and that every block goes back to the memory manager in the end.
#include "kestrel/net/internal/body_storage.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

namespace kestrel {
namespace net {
namespace internal {
namespace {

class BodyStorageTest : public ::testing::Test {
 protected:
  void SetUp() override { baseline_ = MemoryManager::Default()->live_allocations(); }
  void TearDown() override {
    // Every block and the storage itself are gone once the storage is closed and all is given back.
    EXPECT_EQ(MemoryManager::Default()->live_allocations(), baseline_);
  }
  // Allocations made since the test began.
  long live() const { return MemoryManager::Default()->live_allocations() - baseline_; }

  long baseline_ = 0;
};

TEST_F(BodyStorageTest, GivenBlockIsTakenAgainForASizeItFitsWithinTwice) {
  auto* storage = doNew<BodyStorage>();
  std::size_t size = 0;
  char* first = storage->Take(1000, &size);
  EXPECT_EQ(size, 1000u);
  storage->Give(first, size);
  char* again = storage->Take(600, &size);
  EXPECT_EQ(again, first);
  EXPECT_EQ(size, 1000u);
  storage->Give(again, size);
  storage->Close();
}

TEST_F(BodyStorageTest, BlockMoreThanTwiceTheSizeIsNotHandedOut) {
  auto* storage = doNew<BodyStorage>();
  std::size_t size = 0;
  char* large = storage->Take(1000, &size);
  storage->Give(large, size);
  char* small = storage->Take(400, &size);
  EXPECT_NE(small, large);
  EXPECT_EQ(size, 400u);
  char* too_small = storage->Take(1001, &size);
  EXPECT_NE(too_small, large);
  EXPECT_EQ(size, 1001u);
  storage->Give(small, 400);
  storage->Give(too_small, 1001);
  storage->Close();
}

TEST_F(BodyStorageTest, SmallestFittingBlockIsChosen) {
  auto* storage = doNew<BodyStorage>();
  std::size_t size = 0;
  char* big = storage->Take(3000, &size);
  char* medium = storage->Take(2000, &size);
  storage->Give(big, 3000);
  storage->Give(medium, 2000);
  char* taken = storage->Take(1500, &size);
  EXPECT_EQ(taken, medium);
  EXPECT_EQ(size, 2000u);
  storage->Give(taken, size);
  storage->Close();
}

TEST_F(BodyStorageTest, AtMostFourBlocksAreKeptAndTheOldestGoesFirst) {
  auto* storage = doNew<BodyStorage>();
  const std::vector<std::size_t> sizes{1000, 1100, 1200, 1300, 1400};
  std::vector<char*> blocks;
  std::size_t size = 0;
  for (std::size_t wanted : sizes) blocks.push_back(storage->Take(wanted, &size));
  for (std::size_t i = 0; i + 1 < sizes.size(); ++i) storage->Give(blocks[i], sizes[i]);
  const long four_kept = live();
  storage->Give(blocks[4], sizes[4]);
  EXPECT_EQ(live(), four_kept - 1);  // the fifth is kept, the first freed
  ASSERT_EQ(BodyStorage::kMaxBlocks, 4u);
  // The four given last are kept, each handed out again for its own size...
  for (std::size_t i = 1; i < sizes.size(); ++i) {
    EXPECT_EQ(storage->Take(sizes[i], &size), blocks[i]) << sizes[i];
    EXPECT_EQ(size, sizes[i]);
  }
  // ...and the first, given back before them, went back to the memory manager.
  char* fresh = storage->Take(1000, &size);
  EXPECT_EQ(size, 1000u);
  for (std::size_t i = 1; i < sizes.size(); ++i) storage->Give(blocks[i], sizes[i]);
  storage->Give(fresh, size);
  storage->Close();
}

TEST_F(BodyStorageTest, CloseFreesKeptBlocksAndStorageLivesUntilTheLastIsGivenBack) {
  auto* storage = doNew<BodyStorage>();
  std::size_t size = 0;
  char* kept = storage->Take(1000, &size);
  char* out = storage->Take(2000, &size);
  storage->Give(kept, 1000);
  const long before_close = live();
  storage->Close();
  // The kept block is freed; the storage stays for the block still out.
  EXPECT_EQ(live(), before_close - 1);
  EXPECT_GT(live(), 0);
  storage->Give(out, 2000);
  EXPECT_EQ(live(), 0);
}

}  // namespace
}  // namespace internal
}  // namespace net
}  // namespace kestrel
