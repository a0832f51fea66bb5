// ELF core files of a process held under ptrace, written without the heap from a crash helper.
#include "brimo_stack/local_runtime/crash/elf_core_writer.h"

#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/procfs.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::local_runtime {
namespace {

#if defined(__x86_64__)
constexpr uint16_t kElfMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr uint16_t kElfMachine = EM_AARCH64;
#else
#error "crash dumps are written for x86-64 and AArch64 only"
#endif

constexpr size_t kMaxThreads = 8192;
// Rounds of listing /proc/<pid>/task: threads started while we attach show up in the next one.
constexpr int kMaxAttachRounds = 16;
constexpr size_t kMaxSegments = 65000;  // below PN_XNUM, so e_phnum holds the count
constexpr size_t kCopyChunkBytes = 1 << 20;
constexpr char kNoteName[] = "CORE";
constexpr uint32_t kNoteNameSize = sizeof(kNoteName);

// Anonymous memory owned for the helper's lifetime: the helper must not touch the heap.
class ScratchMemory {
 public:
  ScratchMemory() = default;
  ~ScratchMemory() {
    if (data_ != nullptr) {
      ::munmap(data_, size_);
    }
  }
  ScratchMemory(const ScratchMemory&) = delete;
  ScratchMemory& operator=(const ScratchMemory&) = delete;

  // Zero-filled, at least `bytes` long; earlier content is kept.
  bool Reserve(size_t bytes) {
    if (bytes <= size_) {
      return true;
    }
    void* mapping = data_ == nullptr
                        ? ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                        : ::mremap(data_, size_, bytes, MREMAP_MAYMOVE);
    if (mapping == MAP_FAILED) {
      return false;
    }
    data_ = static_cast<char*>(mapping);
    size_ = bytes;
    return true;
  }
  [[nodiscard]] char* data() const { return data_; }
  [[nodiscard]] size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
};

// "/proc/<pid>/<leaf>" without snprintf, which isn't async-signal-safe.
struct ProcPath {
  char text[96] = {};
  ProcPath(int32_t pid, const char* leaf) {
    char digits[16];
    size_t count = 0;
    auto value = static_cast<uint32_t>(pid);
    do {
      digits[count++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    size_t at = 0;
    for (const char* p = "/proc/"; *p != '\0'; ++p) {
      text[at++] = *p;
    }
    while (count > 0) {
      text[at++] = digits[--count];
    }
    text[at++] = '/';
    for (const char* p = leaf; *p != '\0' && at + 1 < sizeof(text); ++p) {
      text[at++] = *p;
    }
  }
};

size_t AlignUp(size_t value, size_t alignment) { return (value + alignment - 1) / alignment * alignment; }

// All of a /proc file; its size is unknown until it has been read.
bool ReadProcFile(int32_t pid, const char* leaf, ScratchMemory& buffer, size_t& length) {
  const ProcPath path(pid, leaf);
  const ScopedFd file(::open(path.text, O_RDONLY | O_CLOEXEC));
  if (!file.valid() || !buffer.Reserve(64 * 1024)) {
    return false;
  }
  length = 0;
  for (;;) {
    if (length == buffer.size() && !buffer.Reserve(buffer.size() * 2)) {
      return false;
    }
    const ssize_t got = RetryOnEintr([&] { return ::read(file.get(), buffer.data() + length, buffer.size() - length); });
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      return true;
    }
    length += static_cast<size_t>(got);
  }
}

bool WriteAllAt(int file, const char* data, size_t size, uint64_t offset) {
  while (size > 0) {
    const ssize_t put = RetryOnEintr([&] { return ::pwrite(file, data, size, static_cast<off_t>(offset)); });
    if (put <= 0) {
      return false;
    }
    data += put;
    size -= static_cast<size_t>(put);
    offset += static_cast<uint64_t>(put);
  }
  return true;
}

struct ThreadState {
  int32_t tid = 0;
  bool stopped = false;
  bool has_registers = false;
  int pending_signal = 0;  // a signal-delivery stop we took; handed back on detach
  elf_prstatus status{};
  elf_fpregset_t fp_registers{};
  bool has_fp_registers = false;
};

class ThreadTable {
 public:
  bool Init() { return memory_.Reserve(sizeof(ThreadState) * kMaxThreads); }
  ~ThreadTable() { DetachAll(); }
  ThreadTable() = default;
  ThreadTable(const ThreadTable&) = delete;
  ThreadTable& operator=(const ThreadTable&) = delete;

  [[nodiscard]] size_t count() const { return count_; }
  [[nodiscard]] ThreadState& at(size_t i) const { return reinterpret_cast<ThreadState*>(memory_.data())[i]; }

  [[nodiscard]] bool Contains(int32_t tid) const {
    for (size_t i = 0; i < count_; ++i) {
      if (at(i).tid == tid) {
        return true;
      }
    }
    return false;
  }

  // Attaches and stops one thread; false when it is gone or can't be held.
  bool Attach(int32_t tid) {
    if (count_ == kMaxThreads) {
      return false;
    }
    if (::ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
      return false;
    }
    ThreadState& state = at(count_);
    state = ThreadState{};
    state.tid = tid;
    ++count_;
    if (::ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0) {
      return false;
    }
    int wait_status = 0;
    const pid_t waited = RetryOnEintr([&] { return ::waitpid(tid, &wait_status, __WALL); });
    if (waited != tid || !WIFSTOPPED(wait_status)) {
      return false;
    }
    state.stopped = true;
    // A stop for a signal on its way rather than for our interrupt: keep the signal for later.
    if ((wait_status >> 16) == 0 && WSTOPSIG(wait_status) != SIGTRAP) {
      state.pending_signal = WSTOPSIG(wait_status);
    }
    return true;
  }

  void MoveToFront(int32_t tid) {
    for (size_t i = 1; i < count_; ++i) {
      if (at(i).tid == tid) {
        ThreadState& first = at(0);
        ThreadState& found = at(i);
        const ThreadState held = found;
        found = first;
        first = held;
        return;
      }
    }
  }

  void DetachAll() {
    for (size_t i = 0; i < count_; ++i) {
      ThreadState& state = at(i);
      if (state.tid != 0) {
        ::ptrace(PTRACE_DETACH, state.tid, nullptr,
                 reinterpret_cast<void*>(static_cast<uintptr_t>(state.pending_signal)));
        state.tid = 0;
      }
    }
    count_ = 0;
  }

 private:
  ScratchMemory memory_;
  size_t count_ = 0;
};

struct LinuxDirent64 {
  uint64_t d_ino;
  int64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[1];
};

int32_t ParseDecimal(const char* text) {
  int32_t value = 0;
  if (*text == '\0') {
    return -1;
  }
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') {
      return -1;
    }
    value = value * 10 + (*text - '0');
  }
  return value;
}

// Lists /proc/<pid>/task until a round finds no thread it hasn't stopped yet.
bool AttachAllThreads(int32_t pid, ThreadTable& threads) {
  alignas(8) char entries[8192];
  for (int round = 0; round < kMaxAttachRounds; ++round) {
    const ProcPath path(pid, "task");
    const ScopedFd directory(::open(path.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) {
      return false;
    }
    bool found_new = false;
    for (;;) {
      const long got = RetryOnEintr([&] { return ::syscall(SYS_getdents64, directory.get(), entries, sizeof(entries)); });
      if (got <= 0) {
        break;
      }
      for (long at = 0; at < got;) {
        const auto* entry = reinterpret_cast<const LinuxDirent64*>(entries + at);
        at += entry->d_reclen;
        const int32_t tid = ParseDecimal(entry->d_name);
        if (tid > 0 && !threads.Contains(tid)) {
          found_new = true;
          threads.Attach(tid);
        }
      }
    }
    if (!found_new) {
      return threads.count() > 0;
    }
  }
  return threads.count() > 0;
}

void ReadThreadRegisters(ThreadState& state) {
  if (!state.stopped) {
    return;
  }
  iovec general{&state.status.pr_reg, sizeof(state.status.pr_reg)};
  state.has_registers = ::ptrace(PTRACE_GETREGSET, state.tid, reinterpret_cast<void*>(NT_PRSTATUS), &general) == 0;
  iovec floating{&state.fp_registers, sizeof(state.fp_registers)};
  state.has_fp_registers =
      ::ptrace(PTRACE_GETREGSET, state.tid, reinterpret_cast<void*>(NT_PRFPREG), &floating) == 0;
  state.status.pr_pid = state.tid;
  state.status.pr_fpvalid = state.has_fp_registers ? 1 : 0;
}

// One line of /proc/<pid>/maps.
struct Mapping {
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t offset = 0;
  uint64_t inode = 0;
  uint32_t device_major = 0;
  uint32_t device_minor = 0;
  bool readable = false;
  bool writable = false;
  bool executable = false;
  bool shared = false;
  const char* path = nullptr;  // inside the maps text, not terminated
  size_t path_length = 0;
  bool dump_contents = false;
  uint64_t file_offset = 0;  // of its bytes in the core
};

uint64_t ParseHex(const char*& p, const char* end) {
  uint64_t value = 0;
  for (; p < end; ++p) {
    const char c = *p;
    uint64_t digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<uint64_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<uint64_t>(c - 'a' + 10);
    } else {
      break;
    }
    value = value * 16 + digit;
  }
  return value;
}

uint64_t ParseDecimalField(const char*& p, const char* end) {
  uint64_t value = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
  }
  return value;
}

void SkipSpaces(const char*& p, const char* end) {
  while (p < end && *p == ' ') {
    ++p;
  }
}

bool ParseMapsLine(const char* p, const char* end, Mapping& out) {
  out = Mapping{};
  out.start = ParseHex(p, end);
  if (p == end || *p != '-') {
    return false;
  }
  ++p;
  out.end = ParseHex(p, end);
  SkipSpaces(p, end);
  if (end - p < 4) {
    return false;
  }
  out.readable = p[0] == 'r';
  out.writable = p[1] == 'w';
  out.executable = p[2] == 'x';
  out.shared = p[3] == 's';
  p += 4;
  SkipSpaces(p, end);
  out.offset = ParseHex(p, end);
  SkipSpaces(p, end);
  out.device_major = static_cast<uint32_t>(ParseHex(p, end));
  if (p < end && *p == ':') {
    ++p;
  }
  out.device_minor = static_cast<uint32_t>(ParseHex(p, end));
  SkipSpaces(p, end);
  out.inode = ParseDecimalField(p, end);
  SkipSpaces(p, end);
  out.path = p;
  out.path_length = static_cast<size_t>(end - p);
  return out.end > out.start;
}

bool PathIs(const Mapping& mapping, const char* name) {
  const size_t length = std::strlen(name);
  return mapping.path_length == length && std::memcmp(mapping.path, name, length) == 0;
}

bool SameFile(const Mapping& a, const Mapping& b) {
  return a.inode == b.inode && a.device_major == b.device_major && a.device_minor == b.device_minor;
}

// Writable memory, stacks and every anonymous mapping carry the state; read-only data of a
// loaded ELF object is kept too, since relocation-protected pages (.dynamic, .got) are what a
// debugger reads to find the shared libraries. Code and other files are read from disk.
void ChooseContents(Mapping* mappings, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    Mapping& m = mappings[i];
    if (!m.readable || PathIs(m, "[vvar]") || PathIs(m, "[vvar_vclock]") || PathIs(m, "[vsyscall]")) {
      continue;
    }
    if (m.inode == 0) {
      m.dump_contents = true;
      continue;
    }
    if (m.shared || m.executable) {
      continue;
    }
    if (m.writable) {
      m.dump_contents = true;
      continue;
    }
    for (size_t j = 0; j < count; ++j) {
      if (mappings[j].executable && SameFile(m, mappings[j])) {
        m.dump_contents = true;
        break;
      }
    }
  }
}

size_t NoteSize(size_t descriptor_size) { return sizeof(Elf64_Nhdr) + AlignUp(kNoteNameSize, 4) + AlignUp(descriptor_size, 4); }

char* PutNote(char* at, uint32_t type, const void* descriptor, size_t descriptor_size) {
  Elf64_Nhdr header{};
  header.n_namesz = kNoteNameSize;
  header.n_descsz = static_cast<Elf64_Word>(descriptor_size);
  header.n_type = type;
  std::memcpy(at, &header, sizeof(header));
  at += sizeof(header);
  std::memcpy(at, kNoteName, kNoteNameSize);
  at += AlignUp(kNoteNameSize, 4);
  if (descriptor_size > 0) {
    std::memcpy(at, descriptor, descriptor_size);
  }
  return at + AlignUp(descriptor_size, 4);
}

// The NT_FILE table: count, page size, (start, end, page offset) per file mapping, then names.
size_t FileNoteSize(const Mapping* mappings, size_t count) {
  size_t size = 2 * sizeof(uint64_t);
  for (size_t i = 0; i < count; ++i) {
    if (mappings[i].inode != 0) {
      size += 3 * sizeof(uint64_t) + mappings[i].path_length + 1;
    }
  }
  return size;
}

void FillFileNote(char* out, const Mapping* mappings, size_t count, uint64_t page_size) {
  uint64_t files = 0;
  for (size_t i = 0; i < count; ++i) {
    files += mappings[i].inode != 0 ? 1 : 0;
  }
  auto* words = reinterpret_cast<uint64_t*>(out);
  words[0] = files;
  words[1] = page_size;
  size_t word = 2;
  for (size_t i = 0; i < count; ++i) {
    if (mappings[i].inode != 0) {
      words[word++] = mappings[i].start;
      words[word++] = mappings[i].end;
      words[word++] = mappings[i].offset / page_size;
    }
  }
  char* names = out + word * sizeof(uint64_t);
  for (size_t i = 0; i < count; ++i) {
    if (mappings[i].inode != 0) {
      std::memcpy(names, mappings[i].path, mappings[i].path_length);
      names += mappings[i].path_length;
      *names++ = '\0';
    }
  }
}

void FillProcessInfo(const ElfCoreDumpRequest& request, elf_prpsinfo& info) {
  info = elf_prpsinfo{};
  info.pr_sname = 'R';
  info.pr_uid = static_cast<__pr_uid_t>(::getuid());
  info.pr_gid = static_cast<__pr_gid_t>(::getgid());
  info.pr_pid = request.process_id;
  info.pr_ppid = request.parent_process_id;
  info.pr_pgrp = ::getpgid(request.process_id);
  info.pr_sid = ::getsid(request.process_id);
  ScratchMemory text;
  size_t length = 0;
  if (ReadProcFile(request.process_id, "comm", text, length)) {
    for (size_t i = 0; i < length && i + 1 < sizeof(info.pr_fname) && text.data()[i] != '\n'; ++i) {
      info.pr_fname[i] = text.data()[i];
    }
  }
  if (ReadProcFile(request.process_id, "cmdline", text, length)) {
    for (size_t i = 0; i < length && i + 1 < sizeof(info.pr_psargs); ++i) {
      info.pr_psargs[i] = text.data()[i] == '\0' ? ' ' : text.data()[i];
    }
  }
}

bool PageIsZero(const char* page, size_t size) {
  const auto* words = reinterpret_cast<const uint64_t*>(page);
  for (size_t i = 0; i < size / sizeof(uint64_t); ++i) {
    if (words[i] != 0) {
      return false;
    }
  }
  return true;
}

// Copies one mapping into the core. Pages that can't be read stay zero, and zero pages become
// holes, so untouched stack reservations cost no disk.
bool WriteMappingContents(const ElfCoreDumpRequest& request, const Mapping& mapping, ScratchMemory& chunk) {
  const uint64_t page = request.page_size;
  for (uint64_t address = mapping.start; address < mapping.end; address += kCopyChunkBytes) {
    const size_t size = static_cast<size_t>(mapping.end - address < kCopyChunkBytes ? mapping.end - address : kCopyChunkBytes);
    iovec local{chunk.data(), size};
    iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(address)), size};
    ssize_t got = ::process_vm_readv(request.process_id, &local, 1, &remote, 1, 0);
    if (got < 0) {
      got = 0;
    }
    // A short read stops at the first page it couldn't read; the rest is retried page by page.
    for (size_t at = static_cast<size_t>(got) / page * page; at < size; at += page) {
      iovec local_page{chunk.data() + at, static_cast<size_t>(page)};
      iovec remote_page{reinterpret_cast<void*>(static_cast<uintptr_t>(address + at)), static_cast<size_t>(page)};
      if (::process_vm_readv(request.process_id, &local_page, 1, &remote_page, 1, 0) != static_cast<ssize_t>(page)) {
        std::memset(chunk.data() + at, 0, page);
      }
    }
    const uint64_t base = mapping.file_offset + (address - mapping.start);
    for (size_t at = 0; at < size; at += page) {
      if (!PageIsZero(chunk.data() + at, page) &&
          !WriteAllAt(request.file, chunk.data() + at, static_cast<size_t>(page), base + at)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool WriteElfCoreDump(const ElfCoreDumpRequest& request) {
  const uint64_t page = request.page_size;
  ThreadTable threads;
  if (!threads.Init() || !AttachAllThreads(request.process_id, threads)) {
    return false;
  }
  threads.MoveToFront(request.crashing_thread_id);
  size_t registered = 0;
  for (size_t i = 0; i < threads.count(); ++i) {
    ThreadState& state = threads.at(i);
    ReadThreadRegisters(state);
    state.status.pr_ppid = request.parent_process_id;
    state.status.pr_pgrp = ::getpgid(request.process_id);
    state.status.pr_sid = ::getsid(request.process_id);
    // Every thread carries the signal, as in the kernel's cores: readers take it from the last.
    state.status.pr_cursig = static_cast<short>(request.signal);
    state.status.pr_info.si_signo = request.signal;
    registered += state.has_registers ? 1 : 0;
  }
  if (registered == 0) {
    return false;
  }

  ScratchMemory maps_text;
  size_t maps_length = 0;
  if (!ReadProcFile(request.process_id, "maps", maps_text, maps_length)) {
    return false;
  }
  size_t lines = 0;
  for (size_t i = 0; i < maps_length; ++i) {
    lines += maps_text.data()[i] == '\n' ? 1 : 0;
  }
  ScratchMemory mapping_memory;
  if (!mapping_memory.Reserve(AlignUp((lines + 1) * sizeof(Mapping), page))) {
    return false;
  }
  auto* mappings = reinterpret_cast<Mapping*>(mapping_memory.data());
  size_t mapping_count = 0;
  for (const char *line = maps_text.data(), *end = line + maps_length; line < end && mapping_count < kMaxSegments;) {
    const char* line_end = line;
    while (line_end < end && *line_end != '\n') {
      ++line_end;
    }
    if (ParseMapsLine(line, line_end, mappings[mapping_count])) {
      ++mapping_count;
    }
    line = line_end + 1;
  }
  ChooseContents(mappings, mapping_count);

  ScratchMemory auxv;
  size_t auxv_length = 0;
  if (!ReadProcFile(request.process_id, "auxv", auxv, auxv_length)) {
    auxv_length = 0;
  }
  elf_prpsinfo process_info;
  FillProcessInfo(request, process_info);
  siginfo_t signal_info{};
  if (request.signal_info != nullptr) {
    std::memcpy(&signal_info, request.signal_info, sizeof(signal_info));
  } else {
    signal_info.si_signo = request.signal;
  }
  const size_t file_note_size = FileNoteSize(mappings, mapping_count);

  // Kernel order: the first thread's status, the process notes, its other registers; then
  // each further thread. Debuggers give every register note to the status note before it.
  size_t notes_size = NoteSize(sizeof(process_info)) + NoteSize(sizeof(signal_info)) + NoteSize(auxv_length) +
                      NoteSize(file_note_size);
  for (size_t i = 0; i < threads.count(); ++i) {
    const ThreadState& state = threads.at(i);
    if (state.has_registers) {
      notes_size += NoteSize(sizeof(state.status));
      notes_size += state.has_fp_registers ? NoteSize(sizeof(state.fp_registers)) : 0;
    }
  }
  const size_t segment_count = mapping_count;
  const size_t headers_size = sizeof(Elf64_Ehdr) + (segment_count + 1) * sizeof(Elf64_Phdr);
  ScratchMemory head;
  if (!head.Reserve(AlignUp(headers_size + notes_size + file_note_size, page))) {
    return false;
  }
  char* const notes_begin = head.data() + headers_size;
  char* scratch_file_note = notes_begin + notes_size;
  FillFileNote(scratch_file_note, mappings, mapping_count, page);
  char* at = notes_begin;
  bool process_notes_written = false;
  for (size_t i = 0; i < threads.count(); ++i) {
    const ThreadState& state = threads.at(i);
    if (!state.has_registers) {
      continue;
    }
    at = PutNote(at, NT_PRSTATUS, &state.status, sizeof(state.status));
    if (!process_notes_written) {
      at = PutNote(at, NT_PRPSINFO, &process_info, sizeof(process_info));
      at = PutNote(at, NT_SIGINFO, &signal_info, sizeof(signal_info));
      at = PutNote(at, NT_AUXV, auxv.data(), auxv_length);
      at = PutNote(at, NT_FILE, scratch_file_note, file_note_size);
      process_notes_written = true;
    }
    if (state.has_fp_registers) {
      at = PutNote(at, NT_PRFPREG, &state.fp_registers, sizeof(state.fp_registers));
    }
  }

  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_ident[EI_OSABI] = ELFOSABI_NONE;
  header.e_type = ET_CORE;
  header.e_machine = kElfMachine;
  header.e_version = EV_CURRENT;
  header.e_phoff = sizeof(Elf64_Ehdr);
  header.e_ehsize = sizeof(Elf64_Ehdr);
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = static_cast<Elf64_Half>(segment_count + 1);
  std::memcpy(head.data(), &header, sizeof(header));

  auto* program_headers = reinterpret_cast<Elf64_Phdr*>(head.data() + sizeof(Elf64_Ehdr));
  Elf64_Phdr& note_header = program_headers[0];
  note_header = Elf64_Phdr{};
  note_header.p_type = PT_NOTE;
  note_header.p_offset = headers_size;
  note_header.p_filesz = static_cast<Elf64_Xword>(at - notes_begin);
  note_header.p_align = 4;

  uint64_t offset = AlignUp(headers_size + static_cast<size_t>(at - notes_begin), page);
  for (size_t i = 0; i < mapping_count; ++i) {
    Mapping& m = mappings[i];
    Elf64_Phdr& load = program_headers[i + 1];
    load = Elf64_Phdr{};
    load.p_type = PT_LOAD;
    load.p_flags = (m.readable ? PF_R : 0) | (m.writable ? PF_W : 0) | (m.executable ? PF_X : 0);
    load.p_vaddr = m.start;
    load.p_memsz = m.end - m.start;
    load.p_align = page;
    load.p_offset = offset;
    if (m.dump_contents) {
      m.file_offset = offset;
      load.p_filesz = m.end - m.start;
      offset += load.p_filesz;
    }
  }
  if (!WriteAllAt(request.file, head.data(), headers_size + static_cast<size_t>(at - notes_begin), 0)) {
    return false;
  }

  ScratchMemory chunk;
  if (!chunk.Reserve(kCopyChunkBytes)) {
    return false;
  }
  for (size_t i = 0; i < mapping_count; ++i) {
    if (mappings[i].dump_contents && !WriteMappingContents(request, mappings[i], chunk)) {
      return false;
    }
  }
  // Holes at the end must still count towards the file's length.
  if (RetryOnEintr([&] { return ::ftruncate(request.file, static_cast<off_t>(offset)); }) != 0) {
    return false;
  }
  threads.DetachAll();
  return true;
}

}  // namespace brimo_stack::local_runtime
