// The glob language as a set of pattern positions moved forward one path name at a time, so
// that a walk can carry the state down the tree and prune a directory no pattern can enter.
#include "quay_tools_host/search/glob_pattern.h"

#include <algorithm>
#include <bit>

#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {

namespace {

// Up to this many segments the positions 0..N fit one 64-bit mask.
constexpr size_t kBitmaskSegmentLimit = 63;

GlobSegmentKind ClassifySegment(std::string_view text) {
  if (text == "**") return GlobSegmentKind::kGlobstar;
  if (text == "*") return GlobSegmentKind::kStar;
  if (text.find_first_of("*?") != std::string_view::npos) return GlobSegmentKind::kWildcard;
  return GlobSegmentKind::kLiteral;
}

constexpr uint64_t Bit(size_t position) { return uint64_t{1} << position; }

// Pattern bytes without '*' against as many name bytes.
bool FixedPartMatches(std::string_view part, std::string_view name_bytes) {
  for (size_t i = 0; i < part.size(); ++i) {
    if (part[i] != '?' && part[i] != name_bytes[i]) return false;
  }
  return true;
}

// Most names of a walk fail on their last bytes ("*.h"), so the ends are tried first; with a
// single '*' that already decides, as the star takes whatever lies between.
bool WildcardMatches(std::string_view text, std::string_view name) {
  const size_t first_star = text.find('*');
  if (first_star == std::string_view::npos) {
    return text.size() == name.size() && FixedPartMatches(text, name);
  }
  const size_t last_star = text.rfind('*');
  const std::string_view head = text.substr(0, first_star);
  const std::string_view tail = text.substr(last_star + 1);
  if (name.size() < head.size() + tail.size() || !FixedPartMatches(head, name) ||
      !FixedPartMatches(tail, name.substr(name.size() - tail.size()))) {
    return false;
  }
  return first_star == last_star || MatchWildcard(text, name);
}

}  // namespace

GlobPattern::GlobPattern(std::string_view pattern_text) {
  // A backslash separates names, as on the platform the language was made for; it never escapes.
  std::string text(pattern_text);
  std::replace(text.begin(), text.end(), '\\', '/');
  std::string_view rest = text;
  while (true) {
    const size_t slash = rest.find('/');
    const std::string_view piece = rest.substr(0, slash);
    segments_.push_back(GlobSegment{std::string(piece), ClassifySegment(piece), false});
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
  bool only_globstars = true;
  for (auto it = segments_.rbegin(); it != segments_.rend(); ++it) {
    only_globstars = only_globstars && it->kind == GlobSegmentKind::kGlobstar;
    it->only_globstars_follow = only_globstars;
  }
  uses_bitmask_ = segments_.size() <= kBitmaskSegmentLimit;
  if (uses_bitmask_) {
    for (size_t i = 0; i < segments_.size(); ++i) {
      if (segments_[i].kind == GlobSegmentKind::kGlobstar) globstar_mask_ |= Bit(i);
    }
  }
}

bool SegmentMatchesName(const GlobSegment& segment, std::string_view name) {
  // A hidden name is matched only by a segment that names the dot itself.
  if (!name.empty() && name.front() == '.' && (segment.text.empty() || segment.text.front() != '.')) return false;
  switch (segment.kind) {
    case GlobSegmentKind::kLiteral: return segment.text == name;
    case GlobSegmentKind::kStar:
    case GlobSegmentKind::kGlobstar: return true;
    case GlobSegmentKind::kWildcard: return WildcardMatches(segment.text, name);
  }
  return false;
}

uint64_t GlobPattern::MaskClosure(uint64_t mask) const {
  // Ascending, so that a run of globstars passes a position on to the end of the run.
  uint64_t pending = mask & globstar_mask_;
  while (pending != 0) {
    const int i = std::countr_zero(pending);
    pending &= pending - 1;
    const uint64_t next = Bit(static_cast<size_t>(i) + 1);
    if ((mask & next) == 0) {
      mask |= next;
      pending |= next & globstar_mask_;
    }
  }
  return mask;
}

void GlobPattern::ListClosure(std::vector<bool>& positions) const {
  for (size_t i = 0; i < segments_.size(); ++i) {
    if (positions[i] && segments_[i].kind == GlobSegmentKind::kGlobstar) positions[i + 1] = true;
  }
}

GlobState GlobPattern::InitialState() const {
  GlobState state;
  if (uses_bitmask_) {
    state.mask = MaskClosure(Bit(0));
    return state;
  }
  std::vector<bool> positions(segments_.size() + 1, false);
  positions[0] = true;
  ListClosure(positions);
  for (size_t i = 0; i < positions.size(); ++i) {
    if (positions[i]) state.positions.push_back(static_cast<uint32_t>(i));
  }
  return state;
}

GlobStep GlobPattern::Advance(const GlobState& state, std::string_view name) const {
  return uses_bitmask_ ? AdvanceMask(state.mask, name) : AdvanceList(state.positions, name);
}

GlobStep GlobPattern::AdvanceMask(uint64_t state, std::string_view name) const {
  const size_t n = segments_.size();
  const uint64_t below_end = Bit(n) - 1;
  GlobStep step;
  uint64_t next = 0;
  for (uint64_t live = state & below_end; live != 0; live &= live - 1) {
    const size_t i = static_cast<size_t>(std::countr_zero(live));
    const GlobSegment& segment = segments_[i];
    if (!SegmentMatchesName(segment, name)) continue;
    if (segment.kind == GlobSegmentKind::kGlobstar) {
      next |= Bit(i);
      step.matched = step.matched || segment.only_globstars_follow;
    } else {
      next |= Bit(i + 1);
      step.matched = step.matched || i + 1 == n;
    }
  }
  step.state.mask = MaskClosure(next);
  step.can_continue = (step.state.mask & below_end) != 0;
  return step;
}

GlobStep GlobPattern::AdvanceList(const std::vector<uint32_t>& state, std::string_view name) const {
  const size_t n = segments_.size();
  GlobStep step;
  std::vector<bool> next(n + 1, false);
  for (const uint32_t position : state) {
    const size_t i = position;
    if (i >= n || !SegmentMatchesName(segments_[i], name)) continue;
    if (segments_[i].kind == GlobSegmentKind::kGlobstar) {
      next[i] = true;
      step.matched = step.matched || segments_[i].only_globstars_follow;
    } else {
      next[i + 1] = true;
      step.matched = step.matched || i + 1 == n;
    }
  }
  ListClosure(next);
  for (size_t i = 0; i <= n; ++i) {
    if (!next[i]) continue;
    step.state.positions.push_back(static_cast<uint32_t>(i));
    step.can_continue = step.can_continue || i < n;
  }
  return step;
}

bool MatchesPath(const GlobPattern& pattern, std::string_view relative_path) {
  GlobState state = pattern.InitialState();
  std::string_view rest = relative_path;
  while (true) {
    const size_t slash = rest.find('/');
    const bool last = slash == std::string_view::npos;
    const std::string_view name = rest.substr(0, slash);
    if (name.empty() || name == ".") {
      // "a/" or "a/." names no entry below a, so nothing can match it.
      if (last) return false;
    } else {
      GlobStep step = pattern.Advance(state, name);
      if (last) return step.matched;
      if (!step.can_continue) return false;
      state = std::move(step.state);
    }
    rest.remove_prefix(slash + 1);
  }
}

}  // namespace brimo_stack::quay_tools_host::internal
