// Where a program named without a directory lives, found before the fork: the search of the
// exec family allocates, which a child of a threaded host must not do.
#pragma once

#include <string>
#include <string_view>

namespace brimo_stack::process_runtime {

// A name with a '/' stays as it is. Otherwise the first directory of `search_path` (colon
// separated, an empty entry meaning the current directory) that holds an executable regular
// file of that name gives its path; with none, the name stays and the exec will fail on it.
[[nodiscard]] std::string ResolveExecutablePath(std::string_view executable, std::string_view search_path);

}  // namespace brimo_stack::process_runtime
