// A served service as a loaded library describes it, checked before anything is called.
// For service_framework and its tests.
#pragma once

#include <kel_sys_diag/rpc.h>

#include <string>
#include <vector>

namespace kel::host {

struct ServedMethod {
  std::string name;
  IdlWrapperFn wrapper;
};

// The service's methods in the order of its interface table. Throws std::runtime_error with a
// sentence that names the fault when the module record is not that of the service or contradicts
// itself.
std::vector<ServedMethod> readModule(const IdlModuleSpec& module, const std::string& service);

// Loads a library for the rest of the process's life and finds the module record of a service in
// it. Throws std::runtime_error with a sentence.
const IdlModuleSpec& loadModule(const std::string& libraryPath, const std::string& service);

}  // namespace kel::host
