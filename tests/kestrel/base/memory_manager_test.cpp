#include "kestrel/base/memory_manager.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/guard_death_test.h"

namespace {

using kestrel::MemoryManager;

struct Plain {
  explicit Plain(int v) : value(v) { ++constructed; }
  ~Plain() { ++destroyed; }
  int value;
  static int constructed;
  static int destroyed;
};
int Plain::constructed = 0;
int Plain::destroyed = 0;

class ManagedBase {
  KESTREL_MANAGED_ALLOCATION

 public:
  virtual ~ManagedBase() = default;
};

class ManagedDerived : public ManagedBase {
 public:
  ~ManagedDerived() override { ++destroyed; }
  char payload[100] = {};
  static int destroyed;
};
int ManagedDerived::destroyed = 0;

TEST(MemoryManagerTest, CountsLiveAllocationsAndBytes) {
  MemoryManager* mm = MemoryManager::Default();
  const long live = mm->live_allocations();
  const long long bytes = mm->live_bytes();
  const long long total = mm->total_allocations();
  void* a = mm->Malloc(10);
  void* b = mm->Malloc(1000);
  EXPECT_EQ(mm->live_allocations(), live + 2);
  EXPECT_EQ(mm->live_bytes(), bytes + 1010);
  EXPECT_EQ(mm->total_allocations(), total + 2);
  EXPECT_GE(mm->peak_bytes(), bytes + 1010);
  mm->Free(a);
  EXPECT_EQ(mm->live_allocations(), live + 1);
  EXPECT_EQ(mm->live_bytes(), bytes + 1000);
  mm->Free(b);
  mm->Free(nullptr);
  EXPECT_EQ(mm->live_allocations(), live);
  EXPECT_EQ(mm->live_bytes(), bytes);
  EXPECT_EQ(mm->total_allocations(), total + 2);
}

TEST(MemoryManagerTest, BlocksAreAlignedAndUsable) {
  MemoryManager* mm = MemoryManager::Default();
  for (std::size_t size : {0u, 1u, 7u, 16u, 4095u}) {
    auto* p = static_cast<unsigned char*>(mm->Malloc(size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
    std::memset(p, 0xAB, size);
    mm->Free(p);
  }
}

TEST(MemoryManagerTest, DoNewAndDoDeleteOnAPlainType) {
  MemoryManager* mm = MemoryManager::Default();
  const long live = mm->live_allocations();
  Plain::constructed = Plain::destroyed = 0;
  Plain* p = kestrel::doNew<Plain>(42);
  EXPECT_EQ(p->value, 42);
  EXPECT_EQ(mm->live_allocations(), live + 1);
  kestrel::doDelete(p);
  EXPECT_EQ(Plain::constructed, 1);
  EXPECT_EQ(Plain::destroyed, 1);
  EXPECT_EQ(mm->live_allocations(), live);
  kestrel::doDelete(static_cast<Plain*>(nullptr));
}

TEST(MemoryManagerTest, ManagedClassesMixPlainNewWithDoDelete) {
  MemoryManager* mm = MemoryManager::Default();
  const long live = mm->live_allocations();
  ManagedDerived::destroyed = 0;
  // A host writes plain `new`; the library releases with doDelete through the base.
  ManagedBase* object = new ManagedDerived;
  EXPECT_EQ(mm->live_allocations(), live + 1);
  EXPECT_GE(mm->live_bytes(), static_cast<long long>(sizeof(ManagedDerived)));
  kestrel::doDelete(object);
  EXPECT_EQ(ManagedDerived::destroyed, 1);
  EXPECT_EQ(mm->live_allocations(), live);
  // And the other way round.
  ManagedBase* made = kestrel::doNew<ManagedDerived>();
  delete made;
  EXPECT_EQ(ManagedDerived::destroyed, 2);
  EXPECT_EQ(mm->live_allocations(), live);
}

TEST(MemoryManagerTest, AllocatorAdaptorUsesTheManager) {
  MemoryManager* mm = MemoryManager::Default();
  const long live = mm->live_allocations();
  {
    std::vector<std::string, kestrel::MMAlloc<std::string>> v(
        kestrel::MMAlloc<std::string>(nullptr));
    v.push_back("one");
    v.push_back("two");
    EXPECT_GE(mm->live_allocations(), live + 1);
    kestrel::MMAlloc<int> a;
    kestrel::MMAlloc<int> b(mm);
    EXPECT_TRUE(a == b);
  }
  EXPECT_EQ(mm->live_allocations(), live);
}

// A manager that stops the process as soon as a block is handed back to where it came from: a free
// that got past the manager's own check of the block ends here, not in the C library's abort.
class StopAtDeallocate : public MemoryManager {
 protected:
  void Deallocate(void*) override {
    std::fputs("Deallocate was reached\n", stderr);
    std::_Exit(87);
  }
};

TEST(MemoryManagerDeathTest, FreeingForeignMemoryAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_GUARD_ABORT({
    alignas(16) static unsigned char bytes[64] = {};
    MemoryManager::Default()->Free(bytes + 16);
  });
  EXPECT_GUARD_ABORT({
    alignas(16) static unsigned char bytes[64] = {};
    StopAtDeallocate manager;
    manager.Free(bytes + 16);
  });
}

TEST(MemoryManagerDeathTest, FreeingAnotherManagersBlockAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_GUARD_ABORT({
    StopAtDeallocate owner;
    StopAtDeallocate other;
    other.Free(owner.Malloc(8));
  });
}

}  // namespace
