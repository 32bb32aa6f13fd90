#include "qvrcs/block_map.h"

#include <algorithm>

#include "qvrcs/field_tables.h"

namespace qvrcs {
namespace {

constexpr const char* kReservedPath = "reserved";

class MapBuilder {
 public:
  template <class Msg>
  void Add(const std::string& record, size_t section, const FieldCopyTable<Msg>& table) {
    for (const FieldCopyEntry<Msg>& entry : table) {
      Push(record + "." + entry.name, section + entry.offset, static_cast<unsigned>(table.width),
           FieldKind::kSetting);
    }
  }

  template <class Msg>
  void Add(const std::string& record, size_t section, const RepeatedCopyEntry<Msg>& entry) {
    for (size_t i = 0; i < entry.slots; ++i) {
      Push(record + "." + entry.name + "[" + std::to_string(i) + "]",
           section + SlotOffset(entry, i), 32, FieldKind::kSetting);
    }
  }

  void Reserved(size_t offset, FieldKind kind) { Push(kReservedPath, offset, 16, kind); }

  std::vector<FieldInfo> Sorted() {
    std::stable_sort(fields_.begin(), fields_.end(),
                     [](const FieldInfo& a, const FieldInfo& b) { return a.offset < b.offset; });
    return std::move(fields_);
  }

 private:
  void Push(std::string path, size_t offset, unsigned width, FieldKind kind) {
    fields_.push_back(FieldInfo{std::move(path), offset, width, kind});
  }

  std::vector<FieldInfo> fields_;
};

void AddEnhance2(MapBuilder& map, const std::string& record, size_t section) {
  map.Add(record, section, kEnhance2Words);
  map.Add(record, section, kEnhance2Htest);
  map.Add(record, section, kEnhance2RefHtest);
}

}  // namespace

std::vector<FieldInfo> PremixFieldMap() {
  MapBuilder map;
  map.Add("premix.dravo", kPremixDravoSection, kDravoWords);
  map.Add("premix.dravo", kPremixDravoSection, kDravoHalfWords);
  map.Reserved(kPremixDravoSection + kDravoReserved, FieldKind::kReserved);
  AddEnhance2(map, "premix.enhance2", kPremixEnhance2Section);
  map.Add("premix", 0, kPremixWords);
  map.Add("premix", 0, kPremixBypassMode);
  return map.Sorted();
}

std::vector<FieldInfo> PostmixControlFieldMap() {
  MapBuilder map;
  map.Add("postmix", 0, kPostmixWords);
  for (const auto& array : kPostmixChannelArrays) map.Add("postmix", 0, array);
  map.Add("postmix", 0, kPostmixBypassMode);

  const size_t mox3d = kPostmixVelmoSection + kVelmoMox3dSubsection;
  map.Add("postmix.velmo.mox3d", mox3d, kMox3dWords);
  map.Add("postmix.velmo.mox3d", mox3d, kMox3dHalfWords);
  map.Reserved(mox3d + kMox3dReserved, FieldKind::kReserved);
  const size_t ombra = kPostmixVelmoSection + kVelmoOmbraSubsection;
  map.Add("postmix.velmo.ombra", ombra, kOmbraWords);
  map.Add("postmix.velmo.ombra", ombra, kOmbraHalfWords);
  const size_t gorm = kPostmixVelmoSection + kVelmoGormSubsection;
  map.Add("postmix.velmo.gorm", gorm, kGormWords);
  map.Add("postmix.velmo.gorm", gorm, kGormHalfWords);
  map.Reserved(gorm + kGormReserved, FieldKind::kReserved);
  map.Add("postmix.velmo", kPostmixVelmoSection, kVelmoWords);
  map.Add("postmix.velmo", kPostmixVelmoSection, kVelmoHalfWords);
  map.Reserved(kPostmixVelmoSection + kVelmoReserved, FieldKind::kReserved);

  map.Add("postmix.geq10b", kPostmixGeq10bSection, kGeq10bWords);
  map.Add("postmix.geq10b", kPostmixGeq10bSection, kGeq10bHalfWords);
  map.Reserved(kPostmixGeq10bSection + kGeq10bAlwaysZero, FieldKind::kAlwaysZero);
  map.Add("postmix.aeq", kPostmixAeqSection, kAeqWords);
  map.Add("postmix.aeq", kPostmixAeqSection, kAeqHalfWords);
  map.Reserved(kPostmixAeqSection + kAeqReserved, FieldKind::kReserved);
  AddEnhance2(map, "postmix.enhance2", kPostmixEnhance2Section);
  map.Add("postmix.zell", kPostmixZellSection, kZellWords);
  return map.Sorted();
}

const FieldInfo* FindField(const std::vector<FieldInfo>& map, const std::string& path) {
  for (const FieldInfo& field : map) {
    if (field.path == path) return &field;
  }
  return nullptr;
}

std::vector<PathStep> SplitFieldPath(const std::string& path) {
  std::vector<PathStep> steps;
  for (size_t start = 0; start <= path.size();) {
    size_t end = path.find('.', start);
    if (end == std::string::npos) end = path.size();
    PathStep step{path.substr(start, end - start), -1};
    if (const size_t bracket = step.name.find('['); bracket != std::string::npos) {
      int index = 0;
      for (size_t i = bracket + 1; i < step.name.size(); ++i) {
        const char digit = step.name[i];
        if (digit < '0' || digit > '9') break;
        index = index * 10 + (digit - '0');
      }
      step.index = index;
      step.name.resize(bracket);
    }
    steps.push_back(std::move(step));
    start = end + 1;
  }
  return steps;
}

}  // namespace qvrcs
