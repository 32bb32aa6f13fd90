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
  while (value >= 0x80) {
    out.push_back(static_cast<char>((value & 0x7F) | 0x80));
    value >>= 7;
  }
  out.push_back(static_cast<char>(value));
}

// int32 and enum values are sign-extended to 64 bits: a negative one takes ten bytes.
inline void AppendInt32(std::string& out, int32_t value) {
  AppendVarint(out, static_cast<uint64_t>(static_cast<int64_t>(value)));
}

inline uint32_t ZigZag32(int32_t value) {
  return (static_cast<uint32_t>(value) << 1) ^ static_cast<uint32_t>(value < 0 ? -1 : 0);
}

inline void AppendSInt32(std::string& out, int32_t value) { AppendVarint(out, ZigZag32(value)); }

inline void AppendTag(std::string& out, uint32_t field, WireType type) {
  AppendVarint(out, (static_cast<uint64_t>(field) << 3) | type);
}

inline void AppendFixed32(std::string& out, uint32_t bits) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
}

inline void AppendFixed64(std::string& out, uint64_t bits) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
}

inline void AppendFloat(std::string& out, float value) {
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  AppendFixed32(out, bits);
}

inline void AppendDouble(std::string& out, double value) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  AppendFixed64(out, bits);
}

// Whole fields: tag followed by the value.
inline void VarintField(std::string& out, uint32_t field, uint64_t value) {
  AppendTag(out, field, kVarint);
  AppendVarint(out, value);
}

inline void Int32Field(std::string& out, uint32_t field, int32_t value) {
  AppendTag(out, field, kVarint);
  AppendInt32(out, value);
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
  for (double v : values) AppendDouble(body, v);
  LengthDelimitedField(out, field, body);
}

}  // namespace wire
