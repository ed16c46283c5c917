// A few threads that do what they are given, in its order. For rpc_server: gRPC's own threads are
// too few to wait for a disk.
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
  // Throws std::system_error if there are no more threads to be had.
  explicit WorkerPool(size_t threads);
  // Waits until everything is done.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // The job must not throw.
  void give(std::function<void()> job);

 private:
  void work();
  void end();

  std::mutex mutex_;
  std::condition_variable given_;
  std::deque<std::function<void()>> jobs_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kel::host
