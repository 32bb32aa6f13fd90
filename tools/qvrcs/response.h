// The filters the DSP receives, as numbers: for the three room slots and the
// headphone-EQ slot of a converted postmix block, each channel's impulse
// response (the 16-bit values as they stand in the block) and its magnitude
// response. What `plot` draws and `report` embeds is exactly this data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qvrcs/layout.h"

namespace qvrcs_tool {

// Magnitudes are given in dB relative to the channel's peak and never below
// this floor; an all-zero channel lies on it everywhere.
constexpr double kFloorDb = -100.0;
// Lowest frequency of the magnitude axis.
constexpr double kLowestHz = 20.0;

struct ChannelResponse {
  std::string label;                // "pair 0 L", "left", "values"
  std::vector<int16_t> taps;        // as the block holds them
  bool allZero = true;
  std::vector<double> timeMs;       // of each tap at the conversion's rate
  std::vector<double> amplitude;    // tap / 32768 (Q15 full scale)
  std::vector<double> frequencyHz;  // FFT bins from kLowestHz to rate / 2
  std::vector<double> magnitudeDb;  // re the channel's peak, >= kFloorDb
};

enum class FilterKind { kRoom, kHeadphoneEq };

// What the conversion did for one slot, as far as the block alone cannot
// tell it: which record reached the slot and how many values its table held.
struct SlotFacts {
  bool known = false;       // false: a payload file; counts come from the block's header
  bool written = false;     // a record reached the slot (else it keeps its template zeros)
  std::string source;       // "postmix.frontRoom[0] -> room postmix.model.rooms[0] \"uuid\""
  std::string outcome;      // what became of the locators, one line
  size_t values = 0;        // values of the chosen coeff_16 table
  size_t end = 0;           // one past the record's last byte in the block (0: unknown)
  uint32_t fileLength = 0;  // headphone EQ: ihpirLength as the file gives it
  std::vector<double> measuredDb;  // headphone EQ: supplementalData.responseDb
  std::vector<std::string> notes;  // cuts, wraps, overruns
};

struct FilterResponse {
  std::string section;  // section map name: "multich_room", "front_room", "wide_room", "hpeq"
  FilterKind kind = FilterKind::kRoom;
  uint32_t rate = 0;    // the conversion's rate; times and frequencies are at it
  SlotFacts facts;
  std::string header;   // the record's header fields as the block holds them
  std::vector<std::string> problems;  // count mismatches, all zeros: said in the plot's title
  std::vector<ChannelResponse> channels;
  bool allZero = true;
};

// Impulse and magnitude response of `taps` at `rate` (Hz, not 0).
ChannelResponse Respond(const std::string& label, std::vector<int16_t> taps, uint32_t rate);

// The four filter sections of a postmix block, in block order, or only those
// named in `sections` (section map names). `facts` is indexed like the
// result of FilterSections().
std::vector<FilterResponse> Responses(const qvrcs::PostmixBlock& block, const std::vector<SlotFacts>& facts,
                                      uint32_t rate, const std::vector<std::string>& sections);

// Section map names of the room and headphone-EQ slots, in block order.
std::vector<std::string> FilterSections();

}  // namespace qvrcs_tool
