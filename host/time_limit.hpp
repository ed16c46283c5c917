// One time limit for many at a time. For rpc_server: a timer of its own for each call would cost a
// call more than its answer does.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kel::host {

class TimeLimit {
 public:
  class Limited {
   public:
    virtual void keepAlive() = 0;  // until timeIsUp has returned; must not call the limit
    virtual void timeIsUp() = 0;

   protected:
    ~Limited() = default;

   private:
    friend class TimeLimit;
    std::chrono::steady_clock::time_point end_;
    Limited* previous_ = nullptr;  // null if not in the ring
    Limited* next_ = nullptr;
  };

  explicit TimeLimit(std::chrono::milliseconds limit);
  ~TimeLimit();
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;

  void begin(Limited& limited);
  // Also of what has not begun, or whose time is up already.
  void end(Limited& limited);

 private:
  // Of the ring, in which the first to begin, and so to end, is the next one.
  struct Head final : Limited {
    void keepAlive() override {}
    void timeIsUp() override {}
  };

  static void unlink(Limited& limited);
  Limited* nextToEnd(std::unique_lock<std::mutex>& lock);
  void watch();

  const std::chrono::milliseconds limit_;
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
  Head head_;
  std::thread thread_;
};

}  // namespace kel::host
