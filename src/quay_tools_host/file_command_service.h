// The file commands, and the little state that internal:initialize leaves behind.
#pragma once

#include <memory>
#include <string>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"
#include "quay_tools_host/search/ripgrep_path_cache.h"

namespace brimo_stack::quay_tools_host {

// Each operation lives in the source file of its command.
class FileCommandService {
 public:
  FileCommandService();

  [[nodiscard]] CommandResult Initialize(const InternalInitializeRequest& request);
  [[nodiscard]] CommandResult Read(const FileReadRequest& request);
  [[nodiscard]] CommandResult Write(const FileWriteRequest& request);
  [[nodiscard]] CommandResult CreateTempFile(const FileCreateTempRequest& request);
  [[nodiscard]] CommandResult Edit(const FileEditRequest& request);
  [[nodiscard]] CommandResult NotebookEdit(const FileNotebookEditRequest& request);
  [[nodiscard]] CommandResult Glob(const FileGlobRequest& request);
  [[nodiscard]] CommandResult Grep(const FileGrepRequest& request);
  [[nodiscard]] CommandResult Export(const FileExportRequest& request);

  [[nodiscard]] const std::string& sbox_log_dir() const { return sbox_log_dir_; }
  [[nodiscard]] const std::string& sbox_dump_dir() const { return sbox_dump_dir_; }
  [[nodiscard]] const std::string& install_dir() const { return install_dir_; }
  [[nodiscard]] internal::RipgrepPathCache& ripgrep_path_cache() { return *ripgrep_path_cache_; }

 private:
  std::unique_ptr<internal::RipgrepPathCache> ripgrep_path_cache_;
  std::string sbox_log_dir_;
  std::string sbox_dump_dir_;
  std::string install_dir_;
};

// The answer to a method this host does not serve (yet).
[[nodiscard]] CommandResult UnsupportedMethodResult();

}  // namespace brimo_stack::quay_tools_host
