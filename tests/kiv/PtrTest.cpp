// Tests of handles and reference counts.
#include "platform/kiv/containers/Ptr.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace {

/// Runs one action in its constructor and another in its destructor.
class Probe : public Kiv::Object {
 public:
  using Action = std::function<void(Probe&)>;

  explicit Probe(Action atEnd, const Action& atStart = nullptr) : atEnd_(std::move(atEnd)) {
    if (atStart) atStart(*this);
  }
  ~Probe() override { atEnd_(*this); }

 private:
  Action atEnd_;
};
class DerivedProbe final : public Probe {
 public:
  using Probe::Probe;
};

TEST(PtrTest, NullAndInvalidHandlesReferToNothing) {
  const Kiv::Ptr<DerivedProbe> null;
  const auto invalid = Kiv::Ptr<DerivedProbe>::invalid();
  EXPECT_FALSE(null);
  EXPECT_FALSE(invalid);
  EXPECT_FALSE(null.isInvalid());
  EXPECT_NE(null, invalid);
  // A converted handle to the base or to const is invalid, too. Its destruction accesses no object.
  EXPECT_TRUE(Kiv::Ptr<const Probe>(invalid).isInvalid());
  EXPECT_EQ(Kiv::Ptr<const Probe>(null), nullptr);
  for (const auto& handle : {null, invalid}) {
    try {
      Kiv::validPtr(handle);
      ADD_FAILURE() << "took what refers to nothing";
    } catch (const Kiv::Exception& exception) {
      EXPECT_STREQ(exception.what(), "null ValidPtr");
    }
  }
  EXPECT_THROW(Kiv::validPtr(static_cast<Probe*>(nullptr)), Kiv::Exception);
}

TEST(PtrTest, TheLastHandleOfAnyKindDestroysTheObject) {
  int destroyed = 0;
  auto made = Kiv::make<DerivedProbe>([&](Probe&) { ++destroyed; });
  Kiv::Ptr<const Probe> asConst = made;
  EXPECT_EQ(asConst, made);
  EXPECT_EQ(made->referenceCount(), 2);
  Kiv::Ptr<Probe> moved = std::move(made);
  EXPECT_EQ(made, nullptr);  // NOLINT(bugprone-use-after-move): the test's subject
  EXPECT_EQ(moved->referenceCount(), 2);
  moved = nullptr;
  EXPECT_EQ(destroyed, 0);
  asConst = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// Handlers that run in a constructor or destructor pass handles to the object to other code.
TEST(PtrTest, HandlesMadeDuringConstructionAndDestructionDestroyNothing) {
  int destroyed = 0;
  const auto passHandles = [](Probe& probe) {
    for (int i = 0; i < 3; ++i) Kiv::Ptr<Probe>{&probe};
    const Kiv::Ptr<Probe> one(&probe);
    EXPECT_EQ(Kiv::Ptr<const Probe>(one).get(), &probe);
  };
  auto probe = Kiv::make<Probe>(
      [&](Probe& self) {
        ++destroyed;
        EXPECT_TRUE(self.isDestructing());
        EXPECT_LT(self.referenceCount(), 0);
        passHandles(self);
      },
      [&](Probe& self) {
        passHandles(self);
        EXPECT_FALSE(self.isDestructing());
      });
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(probe->referenceCount(), 1);
  probe = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// A lost update would leak the object, or destroy it while a handle still refers to it.
TEST(PtrTest, CountsAreExactWhenThreadsCopyAndDropHandles) {
  int destroyed = 0;
  auto probe = Kiv::make<Probe>([&](Probe&) { ++destroyed; });
  const auto copyAndDrop = [](const Kiv::Ptr<Probe>& handle) {
    for (int i = 0; i < 100'000; ++i) static_cast<void>(Kiv::Ptr<Probe>(handle));
  };
  {
    std::thread other([copy = probe, &copyAndDrop] { copyAndDrop(copy); });
    copyAndDrop(probe);
    other.join();
  }
  EXPECT_EQ(probe->referenceCount(), 1);
  EXPECT_EQ(destroyed, 0);
  std::thread([last = std::move(probe)] {}).join();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
