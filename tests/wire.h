// Hand encoder of the protobuf wire format, for tests that build records from
// field numbers and wire types without going through the generated classes.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace wire {

enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

inline void AppendVarint(std::string& out, uint64_t value) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>((value & 0x7F) | 0x80));
  out.push_back(static_cast<char>(value));
}

inline void AppendSInt32(std::string& out, int32_t value) {
  AppendVarint(out, (static_cast<uint32_t>(value) << 1) ^ static_cast<uint32_t>(value < 0 ? -1 : 0));
}

inline void AppendTag(std::string& out, uint32_t field, WireType type) {
  AppendVarint(out, (static_cast<uint64_t>(field) << 3) | type);
}

// Little-endian bytes of a float (4) or a double (8).
template <typename Float>
void AppendFloat(std::string& out, Float value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  for (size_t i = 0; i < sizeof value; ++i) out.push_back(bytes[i]);  // the hosts are little-endian
}

// Whole fields: tag followed by the value.
inline void VarintField(std::string& out, uint32_t field, uint64_t value) {
  AppendTag(out, field, kVarint);
  AppendVarint(out, value);
}

// int32 and enum values are sign-extended to 64 bits: a negative one takes ten bytes.
inline void Int32Field(std::string& out, uint32_t field, int32_t value) {
  VarintField(out, field, static_cast<uint64_t>(static_cast<int64_t>(value)));
}

inline void SInt32Field(std::string& out, uint32_t field, int32_t value) {
  AppendTag(out, field, kVarint);
  AppendSInt32(out, value);
}

inline void LengthDelimitedField(std::string& out, uint32_t field, std::string_view payload) {
  AppendTag(out, field, kLengthDelimited);
  AppendVarint(out, payload.size());
  out.append(payload.data(), payload.size());
}

// Packed lists: one tag, one length, then the values back to back.
inline void PackedSInt32Field(std::string& out, uint32_t field, std::initializer_list<int32_t> values) {
  std::string body;
  for (int32_t v : values) AppendSInt32(body, v);
  LengthDelimitedField(out, field, body);
}

inline void PackedDoubleField(std::string& out, uint32_t field, std::initializer_list<double> values) {
  std::string body;
  for (double v : values) AppendFloat(body, v);
  LengthDelimitedField(out, field, body);
}

}  // namespace wire
