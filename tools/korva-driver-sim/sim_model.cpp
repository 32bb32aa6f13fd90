#include "tools/korva-driver-sim/sim_model.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <nlohmann/json.hpp>

namespace korva_sim {
namespace {

// Largest reply the simulated driver writes into a query's reply space.
constexpr size_t kMaxReply = 64 * 1024;
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

// End of the furthest area a cache block descriptor lays out, relative to its block.
uint64_t BlockExtent(const qvr_korva_cache_block& block) {
  const uint64_t ends[] = {
      uint64_t{block.preSize},
      uint64_t{block.preOff} + block.preFadeSize,
      uint64_t{block.postOff} + block.postSize,
      uint64_t{block.fadeOff} + block.postFadeSize,
  };
  return *std::max_element(std::begin(ends), std::end(ends));
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
  rule = AnswerRule{request, occurrence, value};
  return true;
}

std::optional<int64_t> FindAnswer(const std::vector<AnswerRule>& rules,
                                  const std::string& request, uint32_t occurrence) {
  std::optional<int64_t> every;
  std::optional<int64_t> exact;
  for (const AnswerRule& rule : rules) {
    if (rule.request != request) continue;
    if (rule.occurrence == 0) every = rule.value;
    if (rule.occurrence == occurrence) exact = rule.value;
  }
  return exact ? exact : every;
}

Driver::Driver(DriverConfig config) : config_(std::move(config)) {}

Driver::~Driver() {
  if (journal_ != nullptr) std::fclose(journal_);
}

bool Driver::Start(std::string& error) {
  if (config_.captureDir.empty()) return true;
  if (g_mkdir_with_parents(config_.captureDir.c_str(), 0755) != 0) {
    error = "cannot create " + config_.captureDir + ": " + std::strerror(errno);
    return false;
  }
  const std::string path = config_.captureDir + "/requests.jsonl";
  journal_ = std::fopen(path.c_str(), "w");
  if (journal_ == nullptr) {
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
      const auto block = Load<qvr_korva_cache_block>(in.bytes);
      if (uint64_t{block.kGlobalOffset} + BlockExtent(block) > cache_.size()) in.naturalError = EINVAL;
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
    // An upload never reaches past the cache, wherever it is aimed.
    if (desc.size < 0 || static_cast<uint64_t>(desc.size) > cache_.size()) {
      in.naturalError = EINVAL;
      return in;
    }
    in.bytes = Copy(arg.resolve(kDescSize + desc.size), kDescSize + desc.size);
    if (in.bytes.empty()) {
      in.naturalError = EFAULT;
    } else if (!selected_ ||
               uint64_t{blocks_.at(*selected_).desc.kGlobalOffset} + desc.size > cache_.size()) {
      in.naturalError = EINVAL;
    }
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
              cache_.begin() + block.desc.kGlobalOffset);
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
  const std::optional<int64_t> forced =
      known != nullptr ? FindAnswer(config_.answers, name, occurrence) : std::nullopt;
  if (forced) {
    out.answer = *forced < 0 ? -1 : *forced;
    out.error = *forced < 0 ? static_cast<int>(-*forced) : 0;
  } else if (in.naturalError != 0) {
    out.answer = -1;
    out.error = in.naturalError;
  }
  // A request the driver refuses, or is told to refuse, changes nothing.
  if (in.naturalError == 0 && out.answer >= 0) Apply(name, in);
  Record(node, name, code, out, in.bytes);
  return out;
}

void Driver::Record(const std::string& node, const std::string& name, uint32_t code,
                    const Outcome& outcome, const std::vector<uint8_t>& bytes) {
  if (journal_ == nullptr) return;
  char file[64];
  std::snprintf(file, sizeof file, "%04u-%s.bin", seq_, name.c_str());
  const std::string path = config_.captureDir + "/" + file;
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  } else {
    std::fprintf(stderr, "korva-driver-sim: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
  }
  const nlohmann::ordered_json line = {
      {"seq", seq_},          {"node", node},         {"request", name},
      {"code", code},         {"answer", outcome.answer}, {"errno", outcome.error},
      {"arg", file},          {"arg_size", bytes.size()},
  };
  std::fprintf(journal_, "%s\n", line.dump().c_str());
  std::fflush(journal_);
}

void Driver::PrintSummary(FILE* out) const {
  std::fprintf(out, "korva-driver-sim summary\n");
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

bool Driver::DumpCache(const std::string& path, std::string& error) const {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = cache_.empty() || std::fwrite(cache_.data(), 1, cache_.size(), f) == cache_.size();
  const bool closed = std::fclose(f) == 0;
  if (!written || !closed) {
    error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace korva_sim
