// Reads and searches the master's disk rules.
#include "host/disk_rules.hpp"

#include <fmt/core.h>
#include <fnmatch.h>
#include <kel_sys_diag/records.h>

#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "host/field_text.hpp"
#include "host/whole_file.hpp"

namespace kel::host {
namespace {

constexpr uint32_t kWhole = 100;
constexpr size_t kLongestName = sizeof(OvLoadDiskCtlOutput::bytes32a);

// For messages: no text of the file may steer a terminal, or fill it.
std::string excerpt(const std::string& text) {
  constexpr size_t kEnough = 200;
  return shown(startOf(text, kEnough));
}

const nlohmann::json& memberOf(const nlohmann::json& rule, const char* member) {
  const auto found = rule.find(member);
  if (found == rule.end()) {
    throw std::runtime_error(fmt::format("it has no {}", member));
  }
  return *found;
}

std::string textIn(const nlohmann::json& rule, const char* member) {
  const nlohmann::json& value = memberOf(rule, member);
  if (!value.is_string()) {
    throw std::runtime_error(fmt::format("{} is no text", member));
  }
  auto text = value.get<std::string>();
  if (text.find('\0') != std::string::npos) {
    throw std::runtime_error(fmt::format("{} has a NUL within", member));
  }
  return text;
}

uint32_t percentIn(const nlohmann::json& rule, const char* member) {
  const nlohmann::json& value = memberOf(rule, member);
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
    throw std::runtime_error(
        fmt::format("rule \"{}\" has a member that no rule has", excerpt(rule.name)));
  }
  if (rule.name.empty() || rule.name.size() > kLongestName) {
    throw std::runtime_error(fmt::format("the name \"{}\" does not have 1 to {} bytes",
                                         excerpt(rule.name), kLongestName));
  }
  if (rule.warningPercent > rule.criticalPercent) {
    throw std::runtime_error(
        fmt::format("rule \"{}\" needs warningPercent <= criticalPercent", excerpt(rule.name)));
  }
  return rule;
}

bool matches(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

// Of two members of one name, the parser would let the last one win in silence.
nlohmann::json parsed(const std::string& text) {
  using Event = nlohmann::json::parse_event_t;
  std::vector<std::set<std::string>> names;  // of the objects around
  const auto check = [&](int, Event event, const nlohmann::json& value) {
    if (event == Event::object_start) {
      names.emplace_back();
    } else if (event == Event::object_end) {
      names.pop_back();
    } else if (event == Event::key && !names.back().insert(value.get<std::string>()).second) {
      throw std::runtime_error(
          fmt::format("\"{}\" is there twice", excerpt(value.get<std::string>())));
    }
    return true;
  };
  try {
    return nlohmann::json::parse(text, check);
  } catch (const nlohmann::json::exception& error) {
    const std::string said = error.what();  // behind the exception's name
    throw std::runtime_error(excerpt(said.substr(said.find(' ') + 1)));
  }
}

}  // namespace

DiskRules DiskRules::fromFile(const std::string& path) {
  const std::string text = readWholeFile(path);
  try {
    return fromJson(text);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
  }
}

DiskRules DiskRules::fromJson(const std::string& text) {
  const nlohmann::json json = parsed(text);
  if (json.size() != 1 || !json.contains("rules") || !json["rules"].is_array()) {
    throw std::runtime_error("it is no object with \"rules\", a list, and nothing else");
  }
  DiskRules result;
  for (const nlohmann::json& rule : json["rules"]) {
    try {
      result.rules_.push_back(ruleFrom(rule));
    } catch (const std::exception& error) {
      throw std::runtime_error(
          fmt::format("rule no. {}: {}", result.rules_.size() + 1, error.what()));
    }
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
