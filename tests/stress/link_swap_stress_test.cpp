// Another process trades root/d with a link to ../outside in a loop while every command that
// reads or writes asks the built host for files below root/d, under a policy that allows
// root alone. Nothing outside may be read, changed or created, and no outside bytes may land in
// root. Prints a table of the figures (markdown, for docs/security.md).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "brimo_stack_common/posix/scoped_fd.h"
#include "support/host_process.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Half as many in the sanitizer build, whose host is about four times slower: 1,000 requests
// still take the race's rare refusal paths, where a memory fault would hide, hundreds of times.
constexpr int kRequestsPerCommand = QUAY_SANITIZER_BUILD ? 1000 : 2000;
constexpr std::string_view kSecret = "OUTSIDE-SECRET";

// Exchanges two names with renameat2(RENAME_EXCHANGE) in a child process, so the race goes on
// whatever the test and the host do, until Stop.
class Swapper {
 public:
  Swapper(const fs::path& a, const fs::path& b) {
    void* memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    shared_ = new (memory) Shared{};
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      // A busy pause of 0 to 10 µs after each swap lets more of the host's system calls through
      // in each state than back-to-back swaps do (about twice the escapes of a faulty command);
      // one swap in 64 rests 300 µs, so that whole requests also succeed (without the rests some
      // commands succeeded once in 2,000 requests).
      unsigned random = 1;
      while (!shared_->stop.load(std::memory_order_relaxed)) {
        if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) != 0) ::_exit(1);
        shared_->swaps.fetch_add(1, std::memory_order_relaxed);
        random = random * 1103515245u + 12345u;
        const auto pause = std::chrono::nanoseconds((random >> 8) % 64 == 0 ? 300'000 : (random >> 16) % 10'000);
        const auto until = std::chrono::steady_clock::now() + pause;
        while (std::chrono::steady_clock::now() < until) {
        }
      }
      ::_exit(0);
    }
  }
  ~Swapper() {
    (void)Stop();
    ::munmap(shared_, sizeof(Shared));
  }
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;

  // Ends the child; the number of swaps it made, or -1 when one failed.
  long Stop() {
    shared_->stop.store(true);
    int status = 0;
    if (pid_ > 0 && ::waitpid(std::exchange(pid_, -1), &status, 0) > 0) {
      exit_ok_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return exit_ok_ ? shared_->swaps.load() : -1;
  }

 private:
  struct Shared {
    std::atomic<bool> stop{false};
    std::atomic<long> swaps{0};
  };
  Shared* shared_ = nullptr;
  pid_t pid_ = -1;
  bool exit_ok_ = false;
};

// What a change shows in lstat: a rename over the file gives a new inode, an append a new size,
// a write in place a new change time.
using EntryState = std::tuple<ino_t, off_t, long long>;
std::map<std::string, EntryState> Snapshot(const fs::path& top) {
  std::map<std::string, EntryState> entries;
  for (const auto& entry : fs::recursive_directory_iterator(top)) {
    struct stat info {};
    if (::lstat(entry.path().c_str(), &info) == 0) {
      const long long changed = info.st_ctim.tv_sec * 1'000'000'000LL + info.st_ctim.tv_nsec;
      entries[entry.path().native()] = {info.st_ino, info.st_size, changed};
    }
  }
  return entries;
}

// The stable word an answer starts with: "ok", or the message before its first ": ".
std::string Head(const json& answer) {
  if (answer.value("ok", false)) return "ok";
  const std::string message = answer["error"].value("message", "");
  return message.substr(0, message.find(": "));
}

struct Command {
  std::string name;
  std::string method;
  std::function<json(int)> params;  // of the i-th request
  std::string watched = {};          // a file below root that outside bytes must never reach; empty: none
  std::string watched_content = {};  // what it holds at the start
};

struct Tally {
  int ok = 0, refused = 0, leaked = 0, copied_in = 0, changed_outside = 0, created_outside = 0;
  std::map<std::string, int> heads;
  std::vector<std::string> examples;  // the first escapes, described
  void Escape(int& counter, const std::string& what) {
    ++counter;
    if (examples.size() < 3) examples.push_back(what);
  }
};

// The denied tree: what it held, so that an escape is noticed and undone.
class Outside {
 public:
  Outside(const fs::path& top, const quay_test::TempDir& temp) : top_(top), temp_(temp), before_(Snapshot(top)) {
    for (const auto& [path, state] : before_) secrets_[path] = quay_test::ReadWholeFile(path);
  }

  // Counts what the last request created or changed here, then puts everything back, so that
  // the next request's escape is its own.
  void Check(Tally& tally) {
    const auto after = Snapshot(top_);
    if (after == before_) return;
    const auto named = [&](const std::string& path) {
      return fs::path(path).lexically_relative(top_.parent_path()).native();
    };
    bool created = false, changed = false;
    for (const auto& [path, state] : after) {
      if (before_.count(path) == 0 && !std::exchange(created, true)) {
        tally.Escape(tally.created_outside, "created " + named(path));
      }
    }
    for (const auto& [path, state] : before_) {
      const auto now = after.find(path);
      if ((now == after.end() || now->second != state) && !std::exchange(changed, true)) {
        tally.Escape(tally.changed_outside, "changed " + named(path));
      }
    }
    for (const auto& [path, state] : after) {
      if (before_.count(path) == 0) fs::remove_all(path);
    }
    for (const auto& [path, content] : secrets_) {
      fs::remove(path);
      temp_.WriteFile(path, content);
    }
    before_ = Snapshot(top_);
  }

 private:
  fs::path top_;
  const quay_test::TempDir& temp_;
  std::map<std::string, EntryState> before_;
  std::map<std::string, std::string> secrets_;  // the files, all of them secrets
};

TEST(LinkSwapStress, NoCommandReadsWritesOrCreatesBehindTheLink) {
  struct statfs shm {};
  const bool shm_is_tmpfs = ::statfs("/dev/shm", &shm) == 0 && shm.f_type == TMPFS_MAGIC;
  const quay_test::TempDir temp(shm_is_tmpfs ? fs::path("/dev/shm") : fs::path());
  struct statfs used {};
  const bool tmpfs = ::statfs(temp.path().c_str(), &used) == 0 && used.f_type == TMPFS_MAGIC;
  // The export root $TMPDIR/qz/to is the policy's root too, so file_export's destination races.
  const fs::path base = fs::canonical(temp.path());
  const fs::path root = base / "qz/to";
  const fs::path outside = base / "qz/outside";
  const std::vector<std::string> names = {"read.txt", "write.txt", "append.txt", "copy.txt", "copy_append.txt",
                                          "edit.txt", "export.txt"};
  for (const std::string& name : names) {
    temp.WriteFile((root / "d" / name).native(), "inside " + name + " edit-me\n");
    temp.WriteFile((outside / name).native(), std::string(kSecret) + " " + name + " edit-me\n");
  }
  json notebook = {{"cells", {{{"cell_type", "code"}, {"execution_count", nullptr}, {"id", "c1"},
                               {"metadata", json::object()}, {"outputs", json::array()}, {"source", "inside"}}}},
                   {"metadata", json::object()}, {"nbformat", 4}, {"nbformat_minor", 5}};
  const std::string inside_notebook = notebook.dump();
  temp.WriteFile((root / "d/notebook.ipynb").native(), inside_notebook);
  notebook["cells"].push_back({{"cell_type", "markdown"}, {"id", "c2"}, {"metadata", json::object()},
                               {"source", kSecret}});
  temp.WriteFile((outside / "notebook.ipynb").native(), notebook.dump());
  for (const char* sink : {"sink/copy.txt", "sink/copy_append.txt", "sink/export.txt"}) {
    temp.WriteFile((root / sink).native(), "");
  }
  temp.WriteFile((root / "export_source.txt").native(), "inside export source\n");
  fs::create_directory_symlink("../outside", root / "parked");
  // Files of d are looked at in the real directory, wherever the swapper has put it.
  const brimo_stack::ScopedFd real_d(::open((root / "d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(real_d.valid());
  const auto on_disk = [&](const std::string& relative) {
    return relative.starts_with("d/") ? "/proc/self/fd/" + std::to_string(real_d.get()) + relative.substr(1)
                                      : (root / relative).native();
  };

  const json policy = {{"require_whitelist", true}, {"whitelist_patterns", {root.native() + "/*"}}};
  const auto in_root = [&](json params) {
    params["base_cwd"] = root.native();
    params["policy"] = policy;
    return params;
  };
  const auto fresh = [](const char* stem, int i) { return stem + std::to_string(i) + "/new/f.txt"; };
  const std::vector<Command> commands = {
      {"file_read", "file_read", [&](int) { return in_root({{"path", "d/read.txt"}}); }},
      {"file_write content", "file_write",
       [&](int) { return in_root({{"path", "d/write.txt"}, {"content", "inside\n"}}); }},
      {"file_write content append", "file_write",
       [&](int) { return in_root({{"path", "d/append.txt"}, {"content", "+"}, {"append", true}}); }},
      {"file_write content, new parents", "file_write",
       [&](int i) { return in_root({{"path", "d/" + fresh("write", i)}, {"content", "x"}}); }},
      {"file_write local_path", "file_write",
       [&](int) { return in_root({{"path", "sink/copy.txt"}, {"local_path", "d/copy.txt"}}); }, "sink/copy.txt"},
      {"file_write local_path append", "file_write",
       [&](int) {
         return in_root({{"path", "sink/copy_append.txt"}, {"local_path", "d/copy_append.txt"}, {"append", true}});
       },
       "sink/copy_append.txt"},
      {"file_edit", "file_edit",
       [&](int) { return in_root({{"path", "d/edit.txt"}, {"old_content", "edit-me"}, {"new_content", "edit-me"}}); },
       "d/edit.txt", "inside edit.txt edit-me\n"},
      {"file_notebook_edit", "file_notebook_edit",
       [&](int) { return in_root({{"path", "d/notebook.ipynb"}, {"cell_id", "c1"}, {"new_source", "inside"}}); },
       "d/notebook.ipynb", inside_notebook},
      {"file_export", "file_export",
       [&](int) { return in_root({{"path", "d/export.txt"}, {"export_path", (root / "sink/export.txt").native()}}); },
       "sink/export.txt"},
      {"file_export, new parents", "file_export",
       [&](int i) {
         return in_root({{"path", "export_source.txt"}, {"export_path", (root / "d" / fresh("export", i)).native()}});
       }},
      {"file_create_temp, new parents", "file_create_temp",
       [&](int i) {
         return json{{"root", (root / "d").native()}, {"sub_path", fresh("temp", i)}, {"content_base64", "eA=="}};
       }},
  };
  std::vector<Tally> tallies(commands.size());

  quay_test::HostProcess host = quay_test::HostProcess::WithConfig(quay_test::DefaultLaunchConfig(),
                                                                   {"TMPDIR=" + base.native()});
  Outside denied(outside, temp);
  const auto started = std::chrono::steady_clock::now();
  Swapper swapper(root / "d", root / "parked");
  for (int i = 0; i < kRequestsPerCommand; ++i) {
    for (size_t c = 0; c < commands.size(); ++c) {
      const Command& command = commands[c];
      Tally& tally = tallies[c];
      const json answer = host.Call({{"method", command.method}, {"params", command.params(i)}});
      (answer.value("ok", false) ? tally.ok : tally.refused)++;
      tally.heads[Head(answer)]++;
      if (answer.dump().find(kSecret) != std::string::npos) {
        tally.Escape(tally.leaked, "answered the secret: " + answer.dump().substr(0, 300));
      }
      if (!command.watched.empty() &&
          quay_test::ReadWholeFile(on_disk(command.watched)).find(kSecret) != std::string::npos) {
        tally.Escape(tally.copied_in, "copied the secret into root/" + command.watched);
        temp.WriteFile(on_disk(command.watched), command.watched_content);
      }
      denied.Check(tally);
    }
  }
  const long swaps = swapper.Stop();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  std::printf("\nlink swap stress: %s (%s), %d requests per command, %ld swaps, %.1f s\n\n", base.c_str(),
              tmpfs ? "tmpfs" : "not a tmpfs", kRequestsPerCommand, swaps, seconds);
  std::printf("| Command | Requests | OK | Refused | Secret answered | Secret copied in | Outside changed | "
              "Created outside |\n|---|---:|---:|---:|---:|---:|---:|---:|\n");
  for (size_t c = 0; c < commands.size(); ++c) {
    const Tally& t = tallies[c];
    std::printf("| %s | %d | %d | %d | %d | %d | %d | %d |\n", commands[c].name.c_str(), t.ok + t.refused, t.ok,
                t.refused, t.leaked, t.copied_in, t.changed_outside, t.created_outside);
  }
  std::printf("\nAnswers by head word:\n");
  for (size_t c = 0; c < commands.size(); ++c) {
    std::printf("- %s:", commands[c].name.c_str());
    for (const auto& [head, count] : tallies[c].heads) std::printf(" %s %d;", head.c_str(), count);
    std::printf("\n");
  }
  std::fflush(stdout);

  EXPECT_GE(swaps, 0) << "a swap failed";
  for (size_t c = 0; c < commands.size(); ++c) {
    const Tally& t = tallies[c];
    std::string examples;
    for (const std::string& example : t.examples) examples += "\n  " + example;
    EXPECT_EQ(t.leaked + t.copied_in + t.changed_outside, 0) << commands[c].name << " escaped:" << examples;
    EXPECT_EQ(t.created_outside, 0) << commands[c].name << " created outside:" << examples;
    EXPECT_GT(t.ok, 0) << commands[c].name << " never succeeded: the race did not run as meant";
    EXPECT_GT(t.refused, 0) << commands[c].name << " was never refused: the race did not run as meant";
  }
}

}  // namespace
