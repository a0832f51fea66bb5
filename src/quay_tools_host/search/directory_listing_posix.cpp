// Directory listings on a descriptor: getdents64 into the listing's own buffer, children
// opened with openat from the parent's descriptor and O_NOFOLLOW.
#include "quay_tools_host/search/directory_listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/files/link_free_open_posix.h"
#include "quay_tools_host/search/posix/directory_entry_type.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// A thousand typical entries per read, as many as a readdir buffer: a read costs about as much
// as the entries it brings, so a quarter of this doubled a walk's time. Pages that a small
// directory never fills are never touched, so a deep chain costs little more than a page a level.
constexpr size_t kListingBufferBytes = 32768;

std::error_code ErrorOf(int number) { return {number, std::generic_category()}; }

DirectoryEntryType TypeOfDirent(unsigned char type) {
  switch (type) {
    case DT_REG:
      return DirectoryEntryType::kRegular;
    case DT_DIR:
      return DirectoryEntryType::kDirectory;
    case DT_LNK:
      return DirectoryEntryType::kSymlink;
    case DT_UNKNOWN:
      return DirectoryEntryType::kUnknown;
    default:
      return DirectoryEntryType::kOther;
  }
}

bool IsDenied(int number) { return number == EACCES || number == EPERM; }

}  // namespace

struct DirectoryListing::State {
  ScopedFd fd;
  size_t used = 0;      // bytes of records in the buffer
  size_t position = 0;  // the next record
  const char* current_name = nullptr;
  alignas(dirent64) char buffer[kListingBufferBytes];

  // Takes the result of an open; a denied directory becomes an empty listing.
  std::error_code Adopt(int fd_or_error, int error) {
    used = 0;
    position = 0;
    current_name = nullptr;
    if (fd_or_error >= 0) {
      fd.Reset(fd_or_error);
      return {};
    }
    fd.Reset();
    return IsDenied(error) ? std::error_code() : ErrorOf(error);
  }
};

DirectoryListing::DirectoryListing() = default;
DirectoryListing::~DirectoryListing() = default;
DirectoryListing::DirectoryListing(DirectoryListing&& other) noexcept = default;
DirectoryListing& DirectoryListing::operator=(DirectoryListing&& other) noexcept = default;

std::error_code DirectoryListing::OpenRoot(const std::filesystem::path& directory) {
  if (!state_) state_.reset(new State);  // the buffer needs no zeroing
  const int fd = OpenWithoutLinks(AT_FDCWD, directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return state_->Adopt(fd, errno);
}

std::error_code DirectoryListing::OpenEntry(const DirectoryListing& parent) {
  if (!state_) state_.reset(new State);
  const State& from = *parent.state_;
  const int fd = RetryOnEintr(
      [&] { return ::openat(from.fd.get(), from.current_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  // A link in the entry's place is ELOOP or ENOTDIR depending on the kernel's order of checks;
  // both mean the directory that was listed is gone from there.
  return state_->Adopt(fd, fd < 0 && errno == ELOOP ? ENOTDIR : errno);
}

std::error_code DirectoryListing::Next(DirectoryEntry& entry) {
  entry = DirectoryEntry{};
  State* state = state_.get();
  if (state == nullptr || !state->fd.valid()) return {};
  for (;;) {
    if (state->position >= state->used) {
      const ssize_t got =
          RetryOnEintr([&] { return ::getdents64(state->fd.get(), state->buffer, sizeof(state->buffer)); });
      if (got < 0) return ErrorOf(errno);
      state->used = static_cast<size_t>(got);
      state->position = 0;
      if (got == 0) {
        // Closed at its end, so a finished frame holds no descriptor while its children's do.
        state->fd.Reset();
        return {};
      }
    }
    const auto* record = reinterpret_cast<const dirent64*>(state->buffer + state->position);
    state->position += record->d_reclen;
    const char* name = record->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    state->current_name = name;
    entry.name = std::string_view(name, std::strlen(name));
    entry.type = TypeOfDirent(record->d_type);
    return {};
  }
}

std::error_code DirectoryListing::StatEntry(DirectoryEntryType& type) const {
  struct stat info {};
  if (::fstatat(state_->fd.get(), state_->current_name, &info, AT_SYMLINK_NOFOLLOW) != 0) return ErrorOf(errno);
  type = DirectoryEntryTypeOfMode(info.st_mode);
  return {};
}

void DirectoryListing::Close() {
  if (state_) (void)state_->Adopt(-1, 0);
}

}  // namespace brimo_stack::quay_tools_host::internal
