#include <Kesto/Core/Exception.h>
#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/ThreadControl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unordered_set>
#include <vector>

using Kesto::Ptr;
using Kesto::ptrIs;
using Kesto::RefCount;
using Kesto::ThreadControl;

namespace {

struct Counted : RefCount<> {
  explicit Counted(int v = 0) : value(v) {}
  int value;
};

// A base with a virtual destructor, and a derived class that records its own
// destruction: the last release must reach ~Derived through ~Base.
struct Base : RefCount<> {
  virtual ~Base() = default;
  virtual int kind() const { return 1; }
};

struct Derived : Base {
  explicit Derived(int* destroyed) : destroyed_(destroyed) {}
  ~Derived() override { ++*destroyed_; }
  int kind() const override { return 2; }
  int* destroyed_;
};

// Sets the pointer mode for one test and restores the old one after it.
class PointerMode {
public:
  explicit PointerMode(bool threadSafe) : old_(ThreadControl::tsp_) { ThreadControl::threadSafePointersIs(threadSafe); }
  ~PointerMode() { ThreadControl::threadSafePointersIs(old_); }

private:
  bool old_;
};

// Silences the report of emitAssertNonNullPtr for the length of a test.
class QuietAsserts {
public:
  QuietAsserts() : old_(Kesto::throwOnAssertFail()) { Kesto::throwOnAssertFailIs(true); }
  ~QuietAsserts() { Kesto::throwOnAssertFailIs(old_); }

private:
  bool old_;
};

void countsFollowCopiesAndDrops() {
  Ptr<Counted> a = ptrIs<Counted>(7);
  EXPECT_EQ(a->refCount(), 1u);
  {
    Ptr<Counted> b = a;
    EXPECT_EQ(a->refCount(), 2u);
    Ptr<Counted> c(a.get()); // from a raw pointer: the count is in the object
    EXPECT_EQ(a->refCount(), 3u);
    Ptr<Counted> d = std::move(b);
    EXPECT_EQ(a->refCount(), 3u);
    EXPECT_FALSE(b); // NOLINT(bugprone-use-after-move)
    c = nullptr;
    EXPECT_EQ(a->refCount(), 2u);
    d = a; // assigning the same object changes nothing
    EXPECT_EQ(a->refCount(), 2u);
  }
  EXPECT_EQ(a->refCount(), 1u);
  EXPECT_EQ(a->value, 7);
}

} // namespace

TEST(Ptr, IsOnePointerWide) {
  EXPECT_EQ(sizeof(Ptr<Counted>), sizeof(void*));
  EXPECT_EQ(sizeof(Ptr<Base>), sizeof(void*));
}

TEST(Ptr, CountsWithPlainArithmetic) {
  PointerMode mode(false);
  countsFollowCopiesAndDrops();
}

TEST(Ptr, CountsWithAtomicArithmetic) {
  PointerMode mode(true);
  countsFollowCopiesAndDrops();
}

TEST(Ptr, ConcurrentCopiesLeaveTheExactCount) {
  PointerMode mode(true);
  int destroyed = 0;
  Ptr<Base> shared = ptrIs<Derived>(&destroyed);
  constexpr int threads = 4, rounds = 100000;
  std::atomic<int> ready{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&] {
      ready.fetch_add(1);
      while (ready.load() < threads) {
      }
      std::vector<Ptr<Base>> held;
      for (int i = 0; i < rounds; ++i) {
        Ptr<Base> copy = shared;
        if (i % 64 == 0)
          held.push_back(copy); // some copies live a while, to vary the interleaving
        if (held.size() > 16)
          held.clear();
      }
    });
  for (auto& th : pool)
    th.join();
  EXPECT_EQ(shared->refCount(), 1u);
  EXPECT_EQ(destroyed, 0);
  shared = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(Ptr, ConcurrentLastReleaseDeletesOnce) {
  PointerMode mode(true);
  int destroyed = 0;
  for (int round = 0; round < 200; ++round) {
    Ptr<Base> first = ptrIs<Derived>(&destroyed);
    Ptr<Base> second = first;
    std::thread a([p = std::move(first)]() mutable { p = nullptr; });
    std::thread b([p = std::move(second)]() mutable { p = nullptr; });
    a.join();
    b.join();
  }
  EXPECT_EQ(destroyed, 200);
}

TEST(Ptr, ConvertsFromDerivedToBase) {
  int destroyed = 0;
  Ptr<Derived> derived = ptrIs<Derived>(&destroyed);
  Ptr<Base> base = derived; // copy: both hold it
  EXPECT_EQ(base->refCount(), 2u);
  EXPECT_EQ(base->kind(), 2);
  EXPECT_EQ(base.get(), derived.get());
  Ptr<Base> moved = std::move(derived); // move: the count does not change
  EXPECT_EQ(moved->refCount(), 2u);
  EXPECT_FALSE(derived); // NOLINT(bugprone-use-after-move)
  Ptr<const Base> readOnly = moved;
  EXPECT_EQ(readOnly->refCount(), 3u);
  EXPECT_EQ(Kesto::ptrDynamicCast<Derived>(moved).get(), static_cast<Derived*>(moved.get()));
  EXPECT_EQ(Kesto::ptrCast<Derived>(moved)->kind(), 2);
}

TEST(Ptr, LastReleaseDeletesThroughVirtualDestructor) {
  int destroyed = 0;
  {
    Ptr<Base> base = ptrIs<Derived>(&destroyed);
    Ptr<Base> other = base;
    base.reset();
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
  Ptr<Base> a = ptrIs<Derived>(&destroyed);
  a = ptrIs<Derived>(&destroyed); // assignment releases the old object
  EXPECT_EQ(destroyed, 2);
  Ptr<Base> b = ptrIs<Derived>(&destroyed);
  a = std::move(b);
  EXPECT_EQ(destroyed, 3);
}

TEST(Ptr, ReleaseGivesUpTheReferenceWithoutCounting) {
  Ptr<Counted> a = ptrIs<Counted>(1);
  Counted* raw = a.release();
  EXPECT_FALSE(a);
  EXPECT_EQ(raw->refCount(), 1u);
  Ptr<Counted> adopt(raw); // takes a second reference
  EXPECT_EQ(raw->refCount(), 2u);
  raw->decRef(); // drop the released one by hand
  EXPECT_EQ(adopt->refCount(), 1u);
}

TEST(Ptr, NullUseThrowsAssertException) {
  QuietAsserts quiet;
  Ptr<Counted> null;
  EXPECT_THROW((void)null->value, Kesto::AssertException);
  EXPECT_THROW((void)*null, Kesto::AssertException);
  EXPECT_EQ(null.get(), nullptr); // get() is not a use
  EXPECT_FALSE(null);
  EXPECT_TRUE(null == nullptr);
}

TEST(Ptr, NullUseReportsOnStandardError) {
  ASSERT_FALSE(Kesto::throwOnAssertFail());
  Ptr<Counted> null;
  testing::internal::CaptureStderr();
  EXPECT_THROW((void)null->value, Kesto::AssertException);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_NE(report.find("null Ptr"), std::string::npos) << report;
  EXPECT_NE(report.find("#0 "), std::string::npos) << report; // with a backtrace
}

TEST(Ptr, PtrIsMakesTheFirstReference) {
  Ptr<Counted> p = ptrIs<Counted>(42);
  EXPECT_EQ(p->value, 42);
  EXPECT_EQ(p->refCount(), 1u);
  Ptr<Base> base = ptrIs<Base>();
  EXPECT_EQ(base->kind(), 1);
}

TEST(Ptr, ComparesAndHashesByAddress) {
  Ptr<Counted> a = ptrIs<Counted>(), b = ptrIs<Counted>();
  Ptr<Counted> a2 = a;
  EXPECT_EQ(a, a2);
  EXPECT_NE(a, b);
  EXPECT_TRUE(a == a.get());
  EXPECT_EQ((a <=> b), (a.get() <=> b.get()));
  std::unordered_set<Ptr<Counted>> set{a, a2, b};
  EXPECT_EQ(set.size(), 2u);
  swap(a, b);
  EXPECT_EQ(b, a2);
}

TEST(Ptr, CopyOfCountedObjectStartsUncounted) {
  Ptr<Counted> a = ptrIs<Counted>(5);
  Counted copy(*a);
  EXPECT_EQ(copy.refCount(), 0u);
  EXPECT_EQ(copy.value, 5);
}
