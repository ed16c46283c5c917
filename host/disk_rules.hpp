// Which overload thresholds hold for which disk: the master's small configuration.
// For master_service and kel_master.
//
// The file is JSON: {"rules": [{"name": "root", "mountPoint": "/", "device": "*",
// "warningPercent": 80, "criticalPercent": 90}, ...]}. mountPoint and device are shell patterns
// whose * also matches a /; the first rule that matches both applies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kel::host {

struct DiskRule {
  std::string name;
  std::string mountPoint;
  std::string device;
  uint32_t warningPercent;
  uint32_t criticalPercent;
};

class DiskRules {
 public:
  // Both throw std::runtime_error with a sentence that names the fault.
  static DiskRules fromFile(const std::string& path);
  static DiskRules fromJson(const std::string& text);

  // The first rule that matches, or null.
  [[nodiscard]] const DiskRule* find(const std::string& mountPoint,
                                     const std::string& device) const;

 private:
  std::vector<DiskRule> rules_;
};

}  // namespace kel::host
