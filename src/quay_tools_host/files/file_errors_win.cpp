// Denied and missing as Win32 error numbers; 13 and 1 also count as denied, as the C runtime
// reports them.
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

bool IsDeniedSystemNumber(int32_t code) { return code == 5 || code == 1314 || code == 13 || code == 1; }

bool IsMissingSystemNumber(int32_t code) { return code == 2 || code == 3 || code == 20; }

}  // namespace brimo_stack::quay_tools_host::internal
