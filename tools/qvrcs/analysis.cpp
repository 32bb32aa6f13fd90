#include "tools/qvrcs/analysis.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "qvrcs/block_map.h"
#include "qvrcs/coef_pack.h"
#include "qvrcs/field_tables.h"
#include "qvrcs/record_layout.h"
#include "qvrcs/section_map.h"

namespace qvrcs_tool {

namespace gp = google::protobuf;
using com::qvr::pb::coef::Aeq;
using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::headphoneEq;
using com::qvr::pb::model::listeningModel;
using com::qvr::pb::model::roomModel;
using com::qvr::pb::wbn::ResourceLocator;
using Tables = gp::RepeatedPtrField<CoefTable>;
using Locators = gp::RepeatedPtrField<ResourceLocator>;

namespace {

const std::string kRate = std::to_string(kSampleRate) + " Hz";

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

// The rates a table list offers, for "has no table for 48000 Hz (...)".
std::string RatesOf(const Tables& tables) {
  if (tables.empty()) return "it has no tables";
  std::string text = "its tables: ";
  for (int i = 0; i < tables.size(); ++i) {
    if (i > 0) text += ", ";
    text += tables.Get(i).has_samplerate() ? std::to_string(tables.Get(i).samplerate()) + " Hz"
                                           : "no sampleRate";
  }
  return text;
}

// Tables with the value-only rate rule, and their sizes, for the sections
// that use it.
std::string RatesAndSizes(const Tables& tables, bool coeff16) {
  if (tables.empty()) return "it has no tables";
  std::string text = "its tables: ";
  for (int i = 0; i < tables.size(); ++i) {
    const CoefTable& t = tables.Get(i);
    if (i > 0) text += ", ";
    text += std::to_string(t.samplerate()) + " Hz with " +
            std::to_string(coeff16 ? t.coeff_16_size() : t.coeff_32_size()) + " values";
  }
  return text;
}

// Values of a coeff_16 list that do not fit 16 bits (stored as u16, so
// -32768..65535 is kept as it is).
std::string Coeff16Wrap(const std::string& record, const CoefTable& table) {
  size_t count = 0;
  int first = -1;
  for (int i = 0; i < table.coeff_16_size(); ++i) {
    const int32_t v = table.coeff_16(i);
    if (v < -32768 || v > 65535) {
      if (first < 0) first = i;
      ++count;
    }
  }
  if (count == 0) return {};
  const int32_t v = table.coeff_16(first);
  return record + ": coeff_16[" + std::to_string(first) + "] = " + std::to_string(v) +
         " does not fit 16 bits, the DSP gets " + std::to_string(static_cast<uint16_t>(v & 0xFFFF)) +
         (count > 1 ? " (" + std::to_string(count) + " values wrap)" : "");
}

struct Found {
  std::string name;  // "postmix.model.rooms[2] \"uuid\" (name)"
  int index = -1;
};

template <class Record>
Found Describe(const char* list, int index, const Record& record) {
  Found found;
  found.index = index;
  found.name = std::string("postmix.model.") + list + "[" + std::to_string(index) + "] " +
               Quote(record.uuid());
  return found;
}

// First room, headphone EQ or AEQ of the models whose uuid matches, with
// its place for messages. The models are the postmix record's own one.
template <class Record, class ListOf>
const Record* FindIn(const ListeningModelList& models, const std::string& uuid, ListOf list,
                     const char* listName, Found& found) {
  for (const listeningModel& model : models) {
    const auto& records = list(model);
    for (int i = 0; i < records.size(); ++i) {
      if (QVRCS_UuidEqualsIgnoreCase(records.Get(i).uuid(), uuid)) {
        found = Describe(listName, i, records.Get(i));
        return &records.Get(i);
      }
    }
  }
  return nullptr;
}

// The block bytes of one section, as the section map describes it.
struct Slot {
  size_t offset;
  size_t capacity;
};

// Past the section that starts at `start` and holds `capacity` bytes, a run
// of `count` values of `width` bits from `first`: where it ends up.
std::string Overrun(const std::string& what, size_t first, size_t count, unsigned width,
                    size_t sectionEnd) {
  const size_t bytes = count * width / 8;
  const size_t end = first + bytes;
  if (end <= sectionEnd) return {};
  const auto map = qvrcs::PostmixSectionMap();
  std::string text = what + ": " + std::to_string(count) + " values run " +
                     std::to_string(end - sectionEnd) + " bytes past the section's end (byte " +
                     std::to_string(sectionEnd) + ")";
  if (end > qvrcs::kPostmixBlockSize) {
    const size_t dropped = (end - qvrcs::kPostmixBlockSize) / (width / 8);
    return text + " and are cut at the end of the block: the last " + std::to_string(dropped) +
           " values are dropped";
  }
  std::string into;
  for (const qvrcs::SectionInfo& s : map) {
    if (s.offset >= sectionEnd && s.offset < end) into += (into.empty() ? "" : ", ") + s.name;
  }
  if (into.empty()) {
    // Within one section of the map: the AEQ record's first channel runs on into the second.
    const qvrcs::SectionInfo* within = qvrcs::SectionAt(map, sectionEnd);
    into = within != nullptr ? "the rest of " + within->name : "the following bytes";
  }
  return text + " into " + into;
}

class Walker {
 public:
  explicit Walker(const KorvaSettings& settings)
      : postmix_(settings.postmix()), models_(ModelsOf(settings)),
        scratch_(std::make_unique<qvrcs::PostmixBlock>()) {}

  std::vector<LocatorOutcome> Rooms(const char* listName, const Locators& locators, Slot slot) {
    std::vector<LocatorOutcome> out;
    for (int j = 0; j < locators.size(); ++j) {
      LocatorOutcome o = Start(listName, j, locators.Get(j));
      o.status = QVRCS_LoadRoom(o.uuid, models_, View(slot.offset), slot.capacity, kSampleRate);
      Found found;
      const roomModel* room = FindIn<roomModel>(models_, o.uuid, [](const listeningModel& m) -> const auto& { return m.rooms(); }, "rooms", found);
      const CoefTable* table =
          room != nullptr ? QVRCS_FindCoefTable(room->coefftables(), kSampleRate) : nullptr;
      o.firstRecord = found.name;
      if (o.status == QVRCS_NOTHING_TO_LOAD) {
        o.what = "no uuid: skipped";
      } else if (room == nullptr) {
        o.what = "no listening model holds room " + Quote(o.uuid);
      } else if (table == nullptr) {
        o.what = "room " + found.name + " has no coefficient table for " + kRate + " (" +
                 RatesOf(room->coefftables()) + ")";
      } else if (table->coeff_16_size() == 0) {
        o.what = "room " + found.name + ": its " + kRate + " table has no coeff_16 values";
      } else {
        const size_t n = static_cast<size_t>(table->coeff_16_size());
        o.count = n;
        o.sampleRate = table->samplerate();
        const size_t need = qvrcs::kRoomCoefs + 2 * n;
        if (o.status == QVRCS_ERR_RECORD_TOO_LARGE) {
          o.what = "room " + found.name + ": its " + kRate + " table has " + std::to_string(n) +
                   " coeff_16 values, a record of " + std::to_string(need) + " bytes; the slot holds " +
                   std::to_string(slot.capacity) + " (at most " +
                   std::to_string((slot.capacity - qvrcs::kRoomCoefs) / 2) + " values)";
        } else {
          o.what = "room " + found.name + ": " + kRate + ", " + std::to_string(n) +
                   " values, record ends at byte " + std::to_string(slot.offset + need);
          o.wrap = Coeff16Wrap("room " + found.name, *table);
        }
      }
      out.push_back(o);
      if (o.status < 0) break;
    }
    return out;
  }

  std::vector<LocatorOutcome> HeadphoneEqs() {
    std::vector<LocatorOutcome> out;
    const Locators& locators = postmix_.hpeqcoef();
    for (int j = 0; j < locators.size(); ++j) {
      LocatorOutcome o = Start("hpeqCoef", j, locators.Get(j));
      o.status = QVRCS_LoadHeadphoneEq(o.uuid, models_, View(qvrcs::kHeadphoneEqSlot),
                                       qvrcs::kHeadphoneEqCapacity, kSampleRate);
      Found found;
      const headphoneEq* eq =
          FindIn<headphoneEq>(models_, o.uuid, [](const listeningModel& m) -> const auto& { return m.headphones(); }, "headphones", found);
      o.firstRecord = found.name;
      const CoefTable* table =
          eq != nullptr ? QVRCS_FindCoefTable(eq->coefftables(), kSampleRate) : nullptr;
      if (eq == nullptr) {
        o.what = "no listening model holds headphone EQ " + Quote(o.uuid) + ": nothing loaded";
      } else if (table == nullptr) {
        o.what = "headphone EQ " + found.name + " has no coefficient table for " + kRate + " (" +
                 RatesOf(eq->coefftables()) + ")";
      } else if (table->coeff_16_size() == 0) {
        o.what = "headphone EQ " + found.name + ": its " + kRate + " table has no coeff_16 values";
      } else {
        const size_t n = static_cast<size_t>(table->coeff_16_size());
        o.count = n;
        o.sampleRate = table->samplerate();
        o.ihpirLength = eq->ihpirlength();
        o.wrap = Coeff16Wrap("headphone EQ " + found.name, *table);
        if (eq->ihpirlength() > qvrcs::kHpeqMaxTaps) {
          o.what = "headphone EQ " + found.name + ": " + kRate + ", ihpirLength " +
                   std::to_string(eq->ihpirlength()) + ", " + std::to_string(n) +
                   " values, cut to " + std::to_string(qvrcs::kHpeqMaxTaps) + " taps per channel";
          o.end = qvrcs::kHeadphoneEqSlot + qvrcs::kHeadphoneEqCapacity;
        } else {
          o.end = qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqCoefs + 2 * n;
          o.what = "headphone EQ " + found.name + ": " + kRate + ", ihpirLength " +
                   std::to_string(eq->ihpirlength()) + ", " + std::to_string(n) +
                   " values, record ends at byte " + std::to_string(o.end);
        }
      }
      out.push_back(o);
    }
    return out;
  }

  std::vector<LocatorOutcome> Aeqs() {
    std::vector<LocatorOutcome> out;
    const Locators& locators = postmix_.aeqcoef();
    for (int j = 0; j < locators.size(); ++j) {
      LocatorOutcome o = Start("aeqCoef", j, locators.Get(j));
      if (o.uuid.empty()) {
        o.status = QVRCS_NOTHING_TO_LOAD;
        o.what = "no uuid: skipped";
        out.push_back(o);
        continue;
      }
      o.status = QVRCS_LoadAeq(o.uuid, models_, View(qvrcs::kAeqRecord), kSampleRate);
      Found found;
      const Aeq* aeq = FindIn<Aeq>(models_, o.uuid, [](const listeningModel& m) -> const auto& { return m.aeqs(); }, "aeqs", found);
      o.firstRecord = found.name;
      o.what = aeq == nullptr ? "no listening model holds AEQ " + Quote(o.uuid) : AeqWhat(*aeq, found, o);
      out.push_back(o);
      if (o.status == QVRCS_OK) break;
    }
    return out;
  }

  const Postmix& postmix() const { return postmix_; }

 private:
  LocatorOutcome Start(const char* list, int index, const ResourceLocator& locator) {
    LocatorOutcome o;
    o.locator = std::string("postmix.") + list + "[" + std::to_string(index) + "]";
    o.uuid = locator.uuid();
    return o;
  }

  qvrcs::BlockView View(size_t offset) const {
    return qvrcs::BlockView{scratch_->data(), scratch_->size(), offset};
  }

  // Mirrors the bank choice of the AEQ loader only to name the banks.
  std::string AeqWhat(const Aeq& aeq, const Found& found, LocatorOutcome& o) const {
    const auto& banks = aeq.coefficient_table();
    std::vector<int> kept;
    const bool filter = banks.size() > static_cast<int>(qvrcs::kAeqChannels);
    for (int i = 0; i < banks.size(); ++i) {
      if (!filter || QVRCS_FindCoefTable(banks.Get(i).iircoefs(), kSampleRate) != nullptr) {
        kept.push_back(i);
      }
    }
    const std::string name = "AEQ " + found.name;
    if (kept.size() < qvrcs::kAeqChannels) {
      return name + " has " + std::to_string(banks.size()) + " filter banks" +
             (filter ? ", " + std::to_string(kept.size()) + " with a " + kRate + " IIR table" : "") +
             ": two are needed";
    }
    std::string text = name + ":";
    size_t end = 0;
    for (size_t ch = 0; ch < qvrcs::kAeqChannels; ++ch) {
      const auto& bank = banks.Get(kept[ch]);
      const CoefTable* table = QVRCS_FindCoefTable(bank.iircoefs(), kSampleRate);
      text += (ch ? "," : "") + std::string(" channel ") + std::to_string(ch) + " from bank " +
              std::to_string(kept[ch]);
      if (table == nullptr) {
        text += " which has no " + kRate + " IIR table (" + RatesOf(bank.iircoefs()) + ")";
        continue;
      }
      const size_t n = static_cast<size_t>(table->coeff_32_size());
      text += " (" + std::to_string(n) + " values)";
      o.count += n;
      o.sampleRate = table->samplerate();
      const size_t first = qvrcs::kAeqRecord + (ch ? qvrcs::kAeqChannel1 : qvrcs::kAeqChannel0) +
                           qvrcs::kAeqCoefs;
      const std::string over =
          Overrun(name + " channel " + std::to_string(ch), first, n, 32,
                  first + 4 * qvrcs::kAeqChannelCoefs);
      if (!over.empty()) o.overruns.push_back(over);
      end = std::max(end, first + 4 * n);
    }
    o.end = end;
    return text;
  }

  const Postmix& postmix_;
  ListeningModelList models_;
  std::unique_ptr<qvrcs::PostmixBlock> scratch_;
};

// The last locator whose record was written (rooms, headphone EQ) or the
// first (AEQ), as the section's source.
SectionOrigin FromLocators(const std::vector<LocatorOutcome>& walk, bool firstWins) {
  SectionOrigin origin;
  const LocatorOutcome* chosen = nullptr;
  for (const LocatorOutcome& o : walk) {
    if (o.status != QVRCS_OK) continue;
    chosen = &o;
    if (firstWins) break;
  }
  if (chosen == nullptr) return origin;
  origin.fromFile = true;
  origin.source = chosen->locator + " " + Quote(chosen->uuid);
  origin.detail = chosen->what;
  origin.end = chosen->end;
  return origin;
}

// A coefficient section filled by value-only table selection.
struct CoefPick {
  const CoefTable* table = nullptr;
  int index = -1;
};

// First (or last) table whose rate value is the working rate and that passes `ok`.
template <class Ok>
CoefPick Pick(const Tables& tables, bool last, Ok ok) {
  CoefPick pick;
  for (int i = 0; i < tables.size(); ++i) {
    if (!qvrcs::TableRateIs(tables.Get(i), kSampleRate) || !ok(tables.Get(i))) continue;
    pick = CoefPick{&tables.Get(i), i};
    if (!last) break;
  }
  return pick;
}

SectionOrigin CoefOrigin(const std::string& list, const CoefPick& pick, bool coeff16,
                         size_t first, size_t capacity, std::vector<std::string>* overruns) {
  SectionOrigin origin;
  if (pick.table == nullptr) return origin;
  const size_t n = static_cast<size_t>(coeff16 ? pick.table->coeff_16_size() : pick.table->coeff_32_size());
  const unsigned width = coeff16 ? 16 : 32;
  origin.fromFile = true;
  origin.source = list + "[" + std::to_string(pick.index) + "]";
  origin.end = first + n * width / 8;
  origin.detail = kRate + ", " + std::to_string(n) + " values, ends at byte " + std::to_string(origin.end);
  if (overruns != nullptr) {
    const std::string over = Overrun(origin.source, first, n, width, first + capacity);
    if (!over.empty()) overruns->push_back(over);
  }
  return origin;
}

SectionOrigin WordOrigin(bool present, const std::string& source, bool alwaysWritten) {
  SectionOrigin origin;
  origin.fromFile = present;
  origin.source = source;
  if (!present && alwaysWritten) origin.detail = "absent: the conversion writes 0";
  return origin;
}

void AddSections(Analysis& a, const Postmix& postmix, std::vector<std::string>& overruns) {
  using qvrcs::kGormCoefs;
  const auto& hpf = postmix.hpf_coef();
  const auto& vhpf = postmix.velmo_hpf_coef();
  const auto& xover = postmix.velmo_xover_coef();
  const auto& gorm = postmix.gorm_coef();
  auto add = [&](const char* name, SectionOrigin origin) { a.sections.emplace_back(name, std::move(origin)); };

  add("fixed_words", SectionOrigin{});
  add("multich_room", FromLocators(a.rooms[0], false));
  add("front_room", FromLocators(a.rooms[1], false));
  add("wide_room", FromLocators(a.rooms[2], false));
  add("hpeq", FromLocators(a.hpeqs, false));
  add("hpf.order", WordOrigin(postmix.has_hpf_coef() && hpf.has_order(), "postmix.hpf_coef.order", false));

  // Postmix high-pass: the first table for the rate decides; a longer one
  // than the area is not loaded.
  const CoefPick firstHpf = Pick(hpf.coeffs(), false, [](const CoefTable&) { return true; });
  SectionOrigin hpfCoefs;
  if (postmix.has_hpf_coef() && firstHpf.table != nullptr) {
    const size_t n = static_cast<size_t>(firstHpf.table->coeff_32_size());
    if (n <= qvrcs::kHpfMaxCoefs) {
      hpfCoefs = CoefOrigin("postmix.hpf_coef.coeffs", firstHpf, false, qvrcs::kHpfCoefs,
                            4 * qvrcs::kHpfMaxCoefs, nullptr);
    } else {
      hpfCoefs.detail = "postmix.hpf_coef.coeffs[" + std::to_string(firstHpf.index) + "] (" + kRate +
                        ") has " + std::to_string(n) + " values, more than the " +
                        std::to_string(qvrcs::kHpfMaxCoefs) + " the section holds: not loaded";
      overruns.push_back(hpfCoefs.detail);
    }
  }
  add("hpf.coefs", hpfCoefs);
  add("aeq", FromLocators(a.aeqs, true));
  add("velmo_hpf.order", WordOrigin(vhpf.has_order(), "postmix.velmo_hpf_coef.order", true));
  SectionOrigin vhpfCoefs;
  if (vhpf.order() != 0) {
    const CoefPick pick = Pick(vhpf.hpf_coeffs(), false, [](const CoefTable& t) {
      return static_cast<size_t>(t.coeff_16_size()) <= qvrcs::kVelmoHpfMaxCoefs;
    });
    vhpfCoefs = CoefOrigin("postmix.velmo_hpf_coef.hpf_coeffs", pick, true, qvrcs::kVelmoHpfCoefs,
                           2 * qvrcs::kVelmoHpfMaxCoefs, nullptr);
  }
  add("velmo_hpf.coefs", vhpfCoefs);
  add("velmo_xover.order", WordOrigin(xover.has_order(), "postmix.velmo_xover_coef.order", true));
  auto nonEmpty16 = [](const CoefTable& t) { return t.coeff_16_size() > 0; };
  add("velmo_xover.lpf_coefs",
      CoefOrigin("postmix.velmo_xover_coef.lpf_coeffs", Pick(xover.lpf_coeffs(), true, nonEmpty16), true,
                 qvrcs::kVelmoXoverLpfCoefs, 2 * qvrcs::kVelmoXoverCoefs, &overruns));
  add("velmo_xover.hpf_coefs",
      CoefOrigin("postmix.velmo_xover_coef.hpf_coeffs", Pick(xover.hpf_coeffs(), true, nonEmpty16), true,
                 qvrcs::kVelmoXoverHpfCoefs, 2 * qvrcs::kVelmoXoverCoefs, &overruns));
  add("gorm.speaker_size", WordOrigin(gorm.has_speaker_size(), "postmix.gorm_coef.speaker_size", true));
  add("gorm.analysis_size", WordOrigin(gorm.has_analysis_size(), "postmix.gorm_coef.analysis_size", true));
  add("gorm.coefs",
      CoefOrigin("postmix.gorm_coef.coeffs",
                 Pick(gorm.coeffs(), true, [](const CoefTable& t) { return t.coeff_32_size() > 0; }), false,
                 kGormCoefs, 4 * qvrcs::kGormMaxCoefs, &overruns));
}

// The coeff_16 tables that the Velmo sections load, for the wrap check.
std::vector<std::string> VelmoCoeff16Wraps(const Postmix& postmix) {
  std::vector<std::string> wraps;
  auto check = [&](const std::string& list, const Tables& tables) {
    for (int i = 0; i < tables.size(); ++i) {
      if (!qvrcs::TableRateIs(tables.Get(i), kSampleRate)) continue;
      const std::string w = Coeff16Wrap(list + "[" + std::to_string(i) + "]", tables.Get(i));
      if (!w.empty()) wraps.push_back(w);
    }
  };
  check("postmix.velmo_hpf_coef.hpf_coeffs", postmix.velmo_hpf_coef().hpf_coeffs());
  check("postmix.velmo_xover_coef.lpf_coeffs", postmix.velmo_xover_coef().lpf_coeffs());
  check("postmix.velmo_xover_coef.hpf_coeffs", postmix.velmo_xover_coef().hpf_coeffs());
  return wraps;
}

// Where else in the file a uuid that the converter could not find sits.
std::string ElsewhereHint(const Qvrcs& message, const KorvaSettings& settings, const std::string& uuid) {
  for (int m = 0; m < message.model_size(); ++m) {
    const listeningModel& model = message.model(m);
    auto holds = [&](const auto& records) {
      for (const auto& r : records) {
        if (QVRCS_UuidEqualsIgnoreCase(r.uuid(), uuid)) return true;
      }
      return false;
    };
    if (holds(model.rooms()) || holds(model.headphones()) || holds(model.aeqs())) {
      return " (it is in the file's top-level model[" + std::to_string(m) +
             "], which the configurator does not search: only postmix.model is)";
    }
  }
  if (!settings.postmix().has_model()) return " (postmix has no model: no uuid can resolve)";
  return {};
}

std::string NegativeRefHtest(const com::qvr::pb::tech::Enhance2& enhance2, const std::string& record) {
  const size_t slots = qvrcs::kEnhance2RefHtest.slots;
  for (int i = 0; i < enhance2.ref_htest_size() && static_cast<size_t>(i) < slots; ++i) {
    if (enhance2.ref_htest(i) < 0) {
      return record + ".ref_htest[" + std::to_string(i) + "] = " + std::to_string(enhance2.ref_htest(i)) +
             " is negative";
    }
  }
  return {};
}

}  // namespace

ListeningModelList ModelsOf(const KorvaSettings& settings) {
  ListeningModelList models;
  if (settings.postmix().has_model()) models.emplace_back(settings.postmix().model());
  return models;
}

bool ValueAt(const KorvaSettings& settings, const std::string& path, int32_t& value) {
  const gp::Message* message = &settings;
  const std::vector<qvrcs::PathStep> steps = qvrcs::SplitFieldPath(path);
  for (size_t i = 0; i < steps.size(); ++i) {
    const gp::FieldDescriptor* field = message->GetDescriptor()->FindFieldByName(steps[i].name);
    if (field == nullptr) return false;
    const gp::Reflection* reflection = message->GetReflection();
    if (i + 1 == steps.size()) {
      if (field->cpp_type() != gp::FieldDescriptor::CPPTYPE_INT32) return false;
      const int index = steps[i].index;
      if (field->is_repeated()) {
        if (index < 0 || index >= reflection->FieldSize(*message, field)) return false;
        value = reflection->GetRepeatedInt32(*message, field, index);
        return true;
      }
      if (!reflection->HasField(*message, field)) return false;
      value = reflection->GetInt32(*message, field);
      return true;
    }
    if (field->cpp_type() != gp::FieldDescriptor::CPPTYPE_MESSAGE || field->is_repeated() ||
        !reflection->HasField(*message, field)) {
      return false;
    }
    message = &reflection->GetMessage(*message, field);
  }
  return false;
}

const SectionOrigin* Analysis::Section(const std::string& name) const {
  for (const auto& [key, origin] : sections) {
    if (key == name) return &origin;
  }
  return nullptr;
}

Analysis Analyse(const KorvaSettings& settings) {
  Analysis a;
  Walker walker(settings);
  const Postmix& postmix = settings.postmix();
  a.rooms[0] = walker.Rooms("multichRoom", postmix.multichroom(),
                            Slot{qvrcs::kMultichRoomSlot, qvrcs::kMultichRoomCapacity});
  a.rooms[1] = walker.Rooms("frontRoom", postmix.frontroom(),
                            Slot{qvrcs::kFrontRoomSlot, qvrcs::kFrontRoomCapacity});
  a.rooms[2] = walker.Rooms("wideRoom", postmix.wideroom(),
                            Slot{qvrcs::kWideRoomSlot, qvrcs::kWideRoomCapacity});
  a.hpeqs = walker.HeadphoneEqs();
  a.aeqs = walker.Aeqs();
  AddSections(a, postmix, a.overruns);
  return a;
}

std::string DiagnoseFailure(const Qvrcs& message, const Conversion& conversion) {
  if (!conversion.selected) return conversion.selectError;
  if (conversion.ok()) return {};
  const KorvaSettings& settings = *conversion.settings;
  const Postmix& postmix = settings.postmix();
  const int32_t status = conversion.postmixStatus;
  const std::string unknown = "the record that caused it was not identified";
  if (status >= 0) return unknown;

  // The steps of the postmix conversion in their order; the first that
  // fails with the status the converter returned is the culprit.
  const std::string ref = NegativeRefHtest(postmix.enhance2(), "postmix.enhance2");
  if (!ref.empty()) {
    return status == QVRCS_ERR_NEGATIVE_REF_HTEST ? ref + ": the postmix conversion stops there" : unknown;
  }
  const Analysis a = Analyse(settings);
  for (const auto& walk : a.rooms) {
    for (const LocatorOutcome& o : walk) {
      if (o.status >= 0) continue;
      if (o.status != status) return unknown;
      std::string text = o.locator + ": " + o.what;
      if (o.status == QVRCS_ERR_UNKNOWN_ROOM) text += ElsewhereHint(message, settings, o.uuid);
      return text;
    }
  }
  if (!a.hpeqs.empty() && a.hpeqs.back().status < 0) {
    const LocatorOutcome& o = a.hpeqs.back();
    return o.status == status ? o.locator + " (the last headphone EQ locator, the one that counts): " + o.what
                              : unknown;
  }
  if (!a.aeqs.empty() && a.aeqs.back().status < 0) {
    if (status != a.aeqs.back().status) return unknown;
    std::string text = "no AEQ locator loads:";
    for (const LocatorOutcome& o : a.aeqs) {
      if (o.status == QVRCS_NOTHING_TO_LOAD) continue;
      text += " " + o.locator + ": " + o.what;
      if (o.status == QVRCS_ERR_NO_COEF_TABLE && o.firstRecord.empty()) {
        text += ElsewhereHint(message, settings, o.uuid);
      }
      text += ";";
    }
    text.pop_back();
    return text;
  }
  const auto& vhpf = postmix.velmo_hpf_coef();
  if (vhpf.order() != 0 && a.Section("velmo_hpf.coefs") != nullptr && !a.Section("velmo_hpf.coefs")->fromFile) {
    return status == QVRCS_ERR_NO_COEF_TABLE
               ? "postmix.velmo_hpf_coef: order " + std::to_string(vhpf.order()) + " needs a " + kRate +
                     " table of at most " + std::to_string(qvrcs::kVelmoHpfMaxCoefs) + " coeff_16 values (" +
                     RatesAndSizes(vhpf.hpf_coeffs(), true) + ")"
               : unknown;
  }
  return unknown;
}

std::vector<Warning> FindSuspicious(const Qvrcs& message, const Conversion& conversion) {
  std::vector<Warning> warnings;
  auto warn = [&](const char* code, std::string text) {
    const std::string c = code;
    warnings.push_back(Warning{c, std::move(text), c == "hpeq-cut" || c == "hpeq-skipped"});
  };

  // Records of the file that the configurator never reads.
  if (message.workspace_size() > 1) {
    warn("ignored", std::to_string(message.workspace_size()) +
                        " workspaces: only workspace[0] is used, the others are ignored whatever their applyTo");
  }
  if (message.workspace_size() > 0 && message.workspace(0).routeconfiguration_size() > 1) {
    warn("ignored", "workspace[0] has " + std::to_string(message.workspace(0).routeconfiguration_size()) +
                        " routeConfigurations: only the first is used");
  }
  if (message.workspace_size() > 0 && message.workspace(0).routeconfiguration_size() > 0) {
    const auto& route = message.workspace(0).routeconfiguration(0);
    if (route.tech_size() > 1) {
      warn("ignored", "workspace[0].routeConfiguration[0] has " + std::to_string(route.tech_size()) +
                          " tech records: only the first is used");
    }
    if (route.tech_size() > 0 && route.tech(0).has_korva()) {
      warn("unused-v2", route.tech(0).has_korva_v1_1()
                            ? "tech[0] also holds korva settings (the second settings version), which "
                              "the configurator ignores: it reads korva_v1_1 only"
                            : "tech[0] holds only korva settings (the second settings version), which the "
                              "configurator ignores: the DSP gets the default blocks");
    }
  }
  if (!conversion.selected) return warnings;
  const KorvaSettings& settings = *conversion.settings;

  // 16-bit fields given values that do not fit.
  for (const auto& map : {qvrcs::PremixFieldMap(), qvrcs::PostmixControlFieldMap()}) {
    for (const qvrcs::FieldInfo& field : map) {
      int32_t value = 0;
      if (field.kind != qvrcs::FieldKind::kSetting || field.width != 16 ||
          !ValueAt(settings, field.path, value)) {
        continue;
      }
      const auto stored = static_cast<int16_t>(value & 0xFFFF);
      if (stored != value) {
        warn("wrap16", field.path + " = " + std::to_string(value) +
                           " does not fit its 16-bit field: the DSP gets " + std::to_string(stored));
      }
    }
  }

  // A negative premix reference value is swallowed by the premix converter.
  if (settings.has_premix()) {
    const std::string ref = NegativeRefHtest(settings.premix().enhance2(), "premix.enhance2");
    if (!ref.empty()) {
      warn("ref-htest", ref + ": the premix Enhance2 section stops there (the later ref_htest slots keep "
                              "the template) and the slot still loads without an error");
    }
  }

  const Analysis a = Analyse(settings);
  for (const auto& walk : {a.rooms[0], a.rooms[1], a.rooms[2], a.hpeqs}) {
    for (const LocatorOutcome& o : walk) {
      if (!o.wrap.empty() && o.status == QVRCS_OK) warn("wrap16", o.wrap);
    }
  }
  for (const std::string& w : VelmoCoeff16Wraps(settings.postmix())) warn("wrap16", w);

  // Headphone EQ: only the last locator counts, and a long filter is cut.
  for (size_t i = 0; i < a.hpeqs.size(); ++i) {
    const LocatorOutcome& o = a.hpeqs[i];
    const bool last = i + 1 == a.hpeqs.size();
    if (o.status == QVRCS_NOTHING_TO_LOAD && last) {
      warn("hpeq-unknown", o.locator + ": " + o.what + " (not an error for the configurator)");
    } else if (o.status == QVRCS_NOTHING_TO_LOAD || (o.status < 0 && !last)) {
      warn("hpeq-skipped", o.locator + ": " + o.what + "; forgiven, only the last locator's status counts");
    }
    if (o.status == QVRCS_OK && o.ihpirLength > qvrcs::kHpeqMaxTaps) {
      warn("hpeq-cut", o.locator + ": ihpirLength " + std::to_string(o.ihpirLength) + ": the DSP takes " +
                           std::to_string(qvrcs::kHpeqMaxTaps) + " taps per channel, the rest is cut");
    }
    if (o.status == QVRCS_OK && o.end > qvrcs::kHeadphoneEqSlot + qvrcs::kHeadphoneEqCapacity) {
      warn("coef-overrun", Overrun(o.locator + " headphone EQ", qvrcs::kHeadphoneEqSlot + qvrcs::kHpeqCoefs,
                                   o.count, 16, qvrcs::kHeadphoneEqSlot + qvrcs::kHeadphoneEqCapacity));
    }
  }
  for (const LocatorOutcome& o : a.aeqs) {
    if (o.status != QVRCS_OK) continue;
    for (const std::string& over : o.overruns) warn("coef-overrun", over);
  }
  for (const std::string& over : a.overruns) warn("coef-overrun", over);
  return warnings;
}

}  // namespace qvrcs_tool
