// What the served methods do, without the records: the use of file systems, thresholds, disk
// images. The rest they read from the machine by themselves. For qarne_methods and kel_host;
// thread-safe.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "host/disk_images.hpp"
#include "host/disk_thresholds.hpp"
#include "host/mount_table.hpp"
#include "host/result_code.hpp"

namespace kel::host {

// A file system whose use has reached its threshold.
struct Overload {
  Mount mount;
  FileSystemUse use;
  uint32_t threshold;  // per cent
  uint64_t number;     // a later one has a higher number, whichever thread tells of it first
};

class Diagnostics {
 public:
  // Called once whenever a reported use has newly reached its threshold, on the thread that serves
  // the report, which it should not keep for long.
  using OverloadObserver = std::function<void(const Overload&)>;

  struct Settings {
    std::filesystem::path root = "/";        // of the machine to be examined
    std::filesystem::path imageFolder = {};  // empty: format and mount nothing
    OverloadObserver onOverload = {};        // may be empty
  };

  // Throws std::runtime_error with a sentence when the image folder cannot be opened.
  explicit Diagnostics(Settings settings);

  [[nodiscard]] const std::filesystem::path& root() const { return settings_.root; }

  // Only for what is mounted, except that a threshold can always be removed, by 0.
  ResultCode setThreshold(const std::string& mountPoint, uint32_t percent);

  struct UseReport {
    ResultCode code = ResultCode::failed;
    Mount mount;
    FileSystemUse use{};
    uint32_t threshold = 0;  // per cent; 0: none
  };
  UseReport reportUse(const std::string& mountPoint);

  ResultCode formatImage(const std::string& name);
  ResultCode mountImage(const std::string& name);

 private:
  const Settings settings_;
  DiskThresholds thresholds_;
  std::unique_ptr<DiskImages> images_;  // null: there are none
};

}  // namespace kel::host
