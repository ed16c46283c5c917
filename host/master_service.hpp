// The service KelSysdiagMaster: decodes requests, keeps alarms, answers. Knows no transport.
// For kel_master and tests; thread-safe.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "host/disk_rules.hpp"
#include "host/rpc_server.hpp"

namespace kel::host {

struct KeptAlarm {
  uint64_t sequence;  // counts from 1
  std::string method;
  std::string words;  // what was understood
};

class MasterService {
 public:
  // The newest alarms are kept, this many, each with kLongestWords bytes at most: a caller could
  // fill the memory otherwise, and the reply to a long text would be too long to be sent.
  static constexpr size_t kKeptAlarms = 1000;

  // Sees every alarm in its order, one at a time.
  using Observer = std::function<void(const KeptAlarm&)>;

  MasterService(DiskRules rules, Observer observer);

  // A RequestHandler.
  Answer handle(const std::string& path, std::span<const uint8_t> request);

  [[nodiscard]] std::vector<KeptAlarm> keptAlarms() const;

 private:
  template <class Request, class Unpack, class Release>
  Answer takeAlarm(const std::string& method, std::span<const uint8_t> bytes, Unpack unpack,
                   Release release);
  Answer answerThresholds(std::span<const uint8_t> bytes);
  std::string keep(const std::string& method, const std::string& words);

  const DiskRules rules_;
  const Observer observer_;
  mutable std::mutex mutex_;
  uint64_t sequence_ = 0;
  std::deque<KeptAlarm> alarms_;
};

}  // namespace kel::host
