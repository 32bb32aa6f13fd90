// The device build as the platform reads it, checked against this tree's
// own sources: what the Android.bp files install into /vendor/etc/qvr, and
// that the SELinux policy names the driver's nodes and requests.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "configurator/config_file.h"
#include "configurator/korva_driver.h"
#include "configurator/settings.h"
#include "test_support.h"

namespace {

// A Blueprint value: a string (or bool, number, variable name) as text, a
// list as its elements, a map as its properties.
struct BpValue {
  std::string text;
  std::vector<BpValue> items;
  std::map<std::string, BpValue> props;
};

struct BpModule {
  std::string type;
  BpValue body;
};

// Enough of Blueprint's grammar for a tree's Android.bp files: comments,
// modules, variable assignments (skipped), maps, lists, strings and `+`.
class BpParser {
 public:
  explicit BpParser(const std::string& text) {
    static const std::regex kToken(R"re("(?:\\.|[^"\\])*"|//[^\n]*|/\*[\s\S]*?\*/|\w+|\S)re");
    for (std::sregex_iterator it(text.begin(), text.end(), kToken), end; it != end; ++it) {
      if (it->str().rfind("//", 0) != 0 && it->str().rfind("/*", 0) != 0) tokens_.push_back(it->str());
    }
  }

  // The modules, or nothing (with a test failure) when the text is not read to its end.
  std::vector<BpModule> Modules() {
    std::vector<BpModule> modules;
    while (ok_ && at_ < tokens_.size()) {
      const std::string name = Next();
      if (Next() == "{") {
        modules.push_back({name, Map()});
      } else {  // name = value, name += value
        if (tokens_[at_ - 1] == "+") Expect("=");
        Value();
      }
    }
    EXPECT_TRUE(ok_) << "unreadable Blueprint near token " << at_;
    return ok_ ? modules : std::vector<BpModule>{};
  }

 private:
  std::string Next() {
    ok_ = ok_ && at_ < tokens_.size();
    return ok_ ? tokens_[at_++] : "";
  }
  void Expect(const char* token) { ok_ = ok_ && Next() == token; }

  BpValue Map() {  // after "{"
    BpValue map;
    for (std::string key = Next(); ok_ && key != "}"; key = Next()) {
      if (key == ",") continue;
      Expect(":");
      map.props[key] = Value();
    }
    return map;
  }

  BpValue Value() {  // term ("+" term)*
    BpValue value = Term();
    while (ok_ && at_ < tokens_.size() && tokens_[at_] == "+") {
      ++at_;
      BpValue more = Term();
      value.text += more.text;
      value.items.insert(value.items.end(), more.items.begin(), more.items.end());
    }
    return value;
  }

  BpValue Term() {
    const std::string token = Next();
    if (token == "{") return Map();
    BpValue value;
    if (token != "[") {
      value.text = token[0] == '"' ? token.substr(1, token.size() - 2) : token;
      return value;
    }
    while (ok_ && at_ < tokens_.size() && tokens_[at_] != "]") {
      if (tokens_[at_] == ",") {
        ++at_;
      } else {
        value.items.push_back(Value());
      }
    }
    Expect("]");
    return value;
  }

  std::vector<std::string> tokens_;
  size_t at_ = 0;
  bool ok_ = true;
};

// Every module of every Android.bp under the source tree (build trees skipped).
std::vector<BpModule> TreeModules() {
  std::vector<BpModule> modules;
  namespace fs = std::filesystem;
  for (auto it = fs::recursive_directory_iterator(QVR_SOURCE_DIR); it != fs::recursive_directory_iterator(); ++it) {
    const std::string name = it->path().filename().string();
    if (it->is_directory() && (name.rfind("build", 0) == 0 || name[0] == '.')) {
      it.disable_recursion_pending();
    } else if (it->path().extension() == ".bp") {
      SCOPED_TRACE(it->path().string());
      std::vector<BpModule> found = BpParser(qvr_test::ReadFile(it->path().string())).Modules();
      modules.insert(modules.end(), found.begin(), found.end());
    }
  }
  return modules;
}

std::string Prop(const BpModule& module, const char* name) {
  const auto it = module.body.props.find(name);
  return it == module.body.props.end() ? "" : it->second.text;
}

// The name prebuilt_etc installs `module` under: `filename`, else the source's
// own name with `filename_from_src` (a genrule's first output for ":module"),
// else the module's name.
std::string InstalledName(const BpModule& module, const std::vector<BpModule>& all) {
  if (!Prop(module, "filename").empty()) return Prop(module, "filename");
  if (Prop(module, "filename_from_src") != "true") return Prop(module, "name");
  std::string src = Prop(module, "src");
  if (src.rfind(":", 0) == 0) {
    for (const BpModule& other : all) {
      const auto out = other.body.props.find("out");
      if (Prop(other, "name") == src.substr(1) && out != other.body.props.end() && !out->second.items.empty()) {
        src = out->second.items[0].text;
      }
    }
  }
  return std::filesystem::path(src).filename().string();
}

TEST(DeviceBuild, InstallsConfigurationAndTheFilesItNamesUnderTheirOwnNames) {
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  ASSERT_EQ(qvr::ReadConfiguratorConfig(QVR_SOURCE_DIR "/examples/configurator.cfg", config, nullptr),
            qvr::ConfigRead::kOk);
  std::set<std::string> files = {qvr::kConfigFileName};
  for (const qvr::ConfigSlot& slot : qvr::kConfigSlots) files.insert((config.*slot.get)().filename());

  // configurator.cfg and the files it names, each once, under its own name.
  const std::vector<BpModule> modules = TreeModules();
  std::multiset<std::string> installed;
  for (const BpModule& module : modules) {
    if (module.type == "prebuilt_etc" && Prop(module, "sub_dir") == "qvr") {
      installed.insert(InstalledName(module, modules));
    }
  }
  EXPECT_EQ(installed, std::multiset<std::string>(files.begin(), files.end()));
}

// The policy's node labels and ioctl list against the driver header: a node
// or request added on one side only would be denied on the device.
TEST(DeviceBuild, PolicyNamesTheDriversNodesAndRequests) {
  const std::string policy = qvr_test::ReadFile(QVR_SOURCE_DIR "/android/sepolicy/qvr_configurator.te");
  std::smatch list;
  ASSERT_TRUE(std::regex_search(policy, list, std::regex(R"(allowxperm[^;]*ioctl\s*\{([^}]*)\})")));
  std::set<unsigned long> allowed;
  const std::string numbers = list[1];
  const std::regex hex("0x[0-9A-Fa-f]+");
  for (std::sregex_iterator it(numbers.begin(), numbers.end(), hex), end; it != end; ++it) {
    allowed.insert(std::stoul(it->str(), nullptr, 16));
  }
  std::set<unsigned long> requests;
  for (const QvrKorvaRequest& request : kQvrKorvaRequests) {
    requests.insert(_IOC_TYPE(request.code) << 8 | _IOC_NR(request.code));
  }
  EXPECT_EQ(allowed, requests);

  // file_contexts: the two nodes carry the driver's type; the executable's
  // line matches the path init starts, under /vendor and /system/vendor.
  std::set<std::string> nodes;
  std::string exec;
  std::istringstream contexts(qvr_test::ReadFile(QVR_SOURCE_DIR "/android/sepolicy/file_contexts"));
  for (std::string path, label; contexts >> path >> label;) {
    if (path[0] == '#') {
      std::getline(contexts, path);
      continue;
    }
    if (label == "u:object_r:qvr_korva_device:s0") nodes.insert(path);
    if (label == "u:object_r:qvr_configurator_exec:s0") exec = path;
  }
  EXPECT_EQ(nodes, (std::set<std::string>{kQvrKorvaHardwareNode, kQvrKorvaSoftwareNode}));
  std::smatch service;
  const std::string rc = qvr_test::ReadFile(QVR_SOURCE_DIR "/android/qvr_configurator.rc");
  ASSERT_TRUE(std::regex_search(rc, service, std::regex(R"(\nservice qvr_configurator (\S+))")));
  EXPECT_EQ(service[1], "/vendor/bin/qvr_configurator");
  for (const std::string& path : {std::string(service[1]), "/system" + std::string(service[1])}) {
    EXPECT_TRUE(std::regex_match(path, std::regex(exec, std::regex::extended))) << path << " against " << exec;
  }
}

}  // namespace
