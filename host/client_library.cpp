// Loads the library and finds its client functions by name.
#include "host/client_library.hpp"

#include <dlfcn.h>
#include <fmt/core.h>

#include <stdexcept>
#include <string>

#include "host/rpc_framework.hpp"

namespace kel::host {
namespace {

template <class Pointer>
void find(void* library, const std::string& name, Pointer& result) {
  void* const symbol = dlsym(library, name.c_str());
  if (symbol == nullptr) {
    throw std::runtime_error(fmt::format("the library has no {}", name));
  }
  result = reinterpret_cast<Pointer>(symbol);
}

template <class Method>
void findMethod(void* library, const char* name, Method& method) {
  const std::string symbol = fmt::format("KelSysdiagMaster_{}", name);
  method.name = name;
  find(library, symbol + "SetIdl", method.setIdl);
  find(library, symbol, method.call);
  find(library, symbol + "_async", method.callAsync);
}

ClientLibrary load(const std::string& path) {
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    throw std::runtime_error(fmt::format("cannot load the library: {}", dlerror()));
  }
  ClientLibrary library{};
  find(handle, "g_stServerAddr_KelSysdiagMaster", library.address);
  findMethod(handle, "KelSendAlarm", library.sendAlarm);
  findMethod(handle, "KelSendOverloadAlarm", library.sendOverloadAlarm);
  findMethod(handle, "KelSendMobileDiskOverloadAlarm", library.sendDiskOverloadAlarm);
  findMethod(handle, "KelGetDiskOvLoadCfgInfo", library.getDiskThresholds);
  return library;
}

}  // namespace

ClientLibrary prepareCalls(const HostOptions& options) {
  const ClientLibrary library = load(options.library);
  setTarget(*library.address, options.master);
  configureCalls(options.calls);
  checkTarget(options.master);
  setCompactAlways(options.compact);
  return library;
}

}  // namespace kel::host
