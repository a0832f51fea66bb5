// The policy normal form on POSIX: '/' is the only separator and case folds in ASCII only.
#include "quay_tools_host/policy/file_access_policy.h"

#include "brimo_stack_common/ascii_text.h"

namespace brimo_stack::quay_tools_host::internal::policy_platform {

std::string PlatformForm(std::string_view path_text) {
  // '\' is an ordinary byte of a name here; turning it into a separator would let
  // "/a/b\c" pass for a path below "/a/b".
  return std::string(path_text);
}

void FoldCase(std::string& text) { text = ToLowerAscii(text); }

bool IsDriveHead(std::string_view) { return false; }

}  // namespace brimo_stack::quay_tools_host::internal::policy_platform
