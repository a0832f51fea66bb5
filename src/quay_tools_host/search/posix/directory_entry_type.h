// The entry type of a file mode, shared by the listings and chains of the POSIX build.
#pragma once

#include <sys/stat.h>

#include "quay_tools_host/search/directory_listing.h"

namespace brimo_stack::quay_tools_host::internal {

inline DirectoryEntryType DirectoryEntryTypeOfMode(mode_t mode) {
  if (S_ISREG(mode)) return DirectoryEntryType::kRegular;
  if (S_ISDIR(mode)) return DirectoryEntryType::kDirectory;
  if (S_ISLNK(mode)) return DirectoryEntryType::kSymlink;
  return DirectoryEntryType::kOther;
}

}  // namespace brimo_stack::quay_tools_host::internal
