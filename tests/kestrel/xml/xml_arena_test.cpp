// The arena that holds a tree's nodes and attribute lists.
#include "kestrel/xml/xml_arena.h"

#include <gtest/gtest.h>

#include <QString>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "tests/kestrel/xml/xml_test_fixture.h"

namespace {

using kestrel::XmlArena;
using kestrel::XmlAttribute;
using kestrel::XmlNode;

class XmlArenaTest : public quire_test::xml::XmlTest {};

TEST_F(XmlArenaTest, NodesAreFreshAndDistinctAndShareFewBlocks) {
  XmlArena arena;
  EXPECT_EQ(arena.block_count(), 0u);
  std::vector<XmlNode*> nodes;
  for (int i = 0; i < 10000; ++i) {
    XmlNode* node = arena.NewNode();
    ASSERT_TRUE(node->name.isNull());
    ASSERT_TRUE(node->text.isNull());
    ASSERT_EQ(node->attributes, nullptr);
    ASSERT_EQ(node->attribute_count, 0);
    ASSERT_EQ(node->first_child, nullptr);
    ASSERT_EQ(node->next_sibling, nullptr);
    node->name = QString::number(i);
    nodes.push_back(node);
  }
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(nodes[i]->name, QString::number(i));
  // Blocks grow to thousands of nodes: ten thousand nodes take a handful of blocks.
  EXPECT_LE(arena.block_count(), 10u);
  arena.Clear();
  EXPECT_EQ(arena.block_count(), 0u);
  EXPECT_NE(arena.NewNode(), nullptr);
}

TEST_F(XmlArenaTest, AttributeListsStayContiguousAcrossBlocks) {
  XmlArena arena;
  struct List {
    XmlAttribute* items;
    int count;
  };
  std::vector<List> lists;
  // Lists of every length up to 40, so that many of them straddle the end of a block and move.
  for (int length = 1; length <= 40; ++length) {
    XmlAttribute* items = nullptr;
    for (int i = 0; i < length; ++i) {
      items = arena.AppendAttribute(items, i);
      ASSERT_TRUE(items[i].name.isNull());
      items[i].name = QStringLiteral("n%1-%2").arg(length).arg(i);
      items[i].value = QStringLiteral("v%1").arg(i);
      arena.NewNode();  // nodes come from their own blocks and do not break a list
    }
    lists.push_back({items, length});
  }
  for (const List& list : lists) {
    for (int i = 0; i < list.count; ++i) {
      ASSERT_EQ(list.items[i].name, QStringLiteral("n%1-%2").arg(list.count).arg(i));
      ASSERT_EQ(list.items[i].value, QStringLiteral("v%1").arg(i));
    }
  }
}

TEST_F(XmlArenaTest, EverythingIsGivenBackToTheMemoryManager) {
  auto* manager = kestrel::MemoryManager::Default();
  const long before = manager->live_allocations();
  {
    auto* arena = new XmlArena;  // managed: from the memory manager too
    XmlAttribute* items = nullptr;
    for (int i = 0; i < 5000; ++i) {
      arena->NewNode()->text = QStringLiteral("text %1").arg(i);
      items = arena->AppendAttribute(items, i);
    }
    EXPECT_GT(manager->live_allocations(), before);
    delete arena;
  }
  EXPECT_EQ(manager->live_allocations(), before);
}

}  // namespace
