// Any bytes as "configurator.cfg", through load_settings, with every driver
// request answered in this process by the simulated driver's model (see
// fuzz/fake_driver.h).
//
// The search path holds a small fixed tuning set, so that slot file names
// the fuzzer finds (see config.dict) reach every outcome of a slot: a good
// file, one with default settings, one that does not parse, one whose
// conversion fails, an empty one, a directory, a missing one.
//
// A first line "#! RULE..." (a comment to the parser) gives the driver its
// answers, as korva-driver-sim's --answer rules: "#! SET_PARAM#3=-5".
//
// Checked beyond memory safety: the result is one of load_settings' codes
// and agrees with what the driver received.
#include <sys/stat.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "configurator/settings.h"
#include "fuzz/fake_driver.h"
#include "fuzz/fuzz_support.h"
#include "qvrcsPB.pb.h"

namespace {

using com::qvr::pb::wbn::Qvrcs;

constexpr char kRulesPrefix[] = "#!";

std::string Serialize(void (*fill)(Qvrcs&)) {
  Qvrcs message;
  fill(message);
  return message.SerializeAsString();
}

// The tuning set of the search path, written once.
const std::string& SearchPath() {
  static const std::string dir = [] {
    const std::string path = fuzz::ScratchDir() + "/search";
    FUZZ_CHECK(mkdir(path.c_str(), 0755) == 0);
    const std::string good = Serialize([](Qvrcs& m) {
      auto* settings = m.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1();
      settings->mutable_premix()->set_stream_gain(-6);
      auto* postmix = settings->mutable_postmix();
      postmix->set_postmix_gain(-3);
      auto* room = postmix->mutable_model()->add_rooms();
      room->set_uuid("11111111-2222-3333-4444-555555555555");
      auto* table = room->add_coefftables();
      table->set_samplerate(48000);
      for (int i = 0; i < 32; ++i) table->add_coeff_16(i * 1000 - 16000);
      postmix->add_multichroom()->set_uuid("11111111-2222-3333-4444-555555555555");
    });
    const std::string defaults =
        Serialize([](Qvrcs& m) { m.add_workspace()->add_routeconfiguration()->add_tech(); });
    const std::string failing = Serialize([](Qvrcs& m) {
      auto* settings = m.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1();
      settings->mutable_postmix()->add_multichroom()->set_uuid("no such room");
    });
    const std::string junk = "\xff\xff\xff\xff";
    FUZZ_CHECK(fuzz::WriteBytes(path + "/good.bin", good.data(), good.size()));
    FUZZ_CHECK(fuzz::WriteBytes(path + "/defaults.bin", defaults.data(), defaults.size()));
    FUZZ_CHECK(fuzz::WriteBytes(path + "/failing.bin", failing.data(), failing.size()));
    FUZZ_CHECK(fuzz::WriteBytes(path + "/junk.bin", junk.data(), junk.size()));
    FUZZ_CHECK(fuzz::WriteBytes(path + "/empty.bin", nullptr, 0));
    FUZZ_CHECK(mkdir((path + "/dir.bin").c_str(), 0755) == 0);
    return path;
  }();
  return dir;
}

// The driver's answers from the first line, when it starts with "#!";
// words that are not rules are passed over.
std::vector<korva_sim::AnswerRule> Rules(const std::string& text) {
  std::vector<korva_sim::AnswerRule> rules;
  if (text.rfind(kRulesPrefix, 0) != 0) return rules;
  const size_t start = sizeof kRulesPrefix - 1;
  const size_t end = std::min(text.find('\n'), text.size());
  std::istringstream words(text.substr(start, end - start));
  std::string word;
  while (words >> word) {
    korva_sim::AnswerRule rule;
    std::string error;
    if (korva_sim::ParseAnswerRule(word, rule, error)) rules.push_back(rule);
  }
  return rules;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // A slot file name may climb out of the search path; "../../dev/zero" would
  // read forever. Such names are the configuration's to give, not a fault.
  if (text.find("..") != std::string::npos) return 0;

  const std::string& dir = SearchPath();
  FUZZ_CHECK(fuzz::WriteBytes(dir + "/" + qvr::kConfigFileName, data, size));
  fuzz::StartFakeDriver(Rules(text));

  const int32_t result = load_settings(dir.c_str());

  const korva_sim::Driver& driver = fuzz::FakeDriver();
  const auto& blocks = driver.blocks();
  switch (result) {
    case qvr::kResultOk:
      // Every slot went to its own block, with the whole payload.
      FUZZ_CHECK(blocks.size() == qvr::kCacheBlockCount);
      for (const auto& [index, block] : blocks) {
        FUZZ_CHECK(index < qvr::kCacheBlockCount);
        FUZZ_CHECK(block.uploaded);
        FUZZ_CHECK(block.uploadSize == static_cast<int32_t>(qvr::kCacheBlockSize));
      }
      break;
    case qvr::kResultSlotFailed:
      FUZZ_CHECK(driver.cache().size() == static_cast<size_t>(qvr::kDriverCacheSize));
      break;
    case qvr::kResultDriverRefused:
    case qvr::kResultBadConfig:
    case qvr::kResultNoFile:
      // No slot was attempted.
      FUZZ_CHECK(blocks.empty());
      break;
    default:
      FUZZ_CHECK(!"load_settings returned a code of its own making");
  }
  return 0;
}
