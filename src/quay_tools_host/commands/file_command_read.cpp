// file_read: numbered lines of a UTF-8 text file, from one state of the file, sized for a frame.
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include "quay_tools_host/commands/existing_file_entry.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/file_read_lines.h"
#include "quay_tools_host/files/file_read_primitives.h"
#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host {
namespace {

constexpr int64_t kDefaultReadLimit = 2000;

CommandResult EmptyContent() { return MakeJsonOutputResult({{"content", ""}}); }

}  // namespace

CommandResult FileCommandService::Read(const FileReadRequest& request) {
  using namespace internal;
  std::filesystem::path real;
  CommandResult step = ResolveExistingFileUnderPolicy(request.base_cwd, request.path, request.policy,
                                                      /*for_write=*/false, FileMutationErrorKind::kNone, real);
  if (!step.ok) return step;

  const uint64_t offset = request.offset.value_or(0);
  const int64_t limit = request.limit.value_or(kDefaultReadLimit);
  if (limit < 0) return CommandResult::Failure(kCategoryRefused, 1, "limit must be a non-negative integer");
  if (limit == 0 || offset == std::numeric_limits<uint64_t>::max()) return EmptyContent();

  FileSnapshot before;
  step = TakeFileSnapshot(real, before);
  if (!step.ok) return step;
  if (before.size == 0) return EmptyContent();
  WaitUntilChangeTimeIsPast(before);

  CachedReadFile file;
  step = OpenCachedReadHandle(real, file);
  if (!step.ok) return step;
  file.size = before.size;
  step = CheckOpenedFileIsTheSnapshot(file, before);
  if (!step.ok) return step;
  LineScanState scan;
  step = FileLineScan(file, offset + 1, scan);
  if (!step.ok) return step;
  if (!scan.found) return EmptyContent();

  std::string content;
  bool truncated = false;
  step = ReadLinesFrom(file, scan.position, before.size, static_cast<uint64_t>(limit), content, truncated);
  if (!step.ok) return step;
  if (truncated) return CommandResult::Failure(kCategoryRefused, 0, "file read exceeds the IPC response limit");
  file.Close();

  FileSnapshot after;
  step = TakeFileSnapshot(real, after);
  if (!step.ok) return step;
  if (after != before) return FileChangedFailure();
  return MakeJsonOutputResult({{"content", std::move(content)}});
}

}  // namespace brimo_stack::quay_tools_host
