// Keeps thresholds and notices when one is passed.
#include "host/disk_thresholds.hpp"

#include <utility>

namespace kel::host {

void DiskThresholds::set(const std::string& mountPoint, uint32_t percent) {
  const std::scoped_lock lock(mutex_);
  thresholds_[mountPoint] = {percent, false};
}

bool DiskThresholds::remove(const std::string& mountPoint) {
  const std::scoped_lock lock(mutex_);
  return thresholds_.erase(mountPoint) != 0;
}

DiskThresholds::Verdict DiskThresholds::compare(const std::string& mountPoint,
                                                uint32_t usedPercent) {
  const std::scoped_lock lock(mutex_);
  const auto found = thresholds_.find(mountPoint);
  if (found == thresholds_.end()) {
    return {0, false, ++comparisons_};
  }
  Threshold& threshold = found->second;
  const bool before = std::exchange(threshold.passed, usedPercent >= threshold.percent);
  return {threshold.percent, threshold.passed && !before, ++comparisons_};
}

}  // namespace kel::host
