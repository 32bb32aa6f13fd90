// How each simulated device node behaves over a run: "--node hw=denied",
// "--node sw=present@4", "--node sw=present@2.5s". The simulator checks the
// rules and hands them to its preload library (preload.cpp), which decides
// every open of a node by them. Header-only, allocation-free and without
// library calls: the preload runs it inside any program, before and during
// that program's own start-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "configurator/korva_driver.h"

namespace korva_sim {

enum class NodeState : uint8_t { kPresent, kAbsent, kDenied };

// The two nodes, hardware first, in the order the configurator tries them.
constexpr std::string_view kNodeNames[] = {"hw", "sw"};
constexpr size_t kNodeCount = std::size(kNodeNames);
constexpr const char* kNodePaths[kNodeCount] = {kQvrKorvaHardwareNode, kQvrKorvaSoftwareNode};

constexpr std::string_view kStateNames[] = {"present", "absent", "denied"};

// Most rules one run takes (the preload keeps them in a fixed array).
constexpr size_t kMaxNodeRules = 64;

// When a rule's state begins: at once, from the N-th open of its node (from
// 1), or from a time of the program's own monotonic clock, counted from the
// program's start.
enum class RuleStart : uint8_t { kAlways, kOpen, kTime };

struct NodeRule {
  size_t node = 0;  // index into kNodeNames
  NodeState state = NodeState::kPresent;
  RuleStart start = RuleStart::kAlways;
  uint64_t from = 0;  // open number (kOpen) or milliseconds (kTime)
};

// Largest count (of opens, of allocations) a rule or option takes: 18 digits.
constexpr uint64_t kMaxCount = 999999999999999999;

namespace detail {

// Decimal digits only, at most kMaxCount; false on none or on anything else.
constexpr bool ParseCount(std::string_view text, uint64_t& value) {
  if (text.empty() || text.size() > 18) return false;
  value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return true;
}

// "2", "2.5", "0.125" seconds, in whole milliseconds (at most three decimals).
constexpr bool ParseMilliseconds(std::string_view text, uint64_t& ms) {
  const size_t point = text.find('.');
  uint64_t whole = 0;
  if (!ParseCount(text.substr(0, point), whole) || whole > 1000000000) return false;
  uint64_t fraction = 0;
  if (point != std::string_view::npos) {
    const std::string_view decimals = text.substr(point + 1);
    if (decimals.size() > 3 || !ParseCount(decimals, fraction)) return false;
    for (size_t i = decimals.size(); i < 3; ++i) fraction *= 10;
  }
  ms = whole * 1000 + fraction;
  return true;
}

template <size_t N>
constexpr bool Lookup(const std::string_view (&names)[N], std::string_view name, size_t& index) {
  for (size_t i = 0; i < N; ++i) {
    if (names[i] == name) {
      index = i;
      return true;
    }
  }
  return false;
}

}  // namespace detail

// Parses "hw|sw=present|absent|denied[@N|@Ts]"; false on anything else.
constexpr bool ParseNodeRule(std::string_view text, NodeRule& rule) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) return false;
  NodeRule parsed;
  if (!detail::Lookup(kNodeNames, text.substr(0, equals), parsed.node)) return false;
  std::string_view state = text.substr(equals + 1);
  const size_t at = state.find('@');
  if (at != std::string_view::npos) {
    std::string_view from = state.substr(at + 1);
    state = state.substr(0, at);
    if (!from.empty() && from.back() == 's') {
      parsed.start = RuleStart::kTime;
      if (!detail::ParseMilliseconds(from.substr(0, from.size() - 1), parsed.from)) return false;
    } else {
      parsed.start = RuleStart::kOpen;
      if (!detail::ParseCount(from, parsed.from) || parsed.from == 0) return false;
    }
  }
  size_t stateIndex = 0;
  if (!detail::Lookup(kStateNames, state, stateIndex)) return false;
  parsed.state = static_cast<NodeState>(stateIndex);
  rule = parsed;
  return true;
}

// The state of `node` at its `open`-th open (from 1), `ms` milliseconds into
// the program's run: among the node's rules whose start has come, the one
// with the latest start; of two with the same start, the later rule. Before
// its first rule takes hold a node is absent when that rule makes it
// present ("sw=present@2.5s": the node appears at 2.5 s), else present; a
// node without rules is present. One node's rules start either by opens or
// by time, never both (the simulator refuses a mix), so starts compare.
constexpr NodeState StateAt(const NodeRule* rules, size_t count, size_t node, uint64_t open, uint64_t ms) {
  const NodeRule* first = nullptr;
  const NodeRule* current = nullptr;
  uint64_t latest = 0;
  for (size_t i = 0; i < count; ++i) {
    const NodeRule& rule = rules[i];
    if (rule.node != node) continue;
    const uint64_t from = rule.start == RuleStart::kAlways ? 0 : rule.from;
    if (first == nullptr || from < (first->start == RuleStart::kAlways ? 0 : first->from)) first = &rule;
    const bool reached = rule.start == RuleStart::kAlways ||
                         (rule.start == RuleStart::kOpen && open >= rule.from) ||
                         (rule.start == RuleStart::kTime && ms >= rule.from);
    if (reached && (current == nullptr || from >= latest)) {
      current = &rule;
      latest = from;
    }
  }
  if (current != nullptr) return current->state;
  return first != nullptr && first->state == NodeState::kPresent ? NodeState::kAbsent : NodeState::kPresent;
}

}  // namespace korva_sim
