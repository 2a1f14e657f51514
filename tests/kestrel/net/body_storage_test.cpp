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

// One block handed out by the storage.
struct Block {
  char* data = nullptr;
  std::size_t size = 0;
};

class BodyStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    baseline_ = MemoryManager::Default()->live_allocations();
    storage_ = doNew<BodyStorage>();
  }
  void TearDown() override {
    if (storage_ != nullptr) storage_->Close();
    // Every block and the storage itself are gone once the storage is closed and all is given back.
    EXPECT_EQ(MemoryManager::Default()->live_allocations(), baseline_);
  }
  // Allocations made since the test began.
  long live() const { return MemoryManager::Default()->live_allocations() - baseline_; }
  Block Take(std::size_t capacity) {
    Block block;
    block.data = storage_->Take(capacity, &block.size);
    return block;
  }
  void Give(const Block& block) { storage_->Give(block.data, block.size); }

  long baseline_ = 0;
  BodyStorage* storage_ = nullptr;
};

TEST_F(BodyStorageTest, GivenBlockIsTakenAgainForASizeItFitsWithinTwice) {
  const Block first = Take(1000);
  EXPECT_EQ(first.size, 1000u);
  Give(first);
  const Block again = Take(600);
  EXPECT_EQ(again.data, first.data);
  EXPECT_EQ(again.size, 1000u);
  Give(again);
}

TEST_F(BodyStorageTest, BlockMoreThanTwiceTheSizeOrTooSmallIsNotHandedOut) {
  const Block large = Take(1000);
  Give(large);
  const Block small = Take(400);
  EXPECT_NE(small.data, large.data);
  EXPECT_EQ(small.size, 400u);
  const Block larger = Take(1001);
  EXPECT_NE(larger.data, large.data);
  EXPECT_EQ(larger.size, 1001u);
  Give(small);
  Give(larger);
}

TEST_F(BodyStorageTest, SmallestFittingBlockIsChosen) {
  const Block big = Take(3000);
  const Block medium = Take(2000);
  Give(big);
  Give(medium);
  const Block taken = Take(1500);
  EXPECT_EQ(taken.data, medium.data);
  EXPECT_EQ(taken.size, 2000u);
  Give(taken);
}

TEST_F(BodyStorageTest, AtMostFourBlocksAreKeptAndTheOldestGoesFirst) {
  ASSERT_EQ(BodyStorage::kMaxBlocks, 4u);
  std::vector<Block> blocks;
  for (std::size_t wanted : {1000, 1100, 1200, 1300, 1400}) blocks.push_back(Take(wanted));
  for (std::size_t i = 0; i < 4; ++i) Give(blocks[i]);
  const long four_kept = live();
  Give(blocks[4]);
  EXPECT_EQ(live(), four_kept - 1);  // the fifth is kept, the first freed
  // The four given last are kept, each handed out again for its own size...
  for (std::size_t i = 1; i < blocks.size(); ++i) {
    EXPECT_EQ(Take(blocks[i].size).data, blocks[i].data) << blocks[i].size;
  }
  // ...and the first, given back before them, went back to the memory manager.
  const Block fresh = Take(1000);
  EXPECT_EQ(fresh.size, 1000u);
  for (std::size_t i = 1; i < blocks.size(); ++i) Give(blocks[i]);
  Give(fresh);
}

TEST_F(BodyStorageTest, CloseFreesKeptBlocksAndStorageLivesUntilTheLastIsGivenBack) {
  const Block kept = Take(1000);
  const Block out = Take(2000);
  Give(kept);
  const long before_close = live();
  storage_->Close();
  // The kept block is freed; the storage stays for the block still out.
  EXPECT_EQ(live(), before_close - 1);
  EXPECT_GT(live(), 0);
  Give(out);
  storage_ = nullptr;
  EXPECT_EQ(live(), 0);
}

}  // namespace
}  // namespace internal
}  // namespace net
}  // namespace kestrel
