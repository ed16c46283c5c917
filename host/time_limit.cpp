// A ring in the order of beginning, and a thread that sleeps until the first of it must end.
#include "host/time_limit.hpp"

#include <utility>

namespace kel::host {

using Clock = std::chrono::steady_clock;

TimeLimit::TimeLimit(std::chrono::milliseconds limit) : limit_(limit) {
  head_.previous_ = &head_;
  head_.next_ = &head_;
  thread_ = std::thread([this] { watch(); });
}

TimeLimit::~TimeLimit() {
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_one();
  thread_.join();
}

void TimeLimit::begin(Limited& limited) {
  const std::scoped_lock lock(mutex_);
  limited.end_ = Clock::now() + limit_;
  limited.next_ = &head_;
  limited.previous_ = std::exchange(head_.previous_, &limited);
  limited.previous_->next_ = &limited;
}

void TimeLimit::end(Limited& limited) {
  const std::scoped_lock lock(mutex_);
  if (limited.previous_ != nullptr) {
    unlink(limited);
  }
}

void TimeLimit::unlink(Limited& limited) {
  limited.next_->previous_ = limited.previous_;
  limited.previous_->next_ = limited.next_;
  limited.previous_ = nullptr;
}

// Null once it is stopped.
TimeLimit::Limited* TimeLimit::nextToEnd(std::unique_lock<std::mutex>& lock) {
  while (!stopping_) {
    Limited& first = *head_.next_;
    const Clock::time_point now = Clock::now();
    if (&first != &head_ && first.end_ <= now) {
      return &first;
    }
    // Whatever begins meanwhile ends later than this, so that nobody has to be woken for it.
    const Clock::time_point until = &first == &head_ ? now + limit_ : first.end_;
    stopped_.wait_until(lock, until);
  }
  return nullptr;
}

void TimeLimit::watch() {
  std::unique_lock lock(mutex_);
  while (Limited* const limited = nextToEnd(lock)) {
    unlink(*limited);
    limited->keepAlive();
    lock.unlock();
    limited->timeIsUp();
    lock.lock();
  }
}

}  // namespace kel::host
