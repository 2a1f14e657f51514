#include "quire/model/pointer_vector.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "tests/support/test_support.h"

namespace {

using util::kit::PointerVector;

// Records its destruction in a shared log.
class Tracked {
  KESTREL_MANAGED_ALLOCATION

 public:
  Tracked(int id, std::vector<int>* log) : id_(id), log_(log) {}
  virtual ~Tracked() { log_->push_back(id_); }
  int id() const { return id_; }

 private:
  int id_;
  std::vector<int>* log_;
};

class Derived : public Tracked {
 public:
  Derived(int id, std::vector<int>* log, int* derived_destroyed)
      : Tracked(id, log), derived_destroyed_(derived_destroyed) {}
  ~Derived() override { ++*derived_destroyed_; }

 private:
  int* derived_destroyed_;
};

static_assert(!std::is_copy_constructible<PointerVector<Tracked>>::value, "never copied");
static_assert(!std::is_copy_assignable<PointerVector<Tracked>>::value, "never copied");

class PointerVectorTest : public quire_test::ScriptedTest {};

TEST_F(PointerVectorTest, KeepsInsertionOrder) {
  std::vector<int> log;
  PointerVector<Tracked> vector;
  EXPECT_EQ(vector.size(), 0u);
  EXPECT_TRUE(vector.empty());
  EXPECT_EQ(vector.begin(), vector.end());
  for (int i = 0; i < 20; ++i) vector.push_back(kestrel::doNew<Tracked>(i, &log));
  ASSERT_EQ(vector.size(), 20u);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(vector[i]->id(), i);
  int expected = 0;
  for (Tracked* element : vector) EXPECT_EQ(element->id(), expected++);
  EXPECT_EQ(expected, 20);
  EXPECT_TRUE(log.empty()) << "nothing is destroyed while the vector lives";
}

TEST_F(PointerVectorTest, DestroysEachElementOnceFromFirstToLastThroughItsVirtualDestructor) {
  std::vector<int> log;
  int derived_destroyed = 0;
  {
    PointerVector<Tracked> vector;
    vector.push_back(kestrel::doNew<Tracked>(1, &log));
    vector.push_back(new Derived(2, &log, &derived_destroyed));
    vector.push_back(nullptr);
    vector.push_back(kestrel::doNew<Tracked>(3, &log));
  }
  EXPECT_EQ(log, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(derived_destroyed, 1);
}

TEST_F(PointerVectorTest, StorageComesFromTheMemoryManager) {
  auto* mm = kestrel::MemoryManager::Default();
  std::vector<int> log;
  const long before = mm->live_allocations();
  const long long total_before = mm->total_allocations();
  {
    PointerVector<Tracked> vector;
    vector.push_back(kestrel::doNew<Tracked>(1, &log));
    // The element and the array.
    EXPECT_EQ(mm->live_allocations(), before + 2);
    for (int i = 0; i < 1000; ++i) vector.push_back(kestrel::doNew<Tracked>(i, &log));
    // Growth by doubling: a handful of array allocations for a thousand appends.
    EXPECT_LT(mm->total_allocations() - total_before, 1001 + 20);
  }
  EXPECT_EQ(mm->live_allocations(), before);
  EXPECT_EQ(log.size(), 1001u);
}

}  // namespace
