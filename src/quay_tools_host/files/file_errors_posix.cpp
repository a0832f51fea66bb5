// Denied and missing as errno numbers.
#include <cerrno>

#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

bool IsDeniedSystemNumber(int32_t code) { return code == EACCES || code == EPERM; }

bool IsMissingSystemNumber(int32_t code) { return code == ENOENT || code == ENOTDIR; }

}  // namespace brimo_stack::quay_tools_host::internal
