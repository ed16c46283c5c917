// Hands jobs to threads.
#include "host/worker_pool.hpp"

#include <utility>

namespace kel::host {

WorkerPool::WorkerPool(size_t threads) {
  try {
    for (size_t i = 0; i < threads; ++i) {
      threads_.emplace_back([this] { work(); });
    }
  } catch (...) {
    end();
    throw;
  }
}

WorkerPool::~WorkerPool() { end(); }

void WorkerPool::end() {
  {
    const std::scoped_lock lock(mutex_);
    ending_ = true;
  }
  given_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void WorkerPool::give(std::function<void()> job) {
  // Notified with the lock held: as soon as the job is done the pool may be destroyed, but for this
  // lock, which its destructor waits for.
  const std::scoped_lock lock(mutex_);
  jobs_.push_back(std::move(job));
  given_.notify_one();
}

void WorkerPool::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    given_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    if (jobs_.empty()) {
      return;
    }
    const std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace kel::host
