// The params of every method as plain records, and their parsing from JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host {

inline constexpr uint64_t kDefaultSearchTimeoutMs = 300000;

struct FileAccessPolicyConfig {
  bool case_sensitive = false;
  bool require_whitelist = false;
  std::vector<std::string> whitelist_patterns;
  std::vector<std::string> read_only_patterns;
  std::vector<std::string> blacklist_patterns;
};

struct InternalInitializeRequest {
  std::string rg_executable;
  std::string sbox_log_dir;
  std::string sbox_dump_dir;
  std::string install_dir;
};

struct FileReadRequest {
  std::string base_cwd;
  std::string path;
  std::optional<uint64_t> offset;
  std::optional<int64_t> limit;
  std::optional<uint64_t> start_line;
  std::optional<std::string> cursor;
  bool from_end = false;
  std::optional<int64_t> max_lines;
  FileAccessPolicyConfig policy;
};

struct FileWriteRequest {
  std::string base_cwd;
  std::string path;
  std::optional<std::string> content;
  std::optional<std::string> local_path;
  bool append = false;
  FileAccessPolicyConfig policy;
};

struct FileCreateTempRequest {
  std::string root;
  std::string content_base64;
  std::string sub_path;
};

struct FileEditRequest {
  std::string base_cwd;
  std::string path;
  std::string old_content;
  std::string new_content;
  bool replace_all = false;
  FileAccessPolicyConfig policy;
};

struct FileNotebookEditRequest {
  std::string base_cwd;
  std::string path;
  std::optional<std::string> cell_type;
  std::optional<std::string> edit_mode;
  std::optional<std::string> cell_id;
  std::optional<std::string> new_source;
  FileAccessPolicyConfig policy;
};

struct FileGlobRequest {
  std::string base_cwd;
  std::string base_env;
  uint32_t environment_mode = 0;
  std::string pattern;
  std::optional<std::string> path;
  std::optional<std::string> type;
  uint64_t max_depth = 10;
  uint64_t max_results = UINT64_MAX;
  uint64_t timeout_ms = kDefaultSearchTimeoutMs;
  bool return_files_only = false;
  std::string result_file;
  FileAccessPolicyConfig policy;
};

struct FileGrepRequest {
  std::string base_cwd;
  std::string base_env;
  uint32_t environment_mode = 0;
  std::string pattern;
  std::optional<std::string> path;
  std::optional<bool> case_insensitive;
  std::optional<bool> multiline;
  bool pattern_is_regex = true;
  std::optional<std::string> glob;
  std::optional<std::string> type;
  std::optional<uint64_t> context_before;
  std::optional<uint64_t> context_after;
  std::optional<uint64_t> head_limit;
  uint64_t timeout_ms = kDefaultSearchTimeoutMs;
  bool return_output_only = false;
  std::string result_file;
  FileAccessPolicyConfig policy;
};

struct FileExportRequest {
  std::string base_cwd;
  std::string path;
  std::string export_path;
  FileAccessPolicyConfig policy;
};

// Each fills its record from `params` (null gives the defaults) or fails with category 7,
// code 1 and "invalid request params: " and the JSON library's text.
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, InternalInitializeRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileReadRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileWriteRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileCreateTempRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileEditRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileNotebookEditRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileGlobRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileGrepRequest& out);
[[nodiscard]] CommandResult ParseRequest(nlohmann::json params, FileExportRequest& out);

}  // namespace brimo_stack::quay_tools_host
