// Parsing of every method's params into its record, key by key in table order.
#include "quay_tools_host/command_requests.h"

#include "brimo_stack_common/json_number.h"

namespace brimo_stack::quay_tools_host {
namespace {

using nlohmann::json;

// Reads the keys of one params object. Every lookup checks the object first, so that params
// of the wrong type fail at the first key with the library's own "cannot use value()" text.
// Strings move out of the params, which are read once: a content may be a whole frame long.
class ParamsReader {
 public:
  explicit ParamsReader(json& params) : params_(params) {}

  void String(const char* key, std::string& out) const {
    if (json* v = Find(key)) {
      out = TakeString(*v);
    }
  }
  void OptionalString(const char* key, std::optional<std::string>& out) const {
    if (json* v = Find(key); v != nullptr && !v->is_null()) {
      out = TakeString(*v);
    }
  }
  void Bool(const char* key, bool& out) const {
    if (const json* v = Find(key)) {
      out = ReadBool(*v);
    }
  }
  void OptionalBool(const char* key, std::optional<bool>& out) const {
    if (const json* v = Find(key); v != nullptr && !v->is_null()) {
      out = ReadBool(*v);
    }
  }
  void Unsigned64(const char* key, uint64_t& out) const {
    if (const json* v = Find(key)) {
      out = static_cast<uint64_t>(ReadJsonInteger(*v));
    }
  }
  void OptionalUnsigned64(const char* key, std::optional<uint64_t>& out) const {
    if (const json* v = Find(key); v != nullptr && !v->is_null()) {
      out = static_cast<uint64_t>(ReadJsonInteger(*v));
    }
  }
  void OptionalSigned64(const char* key, std::optional<int64_t>& out) const {
    if (const json* v = Find(key); v != nullptr && !v->is_null()) {
      out = ReadJsonInteger(*v);
    }
  }
  void Enum32(const char* key, uint32_t& out) const {
    if (const json* v = Find(key)) {
      out = static_cast<uint32_t>(static_cast<uint64_t>(ReadJsonInteger(*v)));
    }
  }
  void StringList(const char* key, std::vector<std::string>& out) const {
    if (const json* v = Find(key)) {
      out = v->get<std::vector<std::string>>();
    }
  }
  void Policy(const char* key, FileAccessPolicyConfig& out) const {
    if (json* v = Find(key)) {
      out = ReadPolicy(*v);
    }
  }

  static FileAccessPolicyConfig ReadPolicy(json& value) {
    FileAccessPolicyConfig policy;
    if (value.is_null()) {
      return policy;
    }
    const ParamsReader reader(value);
    reader.Bool("case_sensitive", policy.case_sensitive);
    reader.Bool("require_whitelist", policy.require_whitelist);
    reader.StringList("whitelist_patterns", policy.whitelist_patterns);
    reader.StringList("read_only_patterns", policy.read_only_patterns);
    reader.StringList("blacklist_patterns", policy.blacklist_patterns);
    return policy;
  }

 private:
  static std::string TakeString(json& value) {
    if (value.is_string()) {
      return std::move(value.get_ref<std::string&>());
    }
    return value.get<std::string>();  // throws the library's type error
  }

  json* Find(const char* key) const {
    if (!params_.is_object()) {
      throw json::type_error::create(306, std::string("cannot use value() with ") + params_.type_name(), &params_);
    }
    const auto it = params_.find(key);
    return it == params_.end() ? nullptr : &*it;
  }

  static bool ReadBool(const json& value) {
    if (!value.is_boolean()) {
      ThrowTypeError(value, "boolean");
    }
    return value.get<bool>();
  }

  [[noreturn]] static void ThrowTypeError(const json& value, const char* expected) {
    throw json::type_error::create(302, std::string("type must be ") + expected + ", but is " + value.type_name(),
                                   &value);
  }

  json& params_;
};

// Runs `read` over a non-null params value and turns the library's exception into the failure.
template <typename Record, typename ReadKeys>
CommandResult ParseWith(json& params, Record& out, ReadKeys read) {
  Record record;
  if (!params.is_null()) {
    try {
      read(ParamsReader(params), record);
    } catch (const json::exception& error) {
      return CommandResult::Failure(kCategoryRefused, 1, std::string("invalid request params: ") + error.what());
    }
  }
  out = std::move(record);
  return CommandResult::Success();
}

}  // namespace

CommandResult ParseRequest(json params, InternalInitializeRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, InternalInitializeRequest& rec) {
    r.String("rg_executable", rec.rg_executable);
    r.String("sbox_log_dir", rec.sbox_log_dir);
    r.String("sbox_dump_dir", rec.sbox_dump_dir);
    r.String("install_dir", rec.install_dir);
  });
}

CommandResult ParseRequest(json params, FileReadRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileReadRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("path", rec.path);
    r.OptionalUnsigned64("offset", rec.offset);
    r.OptionalSigned64("limit", rec.limit);
    r.OptionalUnsigned64("start_line", rec.start_line);
    r.OptionalString("cursor", rec.cursor);
    r.Bool("from_end", rec.from_end);
    r.OptionalSigned64("max_lines", rec.max_lines);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileWriteRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileWriteRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("path", rec.path);
    r.OptionalString("content", rec.content);
    r.OptionalString("local_path", rec.local_path);
    r.Bool("append", rec.append);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileCreateTempRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileCreateTempRequest& rec) {
    r.String("root", rec.root);
    r.String("content_base64", rec.content_base64);
    r.String("sub_path", rec.sub_path);
  });
}

CommandResult ParseRequest(json params, FileEditRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileEditRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("path", rec.path);
    r.String("old_content", rec.old_content);
    r.String("new_content", rec.new_content);
    r.Bool("replace_all", rec.replace_all);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileNotebookEditRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileNotebookEditRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("path", rec.path);
    r.OptionalString("cell_type", rec.cell_type);
    r.OptionalString("edit_mode", rec.edit_mode);
    r.OptionalString("cell_id", rec.cell_id);
    r.OptionalString("new_source", rec.new_source);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileGlobRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileGlobRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("base_env", rec.base_env);
    r.Enum32("environment_mode", rec.environment_mode);
    r.String("pattern", rec.pattern);
    r.OptionalString("path", rec.path);
    r.OptionalString("type", rec.type);
    r.Unsigned64("max_depth", rec.max_depth);
    r.Unsigned64("max_results", rec.max_results);
    r.Unsigned64("timeout_ms", rec.timeout_ms);
    r.Bool("return_files_only", rec.return_files_only);
    r.String("result_file", rec.result_file);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileGrepRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileGrepRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("base_env", rec.base_env);
    r.Enum32("environment_mode", rec.environment_mode);
    r.String("pattern", rec.pattern);
    r.OptionalString("path", rec.path);
    r.OptionalBool("case_insensitive", rec.case_insensitive);
    r.OptionalBool("multiline", rec.multiline);
    r.Bool("pattern_is_regex", rec.pattern_is_regex);
    r.OptionalString("glob", rec.glob);
    r.OptionalString("type", rec.type);
    r.OptionalUnsigned64("context_before", rec.context_before);
    r.OptionalUnsigned64("context_after", rec.context_after);
    r.OptionalUnsigned64("head_limit", rec.head_limit);
    r.Unsigned64("timeout_ms", rec.timeout_ms);
    r.Bool("return_output_only", rec.return_output_only);
    r.String("result_file", rec.result_file);
    r.Policy("policy", rec.policy);
  });
}

CommandResult ParseRequest(json params, FileExportRequest& out) {
  return ParseWith(params, out, [](const ParamsReader& r, FileExportRequest& rec) {
    r.String("base_cwd", rec.base_cwd);
    r.String("path", rec.path);
    r.String("export_path", rec.export_path);
    r.Policy("policy", rec.policy);
  });
}

}  // namespace brimo_stack::quay_tools_host
