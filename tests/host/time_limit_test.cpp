// One limit for many: who is told that time is up, when, and how often.
#include "host/time_limit.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

constexpr std::chrono::milliseconds kLimit(1000);

// Shared like a call: by whoever made it and, at the end of its time, by the limit.
class Shared final : public TimeLimit::Limited {
 public:
  explicit Shared(std::vector<const void*>& ended) : ended_(ended) {}

  void begin(TimeLimit& limit) {
    began_ = Clock::now();
    limit.begin(*this);
  }
  void keepAlive() override { ++users_; }
  void timeIsUp() override {
    EXPECT_GE(Clock::now() - began_, kLimit);
    ended_.push_back(this);
    isTold_ = true;
    leave();
  }
  [[nodiscard]] bool isTold() const { return isTold_; }
  void leave() {
    if (--users_ == 0) {
      delete this;
    }
  }

 private:
  ~Shared() = default;

  Clock::time_point began_;
  std::vector<const void*>& ended_;  // by the limit's one thread
  std::atomic<int> users_ = 1;
  std::atomic<bool> isTold_ = false;
};

TEST(TimeLimit, TellsThoseThatHaveNotEndedInTheirOrderAndOnce) {
  std::vector<const void*> ended;
  Shared* several[4];
  std::ranges::generate(several, [&] { return new Shared(ended); });
  {
    TimeLimit limit(kLimit);
    for (Shared* const one : several) {
      limit.end(*one);  // which has not begun
      one->begin(limit);
      std::this_thread::sleep_for(kLimit / 200);
    }
    limit.end(*several[0]);
    limit.end(*several[2]);
    EXPECT_TRUE(eventually([&] { return several[3]->isTold(); }));
    several[0]->begin(limit);
    limit.end(*several[1]);  // whose time is up
    EXPECT_TRUE(eventually([&] { return several[0]->isTold(); }));
    several[2]->begin(limit);
  }
  EXPECT_EQ(ended, (std::vector<const void*>{several[1], several[3], several[0]}));
  std::ranges::for_each(several, &Shared::leave);
}

TEST(TimeLimit, IsGivenUpAtOnce) {
  const Clock::time_point began = Clock::now();
  {
    const TimeLimit limit(std::chrono::hours(1));
    std::this_thread::sleep_for(kLimit / 5);  // for its thread to be waiting
  }
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
        one->begin(limit);
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
