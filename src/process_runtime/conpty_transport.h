// The terminal road's pieces that do not touch the system: its stages, the text it writes and
// the readiness probe's reading of what comes back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace brimo_stack::process_runtime {

enum class ConptyTransportStage : uint32_t {
  kNone = 0,
  kResolveApi = 1,
  kCreatePipes = 2,
  kCreatePseudoconsole = 3,
  kQueryAttributeList = 4,
  kInitializeAttributeList = 5,
  kAttachAttribute = 6,
  kBuildEnvironment = 7,
  kCreateProcess = 8,
  kAssignJob = 9,
  kReadyProbeWrite = 10,
  kReadyProbeRead = 11,
  kReadyProbeTimeout = 12,
};

// "none", "resolve_api", ..., "ready_probe_timeout"; any other value is "unknown".
[[nodiscard]] std::string_view ConptyTransportStageName(ConptyTransportStage stage);

inline constexpr std::string_view kConptyReadyMarker = "__BRIMO_STACK_CONPTY_READY__";

// Every CR, LF and CR LF becomes one CR LF; with `force_trailing_newline` a text that does not
// end in one gets it.
[[nodiscard]] std::string NormalizeConsoleNewlines(std::string_view text, bool force_trailing_newline);

// Drops escape sequences (CSI, OSC and two-byte ones) and control characters.
[[nodiscard]] std::string StripConsoleControls(std::string_view text);

struct ConptyProbeStats {
  uint64_t output_size = 0;
  uint64_t normalized_size = 0;
  bool first_marker_part = false;
  bool second_marker_part = false;
};

// What the probe has read so far, and whether the marker has shown up in it.
class ConptyProbeOutput {
 public:
  void Append(std::string_view bytes);
  [[nodiscard]] bool marker_seen() const { return marker_seen_; }
  [[nodiscard]] const ConptyProbeStats& stats() const { return stats_; }

 private:
  std::string raw_;
  ConptyProbeStats stats_;
  bool marker_seen_ = false;
};

// "ConPTY health check failed, output_size=..., process_exit_code=<code or unavailable>".
[[nodiscard]] std::string ConptyProbeDiagnostic(const ConptyProbeStats& stats, const std::string& exit_code_text);

}  // namespace brimo_stack::process_runtime
