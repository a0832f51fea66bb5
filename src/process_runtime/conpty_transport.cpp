#include "process_runtime/conpty_transport.h"

#include <array>

namespace brimo_stack::process_runtime {

std::string_view ConptyTransportStageName(ConptyTransportStage stage) {
  static constexpr std::array<std::string_view, 13> kNames = {
      "none",           "resolve_api", "create_pipes",      "create_pseudoconsole", "query_attribute_list",
      "initialize_attribute_list",   "attach_attribute",  "build_environment",    "create_process",
      "assign_job",     "ready_probe_write", "ready_probe_read", "ready_probe_timeout"};
  const auto index = static_cast<uint32_t>(stage);
  return index < kNames.size() ? kNames[index] : "unknown";
}

std::string NormalizeConsoleNewlines(std::string_view text, bool force_trailing_newline) {
  std::string out;
  out.reserve(text.size() + text.size() / 8 + 2);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' || text[i] == '\n') {
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      out += "\r\n";
    } else {
      out += text[i];
    }
  }
  if (force_trailing_newline && (out.empty() || out.back() != '\n')) out += "\r\n";
  return out;
}

std::string StripConsoleControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte == 0x1b) {
      if (i + 1 >= text.size()) break;
      const char kind = text[++i];
      if (kind == '[') {
        while (++i < text.size() && !(text[i] >= 0x40 && text[i] <= 0x7e)) {
        }
      } else if (kind == ']') {
        while (++i < text.size()) {
          const auto c = static_cast<unsigned char>(text[i]);
          if (c == 0x07 || c == 0x9c) break;
          if (c == 0x1b && i + 1 < text.size() && text[i + 1] == '\\') {
            ++i;
            break;
          }
        }
      }
      continue;
    }
    if (byte < 0x20 || byte == 0x7f) continue;
    out += static_cast<char>(byte);
  }
  return out;
}

void ConptyProbeOutput::Append(std::string_view bytes) {
  raw_.append(bytes);
  const std::string stripped = StripConsoleControls(raw_);
  stats_.output_size = raw_.size();
  stats_.normalized_size = stripped.size();
  stats_.first_marker_part = stripped.find(kConptyReadyMarker.substr(0, 14)) != std::string::npos;
  stats_.second_marker_part = stripped.find(kConptyReadyMarker.substr(14)) != std::string::npos;
  marker_seen_ = marker_seen_ || stripped.find(kConptyReadyMarker) != std::string::npos;
}

std::string ConptyProbeDiagnostic(const ConptyProbeStats& stats, const std::string& exit_code_text) {
  return "ConPTY health check failed, output_size=" + std::to_string(stats.output_size) +
         ", normalized_size=" + std::to_string(stats.normalized_size) +
         ", first_marker_part=" + (stats.first_marker_part ? "1" : "0") +
         ", second_marker_part=" + (stats.second_marker_part ? "1" : "0") + ", process_exit_code=" + exit_code_text;
}

}  // namespace brimo_stack::process_runtime
