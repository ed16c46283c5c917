// Reads and searches the master's disk rules.
#include "host/disk_rules.hpp"

#include <fmt/core.h>
#include <fnmatch.h>
#include <kel_sys_diag/records.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kel::host {
namespace {

constexpr uint32_t kWhole = 100;
constexpr size_t kLongestName = sizeof(OvLoadDiskCtlOutput::bytes32a);

std::string textIn(const nlohmann::json& rule, const char* member) {
  const nlohmann::json& value = rule.at(member);
  if (!value.is_string()) {
    throw std::runtime_error(fmt::format("{} is no text", member));
  }
  return value.get<std::string>();
}

uint32_t percentIn(const nlohmann::json& rule, const char* member) {
  const nlohmann::json& value = rule.at(member);
  if (!value.is_number_unsigned() || value.get<uint64_t>() > kWhole) {
    throw std::runtime_error(fmt::format("{} is no whole number from 0 to {}", member, kWhole));
  }
  return value.get<uint32_t>();
}

DiskRule ruleFrom(const nlohmann::json& json) {
  if (!json.is_object()) {
    throw std::runtime_error("it is no object");
  }
  DiskRule rule{textIn(json, "name"), textIn(json, "mountPoint"), textIn(json, "device"),
                percentIn(json, "warningPercent"), percentIn(json, "criticalPercent")};
  constexpr size_t kMembers = 5;
  if (json.size() != kMembers) {
    throw std::runtime_error(fmt::format("rule \"{}\" has a member that no rule has", rule.name));
  }
  if (rule.name.empty() || rule.name.size() > kLongestName) {
    throw std::runtime_error(
        fmt::format("the name \"{}\" does not have 1 to {} bytes", rule.name, kLongestName));
  }
  if (rule.warningPercent > rule.criticalPercent) {
    throw std::runtime_error(
        fmt::format("rule \"{}\" needs warningPercent <= criticalPercent", rule.name));
  }
  return rule;
}

bool matches(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

}  // namespace

DiskRules DiskRules::fromFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  try {
    return fromJson({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
  }
}

DiskRules DiskRules::fromJson(const std::string& text) {
  DiskRules result;
  try {
    const nlohmann::json json = nlohmann::json::parse(text);
    if (json.size() != 1 || !json.contains("rules") || !json["rules"].is_array()) {
      throw std::runtime_error("it is no object with \"rules\", a list, and nothing else");
    }
    for (const nlohmann::json& rule : json["rules"]) {
      try {
        result.rules_.push_back(ruleFrom(rule));
      } catch (const std::exception& error) {
        throw std::runtime_error(
            fmt::format("rule no. {}: {}", result.rules_.size() + 1, error.what()));
      }
    }
  } catch (const nlohmann::json::exception& error) {
    throw std::runtime_error(error.what());
  }
  return result;
}

const DiskRule* DiskRules::find(const std::string& mountPoint, const std::string& device) const {
  for (const DiskRule& rule : rules_) {
    if (matches(rule.mountPoint, mountPoint) && matches(rule.device, device)) {
      return &rule;
    }
  }
  return nullptr;
}

}  // namespace kel::host
