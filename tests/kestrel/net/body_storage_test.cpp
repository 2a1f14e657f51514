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
  // Takes a block for `capacity`, expects it to be `kept` and gives it back.
  void ExpectTaken(std::size_t capacity, const Block& kept) {
    const Block taken = Take(capacity);
    EXPECT_EQ(taken.data, kept.data) << "for " << capacity;
    EXPECT_EQ(taken.size, kept.size) << "for " << capacity;
    Give(taken);
  }

  long baseline_ = 0;
  BodyStorage* storage_ = nullptr;
};

TEST_F(BodyStorageTest, GivenBlockIsTakenAgainForASizeItFitsWithinTwice) {
  const Block first = Take(1000);
  EXPECT_EQ(first.size, 1000u);
  Give(first);
  ExpectTaken(600, first);
  ExpectTaken(1000, first);
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
  ExpectTaken(1500, medium);
}

TEST_F(BodyStorageTest, AtMostFourBlocksAreKeptAndTheOldestGoesFirst) {
  ASSERT_EQ(BodyStorage::kMaxBlocks, 4u);
  std::vector<Block> blocks;
  for (std::size_t wanted : {1000, 1100, 1200, 1300, 1400}) blocks.push_back(Take(wanted));
  for (std::size_t i = 0; i < 4; ++i) Give(blocks[i]);
  const long four_kept = live();
  Give(blocks[4]);
  EXPECT_EQ(live(), four_kept - 1);  // the fifth is kept, the first freed
  // The first, given back before the others, went back to the memory manager: the smallest kept
  // block that fits 1000 bytes is now the second...
  ExpectTaken(1000, blocks[1]);
  // ...and the others are kept, each handed out again for its own size.
  for (std::size_t i = 2; i < blocks.size(); ++i) ExpectTaken(blocks[i].size, blocks[i]);
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
