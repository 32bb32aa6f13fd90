// Helpers shared by the premix, postmix control section and block map tests.
#pragma once

#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvrcs/block_io.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/templates.h"

namespace conversion_test {

using com::qvr::pb::korva_v1_1::KorvaSettings;

constexpr uint8_t kFill = 0x5A;  // marks a caller's bytes that must stay as they are

// A block on the heap, exactly its size, so that a stray store past its end
// is caught by AddressSanitizer.
template <size_t N>
struct Block {
  std::unique_ptr<std::array<uint8_t, N>> bytes = std::make_unique<std::array<uint8_t, N>>();

  explicit Block(uint8_t fill) { bytes->fill(fill); }
  explicit Block(const std::array<uint8_t, N>& from) { *bytes = from; }

  qvrcs::BlockView View() const { return qvrcs::BlockView{bytes->data(), N, 0}; }
  int32_t I32(size_t offset) const { return qvrcs::LoadI32(bytes->data(), N, offset); }
  int16_t I16(size_t offset) const { return qvrcs::LoadI16(bytes->data(), N, offset); }
  uint8_t operator[](size_t offset) const { return (*bytes)[offset]; }
};

using Premix = Block<qvrcs::kPremixBlockSize>;
using Postmix = Block<qvrcs::kPostmixBlockSize>;

inline int32_t TemplateI32(const qvrcs::PremixBlock& t, size_t offset) {
  return qvrcs::LoadI32(t.data(), t.size(), offset);
}
inline int32_t TemplateI32(const qvrcs::PostmixBlock& t, size_t offset) {
  return qvrcs::LoadI32(t.data(), t.size(), offset);
}

// Offsets at which `block` differs from `reference`.
template <size_t N>
std::set<size_t> ChangedBytes(const Block<N>& block, const std::array<uint8_t, N>& reference) {
  std::set<size_t> changed;
  for (size_t i = 0; i < N; ++i) {
    if ((*block.bytes)[i] != reference[i]) changed.insert(i);
  }
  return changed;
}

// The byte offsets of the ranges [begin, end).
inline std::set<size_t> Bytes(std::initializer_list<std::pair<size_t, size_t>> ranges) {
  std::set<size_t> bytes;
  for (const auto& [begin, end] : ranges) {
    for (size_t i = begin; i < end; ++i) bytes.insert(i);
  }
  return bytes;
}
inline std::set<size_t> Bytes(size_t begin, size_t end) { return Bytes({{begin, end}}); }

// True when every offset of `changed` lies in [begin, end).
inline bool AllWithin(const std::set<size_t>& changed, size_t begin, size_t end) {
  return changed.empty() || (*changed.begin() >= begin && *changed.rbegin() < end);
}

// True when every offset of `changed` is one of `allowed`.
inline bool OnlyIn(const std::set<size_t>& changed, const std::set<size_t>& allowed) {
  for (size_t i : changed) {
    if (allowed.count(i) == 0) return false;
  }
  return true;
}

// Resolves a block map path ("postmix.velmo.gorm.level", "premix.bypass_mode[3]")
// through reflection, creating the records on the way.
struct PathTarget {
  google::protobuf::Message* message = nullptr;
  const google::protobuf::FieldDescriptor* field = nullptr;
  int index = -1;  // element index for a repeated field
};

inline PathTarget Resolve(google::protobuf::Message& root, const std::string& path) {
  google::protobuf::Message* message = &root;
  size_t start = 0;
  while (true) {
    const size_t dot = path.find('.', start);
    std::string name = path.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    int index = -1;
    const size_t bracket = name.find('[');
    if (bracket != std::string::npos) {
      index = std::stoi(name.substr(bracket + 1));
      name.resize(bracket);
    }
    const auto* field = message->GetDescriptor()->FindFieldByName(name);
    if (field == nullptr) return PathTarget{};
    if (dot == std::string::npos) return PathTarget{message, field, index};
    if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) return PathTarget{};
    message = message->GetReflection()->MutableMessage(message, field);
    start = dot + 1;
  }
}

// Sets the int32 field at `path`; false when the path names no such field.
inline bool SetByPath(google::protobuf::Message& root, const std::string& path, int32_t value) {
  const PathTarget t = Resolve(root, path);
  if (t.field == nullptr || t.field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_INT32) {
    return false;
  }
  const auto* reflection = t.message->GetReflection();
  if (t.field->is_repeated() != (t.index >= 0)) return false;
  if (t.index < 0) {
    reflection->SetInt32(t.message, t.field, value);
    return true;
  }
  while (reflection->FieldSize(*t.message, t.field) <= t.index) reflection->AddInt32(t.message, t.field, 0);
  reflection->SetRepeatedInt32(t.message, t.field, t.index, value);
  return true;
}

}  // namespace conversion_test
