// The overload thresholds that were set while the host runs, by mount point. For diagnostics;
// thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace kel::host {

class DiskThresholds {
 public:
  static constexpr uint32_t kHighest = 100;

  void set(const std::string& mountPoint, uint32_t percent);

  // Says whether there was one.
  bool remove(const std::string& mountPoint);

  struct Verdict {
    uint32_t threshold;  // per cent; 0: none is set
    bool newlyPassed;    // reached, and below it when last compared, or never compared before
    uint64_t number;     // of the comparison: a later one has a higher number
  };

  // Compares what is used with the threshold.
  Verdict compare(const std::string& mountPoint, uint32_t usedPercent);

 private:
  struct Threshold {
    uint32_t percent;
    bool passed;
  };

  std::mutex mutex_;
  uint64_t comparisons_ = 0;
  std::map<std::string, Threshold> thresholds_;
};

}  // namespace kel::host
