#include "tools/korva-driver-sim/sim_model.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace korva_sim {
namespace {

// Largest reply the simulated driver writes into a query's reply space.
constexpr size_t kMaxReply = QVR_KORVA_MAX_REPLY;
constexpr size_t kDescSize = sizeof(qvr_korva_param_desc);

constexpr const char* kUnknownRequest = "UNKNOWN";

template <typename Record>
Record Load(const std::vector<uint8_t>& bytes) {
  Record record{};
  std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof(Record)));
  return record;
}

std::vector<uint8_t> Copy(const uint8_t* data, size_t size) {
  return data == nullptr ? std::vector<uint8_t>{} : std::vector<uint8_t>(data, data + size);
}

std::string Digest(const std::vector<uint8_t>& cache, uint64_t offset, uint64_t size) {
  if (offset > cache.size() || size > cache.size() - offset) return "-";
  gchar* hex = g_compute_checksum_for_data(G_CHECKSUM_SHA256, cache.data() + offset, size);
  std::string digest(hex);
  g_free(hex);
  return digest;
}

bool ParseInteger(const std::string& text, int64_t low, int64_t high, int64_t& value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
  value = parsed;
  return true;
}

// A file an earlier capture left: requests.jsonl or NNNN-REQUEST.bin.
bool IsCaptureFile(const std::string& name) {
  if (name == "requests.jsonl") return true;
  const size_t dash = name.find('-');
  if (dash < 4 || dash == std::string::npos || name.size() < dash + 5 ||
      name.compare(name.size() - 4, 4, ".bin") != 0) {
    return false;
  }
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const auto isNameChar = [](char c) { return (c >= 'A' && c <= 'Z') || c == '_'; };
  return std::all_of(name.begin(), name.begin() + static_cast<long>(dash), isDigit) &&
         std::all_of(name.begin() + static_cast<long>(dash) + 1, name.end() - 4, isNameChar);
}

// Writes all of `data` to `fd`; false with errno set when it cannot.
bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Makes `dir` empty for a new capture: an earlier capture is removed when
// `clear` is set; anything else is refused.
bool PrepareCaptureDir(const std::string& dir, bool clear, std::string& error) {
  namespace fs = std::filesystem;
  std::vector<fs::path> earlier;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!clear) {
      error = "capture folder " + dir + " is not empty (it holds " + name +
              "): give an empty one, or --force to clear an earlier capture";
      return false;
    }
    if (!IsCaptureFile(name) || !it->is_regular_file()) {
      error = "capture folder " + dir + " holds " + name + ", which no capture wrote: not cleared";
      return false;
    }
    earlier.push_back(it->path());
  }
  if (ec) {
    error = "cannot read " + dir + ": " + ec.message();
    return false;
  }
  for (const fs::path& file : earlier) {
    if (!fs::remove(file, ec)) {
      error = "cannot remove " + file.string() + ": " + ec.message();
      return false;
    }
  }
  return true;
}

}  // namespace

bool ParseAnswerRule(const std::string& text, AnswerRule& rule, std::string& error) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    error = "answer rule '" + text + "' lacks '=VALUE'";
    return false;
  }
  std::string request = text.substr(0, equals);
  uint32_t occurrence = 0;
  const size_t hash = request.find('#');
  if (hash != std::string::npos) {
    int64_t n = 0;
    if (!ParseInteger(request.substr(hash + 1), 1, UINT32_MAX, n)) {
      error = "answer rule '" + text + "': occurrence must be a number from 1";
      return false;
    }
    occurrence = static_cast<uint32_t>(n);
    request.resize(hash);
  }
  bool known = false;
  for (const QvrKorvaRequest& r : kQvrKorvaRequests) known = known || request == r.name;
  if (!known) {
    error = "answer rule '" + text + "': unknown request '" + request + "'";
    return false;
  }
  int64_t value = 0;
  if (!ParseInteger(text.substr(equals + 1), INT32_MIN + 1, INT32_MAX, value)) {
    error = "answer rule '" + text + "': VALUE must be a 32-bit integer";
    return false;
  }
  rule = AnswerRule{request, occurrence, value, text};
  return true;
}

const AnswerRule* FindAnswer(const std::vector<AnswerRule>& rules, const std::string& request,
                             uint32_t occurrence) {
  const AnswerRule* every = nullptr;
  const AnswerRule* exact = nullptr;
  for (const AnswerRule& rule : rules) {
    if (rule.request != request) continue;
    if (rule.occurrence == 0) every = &rule;
    if (rule.occurrence == occurrence) exact = &rule;
  }
  return exact != nullptr ? exact : every;
}

bool ReadInjections(const std::string& path, Injections& injections, std::string& error) {
  injections = Injections{};
  injections.nodes.resize(kNodeCount);
  std::ifstream events(path);
  std::string line;
  while (std::getline(events, line)) {
    std::istringstream fields(line);
    std::string word;
    uint64_t first = 0;
    int second = 0;
    fields >> word >> first;
    if (word == "open" && (fields >> second) && first < kNodeCount) {
      Injections::Node& node = injections.nodes[first];
      ++node.opens;
      if (second != 0) ++node.failures[second];
    } else if (word == "alloc" && fields) {
      injections.failedAllocations.push_back(first);
    } else {
      error = "unreadable line in " + path + ": " + line;
      return false;
    }
  }
  return true;
}

Driver::Driver(DriverConfig config) : config_(std::move(config)) {}

Driver::~Driver() {
  if (journal_ >= 0) close(journal_);
  if (captureLock_ >= 0) close(captureLock_);
}

bool Driver::Start(std::string& error) {
  if (config_.captureDir.empty()) return true;
  const std::string& dir = config_.captureDir;
  if (g_mkdir_with_parents(dir.c_str(), 0755) != 0) {
    error = "cannot create " + dir + ": " + std::strerror(errno);
    return false;
  }
  // The folder belongs to this run from here to its end: another run given
  // the same folder stops here, before it looks at or clears anything.
  captureLock_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (captureLock_ < 0) {
    error = "cannot read " + dir + ": " + std::strerror(errno);
    return false;
  }
  if (flock(captureLock_, LOCK_EX | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK ? "capture folder " + dir + " is in use by another korva-driver-sim run"
                                 : "cannot lock " + dir + ": " + std::strerror(errno);
    return false;
  }
  if (!PrepareCaptureDir(dir, config_.clearCapture, error)) return false;
  const std::string path = dir + "/requests.jsonl";
  journal_ = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (journal_ < 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

Driver::Received Driver::Receive(const std::string& name, const ArgumentAccess& arg) const {
  Received in;
  if (name == "SET_CACHE_SIZE" || name == "SET_VOLUME_CONTROLS") {
    in.bytes = Copy(arg.resolve(sizeof(int32_t)), sizeof(int32_t));
    if (in.bytes.empty()) {
      in.naturalError = EFAULT;
    } else if (name == "SET_CACHE_SIZE") {
      const int32_t size = Load<int32_t>(in.bytes);
      if (size < 0 || size > kMaxCacheSize) in.naturalError = EINVAL;
    }
  } else if (name == "SET_CACHE_BLOCK") {
    in.bytes = Copy(arg.resolve(sizeof(qvr_korva_cache_block)), sizeof(qvr_korva_cache_block));
    if (in.bytes.empty()) {
      in.naturalError = EFAULT;
    } else {
      // The block, and every block before it at the same extent, in the cache.
      const auto block = Load<qvr_korva_cache_block>(in.bytes);
      const uint64_t extent = BlockExtent(block);
      if (uint64_t{block.kGlobalOffset} + extent > cache_.size() || (extent != 0 && block.idx >= cache_.size() / extent)) {
        in.naturalError = EINVAL;
      }
    }
  } else if (name == "SET_PARAM" || name == "GET_PARAM") {
    const std::vector<uint8_t> head = arg.peek(kDescSize);
    if (head.size() < kDescSize) {
      in.naturalError = EFAULT;
      return in;
    }
    const auto desc = Load<qvr_korva_param_desc>(head);
    in.bytes = head;
    if (name == "GET_PARAM") {
      // The reply space is as large as the descriptor says, up to what a reply can need.
      if (desc.size < 0 || (desc.id != PARAM_ID_DSP_VERSION && desc.id != PARAM_ID_DSP_DESCRIPTION)) {
        in.naturalError = EINVAL;
        return in;
      }
      in.replySize = std::min(static_cast<size_t>(desc.size), kMaxReply);
      uint8_t* whole = arg.resolve(kDescSize + in.replySize);
      if (whole == nullptr) {
        in.naturalError = EFAULT;
        return in;
      }
      in.reply = whole + kDescSize;
      return in;
    }
    // An upload goes into the selected block, at `offset` from its start, and
    // never reaches past the block; its data is read only once that holds.
    if (desc.size < 0 || desc.offset < 0 || !selected_ ||
        uint64_t{static_cast<uint32_t>(desc.offset)} + static_cast<uint32_t>(desc.size) >
            BlockExtent(blocks_.at(*selected_).desc)) {
      in.naturalError = EINVAL;
      return in;
    }
    in.bytes = Copy(arg.resolve(kDescSize + desc.size), kDescSize + desc.size);
    if (in.bytes.empty()) in.naturalError = EFAULT;
  } else {
    in.naturalError = ENOTTY;
  }
  return in;
}

void Driver::Apply(const std::string& name, const Received& in) {
  if (name == "SET_CACHE_SIZE") {
    cache_.assign(static_cast<size_t>(Load<int32_t>(in.bytes)), 0);
    blocks_.clear();
    selected_.reset();
  } else if (name == "SET_VOLUME_CONTROLS") {
    volume_ = Load<uint32_t>(in.bytes);
  } else if (name == "SET_CACHE_BLOCK") {
    const auto desc = Load<qvr_korva_cache_block>(in.bytes);
    blocks_[desc.idx] = BlockState{desc, false, 0, 0};
    selected_ = desc.idx;
  } else if (name == "SET_PARAM") {
    const auto desc = Load<qvr_korva_param_desc>(in.bytes);
    BlockState& block = blocks_.at(*selected_);
    std::copy(in.bytes.begin() + kDescSize, in.bytes.end(),
              cache_.begin() + block.desc.kGlobalOffset + desc.offset);
    block.uploaded = true;
    block.device = desc.device;
    block.uploadSize = desc.size;
  } else if (name == "GET_PARAM") {
    const auto desc = Load<qvr_korva_param_desc>(in.bytes);
    const std::string& text =
        desc.id == PARAM_ID_DSP_VERSION ? config_.dspVersion : config_.dspDescription;
    std::memset(in.reply, 0, in.replySize);
    std::memcpy(in.reply, text.data(), std::min(text.size(), in.replySize));
  }
}

Outcome Driver::Handle(const std::string& node, uint32_t code, const ArgumentAccess& arg) {
  ++seq_;
  const char* known = qvr_request_name(code);
  const std::string name = known != nullptr ? known : kUnknownRequest;
  const Received in = Receive(name, arg);

  Outcome out;
  const uint32_t occurrence = ++occurrences_[name];
  const AnswerRule* forced = known != nullptr ? FindAnswer(config_.answers, name, occurrence) : nullptr;
  if (forced != nullptr) {
    ++forcedAnswers_;
    out.answer = forced->value < 0 ? -1 : forced->value;
    out.error = forced->value < 0 ? static_cast<int>(-forced->value) : 0;
  } else if (in.naturalError != 0) {
    out.answer = -1;
    out.error = in.naturalError;
  }
  // A request the driver refuses, or is told to answer as the configurator
  // takes for a refusal, changes nothing.
  if (in.naturalError == 0 && !qvr_answer_refused(code, out.answer)) Apply(name, in);
  Record(node, name, code, out, in.bytes);
  return out;
}

void Driver::Record(const std::string& node, const std::string& name, uint32_t code,
                    const Outcome& outcome, const std::vector<uint8_t>& bytes) {
  if (journal_ < 0 || !captureError_.empty()) return;
  char file[64];
  std::snprintf(file, sizeof file, "%04u-%s.bin", seq_, name.c_str());
  const std::string path = config_.captureDir + "/" + file;
  const nlohmann::ordered_json record = {
      {"seq", seq_},          {"node", node},         {"request", name},
      {"code", code},         {"answer", outcome.answer}, {"errno", outcome.error},
      {"arg", file},          {"arg_size", bytes.size()},
  };
  const std::string line = record.dump() + "\n";
  // The argument file first, whole, then its line: the journal never names
  // a file that is not there whole. What fails is taken back, and the
  // capture ends there.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  int failure = fd < 0 ? errno : 0;
  if (fd >= 0) {
    if (!WriteAll(fd, reinterpret_cast<const char*>(bytes.data()), bytes.size())) failure = errno;
    if (close(fd) != 0 && failure == 0) failure = errno;
    if (failure != 0) unlink(path.c_str());
  }
  if (failure != 0) {
    captureError_ = "cannot write " + path + ": " + std::strerror(failure);
  } else if (!WriteAll(journal_, line.data(), line.size())) {
    captureError_ = "cannot write " + config_.captureDir + "/requests.jsonl: " + std::strerror(errno);
    if (ftruncate(journal_, static_cast<off_t>(journalSize_)) != 0 || unlink(path.c_str()) != 0) {
      captureError_ += " (and cannot take back the partial record)";
    }
  } else {
    journalSize_ += line.size();
    ++recorded_;
  }
}

void Driver::PrintSummary(FILE* out, const Injections& injections) const {
  std::fprintf(out, "korva-driver-sim summary\n");
  uint32_t failedOpens = 0;
  for (size_t i = 0; i < injections.nodes.size() && i < kNodeCount; ++i) {
    const Injections::Node& node = injections.nodes[i];
    std::fprintf(out, "node %s: %u open%s", kNodePaths[i], node.opens, node.opens == 1 ? "" : "s");
    std::string failures;
    for (const auto& [error, count] : node.failures) {
      failures += (failures.empty() ? "" : ", ") + std::to_string(count) + " failed with errno " +
                  std::to_string(error);
      failedOpens += count;
    }
    std::fprintf(out, "%s%s\n", failures.empty() ? "" : ", ", failures.c_str());
  }
  const size_t failedAllocations = injections.failedAllocations.size();
  std::fprintf(out, "faults injected: %zu (failed opens %u, failed allocations %zu, forced answers %u)\n",
               failedOpens + failedAllocations + forcedAnswers_, failedOpens, failedAllocations,
               forcedAnswers_);
  for (const uint64_t n : injections.failedAllocations) {
    std::fprintf(out, "upload buffer allocation %llu: failed with errno %d\n", static_cast<unsigned long long>(n),
                 ENOMEM);
  }
  std::fprintf(out, "requests: %u\n", seq_);
  std::fprintf(out, "cache size: %zu\n", cache_.size());
  if (volume_) {
    std::fprintf(out, "volume controls: 0x%08X\n", *volume_);
  } else {
    std::fprintf(out, "volume controls: not set\n");
  }
  std::fprintf(out, "cache blocks: %zu\n", blocks_.size());
  for (const auto& [idx, block] : blocks_) {
    const uint64_t base = block.desc.kGlobalOffset;
    std::fprintf(out, "block %u: bitmask=0x%08X offset=%u upload=%s", idx, block.desc.bitmask,
                 block.desc.kGlobalOffset, block.uploaded ? "yes" : "no");
    if (block.uploaded) {
      std::fprintf(out, " device=0x%08X premix=%s postmix=%s", block.device,
                   Digest(cache_, base, block.desc.preSize).c_str(),
                   Digest(cache_, base + block.desc.postOff, block.desc.postSize).c_str());
    }
    std::fprintf(out, "\n");
  }
}

std::vector<AnswerRule> Driver::UnmatchedAnswers() const {
  std::vector<AnswerRule> unmatched;
  for (const AnswerRule& rule : config_.answers) {
    const auto seen = occurrences_.find(rule.request);
    const uint32_t arrived = seen != occurrences_.end() ? seen->second : 0;
    if (arrived < std::max<uint32_t>(rule.occurrence, 1)) unmatched.push_back(rule);
  }
  return unmatched;
}

}  // namespace korva_sim
