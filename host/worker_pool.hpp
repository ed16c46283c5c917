// Threads for handlers that may be slow. For RpcServer.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kel::host {

class WorkerPool {
 public:
  WorkerPool() {
    for (int i = 0; i < kThreads; ++i) {
      threads_.emplace_back([this] { run(); });
    }
  }
  // Does what has been posted before.
  ~WorkerPool() {
    {
      const std::scoped_lock lock(mutex_);
      stopping_ = true;
    }
    arrived_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void post(std::function<void()> task) {
    {
      const std::scoped_lock lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    arrived_.notify_one();
  }

 private:
  // Handlers wait for disks rather than for processors.
  static constexpr int kThreads = 8;

  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      arrived_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (tasks_.empty()) {
        return;
      }
      const std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kel::host
