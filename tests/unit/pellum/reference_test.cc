#include "deps/pellum/reference.h"

#include <gtest/gtest.h>

#include <list>
#include <thread>
#include <utility>
#include <vector>

namespace mirn {
namespace {

struct Counted : CReference {
  explicit Counted(int* deleted_count = nullptr, int text = 0) : deleted(deleted_count), value(text) {}
  Counted(const Counted&) = default;
  ~Counted() override {
    if (deleted) {
      ++*deleted;
    }
  }
  int* deleted;
  int value;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(Reference, StartsWithStrongZeroAndSecondOne) {
  const Counted object;
  EXPECT_EQ(object.StrongCount(), 0);
  EXPECT_EQ(object.SecondCount(), 1);
}

TEST(Reference, BothOperationsReturnTheNewCount) {
  int deleted = 0;
  IReference* object = new Counted(&deleted);
  EXPECT_EQ(object->AddRef(), 1);
  EXPECT_EQ(object->AddRef(), 2);
  EXPECT_EQ(object->Release(), 1);
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(object->Release(), 0);
  EXPECT_EQ(deleted, 1);
}

TEST(Reference, SecondCountAboveOneKeepsTheObject) {
  int deleted = 0;
  auto* object = new Counted(&deleted);
  object->AddRef();
  EXPECT_EQ(object->AddSecondRef(), 2);
  EXPECT_EQ(object->Release(), 0);
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(object->SecondCount(), 1);
  EXPECT_EQ(object->ReleaseSecondRef(), 0);
  EXPECT_EQ(deleted, 1);
}

TEST(Reference, EmbeddedObjectThatNobodyReferencesIsNeverDeleted) {
  struct Owner {
    Counted embedded;
  };
  const Owner owner;
  EXPECT_EQ(owner.embedded.StrongCount(), 0);
}

TEST(Reference, UnbalancedReleaseDeletesNothing) {
  int deleted = 0;
  {
    Counted object(&deleted);
    EXPECT_EQ(object.Release(), -1);
    EXPECT_EQ(deleted, 0);
  }
  EXPECT_EQ(deleted, 1);
}

TEST(Reference, CopiedObjectHasCountsOfItsOwn) {
  const CRefObj<Counted> first = makeRef<Counted>(nullptr, 7);
  const CRefObj<Counted> second = makeRef<Counted>(*first);
  EXPECT_EQ(second->StrongCount(), 1);
  EXPECT_EQ(second->value, 7);
  Counted third;
  static_cast<CReference&>(third) = *first;
  EXPECT_EQ(third.StrongCount(), 0);
}

TEST(RefObj, MakeRefRaisesTheCountToOne) {
  const CRefObj<Counted> object = makeRef<Counted>(nullptr, 3);
  EXPECT_EQ(object->StrongCount(), 1);
  EXPECT_EQ((*object).value, 3);
  EXPECT_TRUE(object);
}

TEST(RefObj, CopyTakesAReferenceAndDestructionGivesItBack) {
  int deleted = 0;
  CRefObj<Counted> first = makeRef<Counted>(&deleted);
  {
    const CRefObj<Counted> second = first;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(first->StrongCount(), 2);
    EXPECT_TRUE(first == second);
  }
  EXPECT_EQ(first->StrongCount(), 1);
  first.reset();
  EXPECT_EQ(deleted, 1);
  EXPECT_TRUE(first == nullptr);
  first.reset();
}

TEST(RefObj, ReassignmentGivesTheOldReferenceBack) {
  int first_deleted = 0;
  int second_deleted = 0;
  CRefObj<Counted> object = makeRef<Counted>(&first_deleted);
  object = makeRef<Counted>(&second_deleted);
  EXPECT_EQ(first_deleted, 1);
  object = nullptr;
  EXPECT_EQ(second_deleted, 1);
}

TEST(RefObj, AssigningItselfIsHarmless) {
  int deleted = 0;
  CRefObj<Counted> object = makeRef<Counted>(&deleted);
  const CRefObj<Counted>& same = object;
  object = same;
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(object->StrongCount(), 1);
}

TEST(RefObj, MoveCountsNothing) {
  int deleted = 0;
  CRefObj<Counted> first = makeRef<Counted>(&deleted);
  CRefObj<Counted> second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): null is what a moved-from reference is
  EXPECT_EQ(second->StrongCount(), 1);
  const CRefObj<Counted> third = makeRef<Derived>(nullptr);
  const CRefObj<Derived> derived = makeRef<Derived>(nullptr);
  const CRefObj<Counted> base = derived;
  EXPECT_EQ(base->StrongCount(), 2);
  EXPECT_EQ(third->StrongCount(), 1);
}

TEST(RefObj, AttachAndDetachHandOverWithoutCounting) {
  int deleted = 0;
  auto* raw = new Counted(&deleted);
  raw->AddRef();
  CRefObj<Counted> object = CRefObj<Counted>::Attach(raw);
  EXPECT_EQ(raw->StrongCount(), 1);
  EXPECT_EQ(object.Detach(), raw);
  EXPECT_FALSE(object);
  raw->Release();
  EXPECT_EQ(deleted, 1);
}

TEST(Reference, CountsHoldUnderManyThreads) {
  int deleted = 0;
  CRefObj<Counted> object = makeRef<Counted>(&deleted);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = object] {
      std::list<CRefObj<Counted>> held;
      for (int i = 0; i < 2000; ++i) {
        held.push_back(copy);
      }
    });
  }
  object.reset();
  for (std::thread& thread : threads) {
    thread.join();
  }
  threads.clear();
  EXPECT_EQ(deleted, 1);
}

}  // namespace
}  // namespace mirn
