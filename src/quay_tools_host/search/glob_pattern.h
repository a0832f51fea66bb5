// The pattern language of file_glob: '*' and '?' inside one name, "**" for any number of
// directories, '/' (or '\') between names, every other byte plain. Compiled once per request.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace brimo_stack::quay_tools_host::internal {

enum class GlobSegmentKind : int32_t { kLiteral = 0, kStar = 1, kGlobstar = 2, kWildcard = 3 };

struct GlobSegment {
  std::string text;
  GlobSegmentKind kind = GlobSegmentKind::kLiteral;
  // This segment and all behind it are globstars.
  bool only_globstars_follow = false;
};

// A set of pattern positions 0..N: position i means the segments before i are consumed. Up to
// 63 segments it is one mask and never allocates; longer patterns keep an ascending list.
struct GlobState {
  uint64_t mask = 0;
  std::vector<uint32_t> positions;
};

struct GlobStep {
  GlobState state;
  bool matched = false;       // the path so far matches
  bool can_continue = false;  // a deeper path may still match
};

class GlobPattern {
 public:
  // Cannot fail: every text is a pattern (an empty one is refused before it gets here).
  explicit GlobPattern(std::string_view pattern_text);

  [[nodiscard]] GlobState InitialState() const;
  // Consumes one name of a path.
  [[nodiscard]] GlobStep Advance(const GlobState& state, std::string_view name) const;

  [[nodiscard]] const std::vector<GlobSegment>& segments() const { return segments_; }
  [[nodiscard]] bool uses_bitmask() const { return uses_bitmask_; }

 private:
  [[nodiscard]] GlobStep AdvanceMask(uint64_t state, std::string_view name) const;
  [[nodiscard]] GlobStep AdvanceList(const std::vector<uint32_t>& state, std::string_view name) const;
  [[nodiscard]] uint64_t MaskClosure(uint64_t mask) const;
  void ListClosure(std::vector<bool>& positions) const;

  std::vector<GlobSegment> segments_;
  bool uses_bitmask_ = true;
  // Bit i for a globstar at segment i, in the bitmask form: the closure without a lookup.
  uint64_t globstar_mask_ = 0;
};

// Whether a '/'-separated path relative to the search root matches; empty and "." names are
// skipped, except that a path ending in one matches nothing.
[[nodiscard]] bool MatchesPath(const GlobPattern& pattern, std::string_view relative_path);

// One name against one segment, the hidden-name rule included.
[[nodiscard]] bool SegmentMatchesName(const GlobSegment& segment, std::string_view name);

}  // namespace brimo_stack::quay_tools_host::internal
