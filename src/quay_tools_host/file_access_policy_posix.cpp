// The policy normal form on POSIX: '/' is the only separator and case folds in ASCII only.
#include "quay_tools_host/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal::policy_platform {

std::string PlatformForm(std::string_view path_text) {
  // '\' is an ordinary byte of a name here; turning it into a separator would let
  // "/a/b\c" pass for a path below "/a/b".
  return std::string(path_text);
}

void FoldCase(std::string& text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

bool IsSeparator(char c) { return c == '/'; }

size_t RootLength() { return 1; }

bool IsDriveHead(std::string_view) { return false; }

}  // namespace brimo_stack::quay_tools_host::internal::policy_platform
