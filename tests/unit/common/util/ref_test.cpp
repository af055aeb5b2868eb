#include "common/util/ref.h"

#include <gtest/gtest.h>

namespace vyn::common {
namespace {

int gDeleted = 0;

struct Thing : Referable {
  ~Thing() override { ++gDeleted; }
  Ref<Thing> mNext;
};

TEST(RefTest, CountsEveryHolderAndDeletesAtTheLast) {
  gDeleted = 0;
  Ref<Thing> first(new Thing);
  EXPECT_EQ(first->RefCount(), 1);
  first.Set(first.Get());
  EXPECT_EQ(first->RefCount(), 1);
  {
    Ref<Thing> second = first;
    Ref<Referable> base = second;
    EXPECT_EQ(first->RefCount(), 3);
    second = nullptr;
    EXPECT_EQ(first->RefCount(), 2);
  }
  Ref<Thing> moved = std::move(first);
  EXPECT_EQ(moved->RefCount(), 1);
  moved.Set(nullptr);
  EXPECT_EQ(gDeleted, 1);
  EXPECT_TRUE(moved == nullptr);
}

TEST(RefTest, SetKeepsAnObjectThatLivesOnlyThroughTheOldOne) {
  gDeleted = 0;
  Ref<Thing> head(new Thing);
  head->mNext = new Thing;
  Thing* next = head->mNext.Get();
  head.Set(head->mNext.Get());
  EXPECT_EQ(head.Get(), next);
  EXPECT_EQ(head->RefCount(), 1);
  EXPECT_EQ(gDeleted, 1);
}

}  // namespace
}  // namespace vyn::common
