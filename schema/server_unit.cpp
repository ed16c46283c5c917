// The server unit's one runtime record.
#include "schema/server_unit.hpp"

namespace kel {

constinit korva::CodecRuntime serverRuntime;

}  // namespace kel
