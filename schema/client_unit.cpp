// The client unit's one runtime record.
#include "schema/client_unit.hpp"

namespace kel {

constinit korva::CodecRuntime clientRuntime;

}  // namespace kel
