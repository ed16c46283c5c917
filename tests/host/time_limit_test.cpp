// One limit for many: who is told that time is up, when, and how often.
#include "host/time_limit.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

constexpr std::chrono::milliseconds kLimit(200);

// Shared like a call: by whoever made it and, at the end of its time, by the limit.
class Shared final : public TimeLimit::Limited {
 public:
  explicit Shared(std::vector<const void*>& ended) : ended_(ended) {}

  void keepAlive() override { ++users_; }
  void timeIsUp() override {
    EXPECT_GE(Clock::now() - made_, kLimit);
    EXPECT_FALSE(std::exchange(told_, true)) << "twice";
    ended_.push_back(this);
    leave();
  }
  void leave() {
    if (--users_ == 0) {
      delete this;
    }
  }

 private:
  ~Shared() = default;

  const Clock::time_point made_ = Clock::now();
  std::vector<const void*>& ended_;  // by the limit's one thread
  bool told_ = false;
  std::atomic<int> users_ = 1;
};

TEST(TimeLimit, TellsThoseThatHaveNotEndedInTheirOrderAndOnce) {
  std::vector<const void*> ended;
  Shared* several[4];
  std::ranges::generate(several, [&] { return new Shared(ended); });
  {
    TimeLimit limit(kLimit);
    for (Shared* const one : several) {
      limit.end(*one);  // which has not begun
      limit.begin(*one);
      std::this_thread::sleep_for(kLimit / 40);
    }
    limit.end(*several[0]);
    limit.end(*several[2]);
    std::this_thread::sleep_for(2 * kLimit);
    limit.end(*several[1]);  // whose time is up
    limit.begin(*several[0]);
  }
  EXPECT_EQ(ended, (std::vector<const void*>{several[1], several[3]}));
  std::ranges::for_each(several, &Shared::leave);
}

TEST(TimeLimit, IsGivenUpAtOnce) {
  const Clock::time_point began = Clock::now();
  { TimeLimit limit(std::chrono::hours(1)); }
  EXPECT_LT(Clock::now() - began, kSoon);
}

// Many end just when their time is up, and are gone once nobody needs them.
TEST(TimeLimit, IsForManyThreads) {
  constexpr uint32_t kThreads = 8;
  constexpr uint32_t kEach = 200;
  std::vector<const void*> ended;
  {
    TimeLimit limit(kLimit);
    onThreads(kThreads, [&](uint32_t thread) {
      std::vector<Shared*> mine(kEach);
      for (Shared*& one : mine) {
        one = new Shared(ended);
        limit.begin(*one);
      }
      std::this_thread::sleep_for(kLimit - std::chrono::microseconds(500 * thread));
      for (Shared* const one : mine) {
        limit.end(*one);
        one->leave();
      }
    });
  }
}

}  // namespace
}  // namespace kel::host::test
