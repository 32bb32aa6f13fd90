#include "qvrcs/block_map.h"

#include <algorithm>

#include "qvrcs/field_tables.h"

namespace qvrcs {
namespace {

constexpr const char* kReservedPath = "reserved";

class MapBuilder {
 public:
  template <class Msg>
  void Fields(const std::string& record, size_t section, const FieldCopyTable<Msg>& table) {
    for (const FieldCopyEntry<Msg>& entry : table) {
      Push(record + "." + entry.name, section + entry.offset, static_cast<unsigned>(table.width),
           FieldKind::kSetting);
    }
  }

  template <class Msg>
  void Fields(const std::string& record, size_t section, const RepeatedCopyEntry<Msg>& entry) {
    for (size_t i = 0; i < entry.slots; ++i) {
      Push(record + "." + entry.name + "[" + std::to_string(i) + "]",
           section + SlotOffset(entry, i), 32, FieldKind::kSetting);
    }
  }

  void Reserved(size_t offset) { Push(kReservedPath, offset, 16, FieldKind::kReserved); }
  void AlwaysZero(size_t offset) { Push(kReservedPath, offset, 16, FieldKind::kAlwaysZero); }

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

}  // namespace

std::vector<FieldInfo> PremixFieldMap() {
  MapBuilder map;
  VisitPremixBlock(map);
  return map.Sorted();
}

std::vector<FieldInfo> PostmixControlFieldMap() {
  MapBuilder map;
  VisitPostmixControls(map);
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
