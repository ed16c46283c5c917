// Finds and checks a library's service tables.
#include "host/module_table.hpp"

#include <dlfcn.h>
#include <fmt/core.h>

#include <algorithm>
#include <set>
#include <span>
#include <stdexcept>

#include "host/field_text.hpp"

namespace kel::host {
namespace {

constexpr uint32_t kSentinelMarker = 0xFFFFFFFF;
constexpr uint32_t kMostMethods = 1024;  // more is no service but a wild pointer

[[noreturn]] void refuse(const std::string& fault) {
  throw std::runtime_error(fmt::format("the service tables are unusable: {}", fault));
}

void require(bool holds, const std::string& fault) {
  if (!holds) {
    refuse(fault);
  }
}

// A NUL-padded field's text, which needs an end and nothing behind it.
std::string nameIn(std::span<const char> field, const std::string& whose) {
  const auto end = std::ranges::find(field, '\0');
  require(end != field.end(), fmt::format("the name of {} has no end", whose));
  require(end != field.begin(), fmt::format("{} has no name", whose));
  require(std::all_of(end, field.end(), [](char byte) { return byte == '\0'; }),
          fmt::format("the name of {} is not padded with zeros", whose));
  return {field.begin(), end};
}

void checkSentinels(const IdlModuleSpec& module) {
  const IdlIntfEntry& method = module.intfTable[0];
  require(method.marker == kSentinelMarker && method.wrapper == nullptr && method.inputMsgId == 0 &&
              method.methodName[0] == '\0',
          "entry 0 of the interface table stands for a method");
  require(module.msgDescTable[0].msgId == 0,
          "entry 0 of the message descriptor table stands for a message");
}

ServedMethod readMethod(const IdlModuleSpec& module, uint32_t index) {
  const IdlIntfEntry& entry = module.intfTable[index];
  std::string name = nameIn(entry.methodName, fmt::format("method {}", index));
  require(entry.marker == 0, fmt::format("{} is marked as no method", shown(name)));
  require(entry.wrapper != nullptr, fmt::format("{} has no wrapper", shown(name)));
  require(entry.inputMsgId == module.msgDescTable[2 * index - 1].msgId,
          fmt::format("{} takes a message that its descriptor does not name", shown(name)));
  return {std::move(name), entry.wrapper};
}

void checkMessages(const IdlModuleSpec& module) {
  std::set<uint32_t> seen;
  for (uint32_t i = 1; i < module.msgDescCount; ++i) {
    const uint32_t id = module.msgDescTable[i].msgId;
    require(id != 0 && seen.insert(id).second, fmt::format("message {} has no id of its own", i));
  }
}

}  // namespace

std::vector<ServedMethod> readModule(const IdlModuleSpec& module, const std::string& service) {
  const std::string name = nameIn(module.name, "the service");
  require(name == service, fmt::format("they are those of {}", shown(name)));
  require(module.intfTable != nullptr && module.msgDescTable != nullptr, "a table is missing");
  require(module.intfCount > 1 && module.intfCount <= kMostMethods,
          fmt::format("{} interface entries", module.intfCount));
  require(module.msgDescCount == 2 * module.intfCount - 1,
          fmt::format("{} message descriptors for {} interface entries", module.msgDescCount,
                      module.intfCount));
  checkSentinels(module);
  checkMessages(module);
  std::vector<ServedMethod> methods;
  for (uint32_t i = 1; i < module.intfCount; ++i) {
    methods.push_back(readMethod(module, i));
    const std::string& added = methods.back().name;
    require(std::ranges::count(methods, added, &ServedMethod::name) == 1,
            fmt::format("{} occurs twice", shown(added)));
  }
  return methods;
}

const IdlModuleSpec& loadModule(const std::string& libraryPath, const std::string& service) {
  void* const library = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    throw std::runtime_error(fmt::format("cannot load the library: {}", dlerror()));
  }
  const std::string symbol = "__module_spec_" + service;
  void* const module = dlsym(library, symbol.c_str());
  if (module == nullptr) {
    throw std::runtime_error(fmt::format("the library has no {}", symbol));
  }
  return *static_cast<const IdlModuleSpec*>(module);
}

}  // namespace kel::host
