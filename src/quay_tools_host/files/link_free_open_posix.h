// Opens that follow no symbolic link anywhere on the way: the only road from a path the policy
// decided on to a descriptor.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::quay_tools_host::internal {

// `relative` below `anchor_fd` (or an absolute path) opened with `flags`, no link followed
// on any component: openat2 with RESOLVE_NO_SYMLINKS (plus `resolve`), or one component at a
// time with O_NOFOLLOW where the kernel lacks it. -1 with errno on failure; ELOOP for a link.
[[nodiscard]] int OpenWithoutLinks(int anchor_fd, const std::filesystem::path& relative, int flags,
                                   uint64_t resolve = 0);

// The fallback of OpenWithoutLinks, by hand, for kernels without openat2; a ".." component is
// EXDEV. Open to tests, which hold it to the same answers as openat2.
[[nodiscard]] int OpenWithoutLinksByComponents(int anchor_fd, const std::filesystem::path& relative, int flags);

// Opens the file at `real`, the real path a policy decided on, and proves the descriptor: no
// link on the way and the system names the open file `real`. A link or a rename slipped in
// since the decision is "file changed while it was being read"; other failures are `stage`'s.
[[nodiscard]] CommandResult OpenDecidedFile(const std::filesystem::path& real, int flags, std::string_view stage,
                                            ScopedFd& fd);

}  // namespace brimo_stack::quay_tools_host::internal
