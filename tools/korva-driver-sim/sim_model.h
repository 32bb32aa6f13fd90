// The simulated Korva driver's behaviour, apart from how requests reach it:
// what each request does to the driver state, what it answers, and the record
// of everything it received.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "configurator/korva_driver.h"
#include "tools/korva-driver-sim/node_rules.h"

namespace korva_sim {

// Upper bound of the cache the simulated driver agrees to hold.
constexpr int64_t kMaxCacheSize = QVR_KORVA_MAX_CACHE_SIZE;

// End of the furthest area a cache block descriptor lays out, relative to its block.
inline uint64_t BlockExtent(const qvr_korva_cache_block& block) {
  return std::max({uint64_t{block.preSize}, uint64_t{block.preOff} + block.preFadeSize,
                   uint64_t{block.postOff} + block.postSize, uint64_t{block.fadeOff} + block.postFadeSize});
}

// "--answer REQUEST[#N]=VALUE": answer VALUE to the N-th REQUEST (from 1), or
// to every one when N is 0.
struct AnswerRule {
  std::string request;
  uint32_t occurrence = 0;
  int64_t value = 0;
  std::string text;  // as given
};

// Parses one rule; returns false and sets `error` on a malformed rule or an
// unknown request name.
bool ParseAnswerRule(const std::string& text, AnswerRule& rule, std::string& error);

// The rule that answers the `occurrence`-th `request`: a rule for that exact
// occurrence wins over one for every occurrence; the later of two equal rules
// wins. Null when no rule applies.
const AnswerRule* FindAnswer(const std::vector<AnswerRule>& rules, const std::string& request,
                             uint32_t occurrence);

// One request's outcome, as the client sees it.
struct Outcome {
  int64_t answer = 0;
  int error = 0;  // errno handed to the client (0 when the answer is not negative)
};

// Access to the client's argument. `peek(n)` returns a copy of the first n
// bytes the argument points at (empty if unreadable); `resolve(n)` maps n
// bytes of it for reading and writing (nullptr if unreadable). Writes through
// the last resolve are handed back to the client.
struct ArgumentAccess {
  std::function<std::vector<uint8_t>(size_t)> peek;
  std::function<uint8_t*(size_t)> resolve;
};

struct BlockState {
  qvr_korva_cache_block desc{};
  bool uploaded = false;
  uint32_t device = 0;       // `device` of the last upload into this block
  int32_t uploadSize = 0;    // `size` of the last upload into this block
};

struct DriverConfig {
  std::string dspVersion;
  std::string dspDescription;
  std::vector<AnswerRule> answers;
  std::string captureDir;  // empty: nothing recorded
  bool clearCapture = false;  // remove an earlier capture found in captureDir
};

// What the preload library did inside the program (its events file).
struct Injections {
  struct Node {
    uint32_t opens = 0;
    std::map<int, uint32_t> failures;  // errno -> opens made to fail with it
  };
  std::vector<Node> nodes;                  // by index of kNodeNames
  std::vector<uint64_t> failedAllocations;  // numbers of the upload buffer allocations made to fail
};

// Reads the preload's events file; a missing file means nothing happened.
// False with `error` set on a line it does not know.
bool ReadInjections(const std::string& path, Injections& injections, std::string& error);

class Driver {
 public:
  explicit Driver(DriverConfig config);
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // Opens the capture (when one was asked for) and holds the capture folder
  // for this driver's lifetime. False with `error` set when the folder cannot
  // be written, is held by another run, or holds files already: an
  // earlier capture (its requests.jsonl and NNNN-REQUEST.bin files) is
  // removed first when `clearCapture` is set; anything else stays, and is
  // refused.
  bool Start(std::string& error);

  // Handles one request that arrived on `node`.
  Outcome Handle(const std::string& node, uint32_t code, const ArgumentAccess& arg);

  // What happened and what the driver holds: the opens of each node and the
  // faults injected, the cache size, the volume controls and, per cache
  // block, its descriptor, whether an upload arrived, its device word and a
  // SHA-256 digest of the premix and postmix areas.
  void PrintSummary(FILE* out, const Injections& injections) const;

  // The answer rules that never met their request: "REQUEST#N" whose N-th
  // REQUEST never arrived, or "REQUEST" that never arrived at all.
  std::vector<AnswerRule> UnmatchedAnswers() const;

  // Why the capture is incomplete: the first request whose argument file
  // or journal line could not be written whole (nothing of it stays, and
  // nothing after it is recorded). Empty while the capture is whole.
  const std::string& captureError() const { return captureError_; }
  // Requests the capture holds.
  uint32_t recorded() const { return recorded_; }

  const std::vector<uint8_t>& cache() const { return cache_; }
  const std::map<uint32_t, BlockState>& blocks() const { return blocks_; }

 private:
  // One request as it arrived: the argument bytes exactly as received and
  // whether the driver itself accepts it.
  struct Received {
    std::vector<uint8_t> bytes;
    int naturalError = 0;      // errno the driver answers on its own; 0 = accepted
    uint8_t* reply = nullptr;  // GET_PARAM: the client's reply space
    size_t replySize = 0;
  };

  Received Receive(const std::string& name, const ArgumentAccess& arg) const;
  void Apply(const std::string& name, const Received& received);
  void Record(const std::string& node, const std::string& name, uint32_t code,
              const Outcome& outcome, const std::vector<uint8_t>& bytes);

  DriverConfig config_;
  std::vector<uint8_t> cache_;
  std::map<uint32_t, BlockState> blocks_;
  std::optional<uint32_t> selected_;  // block the next upload goes to
  std::optional<uint32_t> volume_;
  std::map<std::string, uint32_t> occurrences_;
  uint32_t forcedAnswers_ = 0;  // requests answered by an --answer rule
  uint32_t seq_ = 0;
  int captureLock_ = -1;  // the capture folder, locked
  int journal_ = -1;      // requests.jsonl
  size_t journalSize_ = 0;
  uint32_t recorded_ = 0;
  std::string captureError_;
};

}  // namespace korva_sim
