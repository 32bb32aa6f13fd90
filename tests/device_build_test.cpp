// The device build as the platform reads it, against this tree's sources:
// what the Android.bp files install into /vendor/etc/qvr (the example set:
// configurator.cfg and the six distinct files it names, each slot with
// devices; what they upload is pinned by the golden fixtures), and that the
// SELinux policy names the driver's nodes and requests.
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

// A module of an Android.bp: its type and top-level properties as text (a
// string, bool or name; a list as its first element; a map as nothing).
struct BpModule {
  std::string type;
  std::map<std::string, std::string> props;
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

  // Adds the modules to `modules`; a test failure when the text is not read to its end.
  void Modules(std::vector<BpModule>& modules) {
    while (ok_ && at_ < tokens_.size()) {
      BpModule module{Next(), {}};
      const std::string next = Next();
      if (next == "{") {
        Map(&modules.emplace_back(std::move(module)).props);
      } else {  // name = value, name += value
        if (next == "+") Expect("=");
        Value();
      }
    }
    EXPECT_TRUE(ok_) << "unreadable Blueprint near token " << at_;
  }

 private:
  std::string Next() {
    ok_ = ok_ && at_ < tokens_.size();
    return ok_ ? tokens_[at_++] : "";
  }
  bool Peek(const char* token) const { return ok_ && at_ < tokens_.size() && tokens_[at_] == token; }
  void Expect(const char* token) { ok_ = ok_ && Next() == token; }

  void Map(std::map<std::string, std::string>* props) {  // after "{"
    for (std::string key = Next(); ok_ && key != "}"; key = Next()) {
      if (key == ",") continue;
      Expect(":");
      const std::string value = Value();
      if (props != nullptr) (*props)[key] = value;
    }
  }

  std::string Value() {  // term ("+" term)*
    std::string value = Term();
    while (Peek("+")) value += (++at_, Term());
    return value;
  }

  std::string Term() {
    const std::string token = Next();
    if (token == "{") return Map(nullptr), "";
    if (token != "[") return token[0] == '"' ? token.substr(1, token.size() - 2) : token;
    std::vector<std::string> items;
    while (ok_ && !Peek("]")) Peek(",") ? void(++at_) : items.push_back(Value());
    Expect("]");
    return items.empty() ? "" : items[0];
  }

  std::vector<std::string> tokens_;
  size_t at_ = 0;
  bool ok_ = true;
};

// Every module of every Android.bp under the source tree (build trees skipped).
std::vector<BpModule> TreeModules() {
  std::vector<BpModule> modules;
  using Walk = std::filesystem::recursive_directory_iterator;
  for (auto it = Walk(QVR_SOURCE_DIR); it != Walk(); ++it) {
    const std::string name = it->path().filename().string();
    if (it->is_directory() && (name.rfind("build", 0) == 0 || name[0] == '.')) {
      it.disable_recursion_pending();
    } else if (it->path().extension() == ".bp") {
      SCOPED_TRACE(it->path().string());
      BpParser(qvr_test::ReadFile(it->path().string())).Modules(modules);
    }
  }
  return modules;
}

std::string Prop(const BpModule& m, const char* name) { return m.props.count(name) != 0 ? m.props.at(name) : ""; }

// The name prebuilt_etc installs `module` under: `filename`, else the source's
// own name with `filename_from_src` (a genrule's first output for ":module"),
// else the module's name.
std::string InstalledName(const BpModule& module, const std::vector<BpModule>& all) {
  if (!Prop(module, "filename").empty()) return Prop(module, "filename");
  if (Prop(module, "filename_from_src") != "true") return Prop(module, "name");
  std::string src = Prop(module, "src");
  for (const BpModule& other : all) {
    if (":" + Prop(other, "name") == src) src = Prop(other, "out");
  }
  return std::filesystem::path(src).filename().string();
}

TEST(DeviceBuild, InstallsConfigurationAndTheFilesItNamesUnderTheirOwnNames) {
  com::qvr::korva::configurator::qdsp6::ConfiguratorConfig config;
  ASSERT_EQ(qvr::ReadConfiguratorConfig(QVR_SOURCE_DIR "/examples/configurator.cfg", config, nullptr),
            qvr::ConfigRead::kOk);
  std::set<std::string> files = {qvr::kConfigFileName};
  for (const qvr::ConfigSlot& slot : qvr::kConfigSlots) {
    files.insert((config.*slot.get)().filename());
    EXPECT_NE((config.*slot.get)().device_bitmask(), 0u) << slot.name;
  }

  // configurator.cfg and the files it names, each once, under its own name
  // (two slots naming one file would leave one module over).
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
  const auto matches = [](const char* file, const char* pattern) {  // first groups, in android/`file`
    const std::string text = qvr_test::ReadFile(std::string(QVR_SOURCE_DIR "/android/") + file);
    std::set<std::string> found;
    const std::regex re(pattern);
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) found.insert((*it)[1]);
    return found;
  };
  std::set<std::string> requests;
  for (const QvrKorvaRequest& request : kQvrKorvaRequests) {
    requests.insert(qvr_test::Format("0x%X", _IOC_TYPE(request.code) << 8 | _IOC_NR(request.code)));
  }
  EXPECT_EQ(matches("sepolicy/qvr_configurator.te", R"([\s{](0x[0-9A-F]{4})\b)"), requests);

  // file_contexts: the two nodes carry the driver's type; the executable's
  // line matches the path init starts, under /vendor and /system/vendor.
  EXPECT_EQ(matches("sepolicy/file_contexts", R"(\n(/\S+)\s+u:object_r:qvr_korva_device:s0)"),
            (std::set<std::string>{kQvrKorvaHardwareNode, kQvrKorvaSoftwareNode}));
  const std::set<std::string> exec = matches("sepolicy/file_contexts", R"(\n(/\S+)\s+u:object_r:qvr_configurator_exec:)");
  const std::set<std::string> service = matches("qvr_configurator.rc", R"(\nservice qvr_configurator (\S+))");
  ASSERT_TRUE(exec.size() == 1u && service == std::set<std::string>{"/vendor/bin/qvr_configurator"});
  for (const std::string& path : {*service.begin(), "/system" + *service.begin()}) {
    EXPECT_TRUE(std::regex_match(path, std::regex(*exec.begin(), std::regex::extended))) << path;
  }
}

}  // namespace
