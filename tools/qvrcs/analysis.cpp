#include "tools/qvrcs/analysis.h"

#include <algorithm>

#include "qvrcs/block_map.h"
#include "qvrcs/qvrcs.h"
#include "qvrcs/record_layout.h"

namespace qvrcs_tool {

namespace model = com::qvr::pb::model;
using qvrcs::SectionId;
using qvrcs::TraceEvent;
using qvrcs::TraceKind;
using Tables = google::protobuf::RepeatedPtrField<com::qvr::pb::coef::CoefTable>;

namespace {

const std::string kRate = std::to_string(qvr::kDspSampleRate) + " Hz";

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

size_t IndexOf(SectionId id) { return static_cast<size_t>(id); }

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

// Rates and sizes of the tables of a section that compares rate values only.
std::string RatesAndSizes(const Tables& tables, bool coeff16) {
  if (tables.empty()) return "it has no tables";
  std::string text = "its tables: ";
  for (int i = 0; i < tables.size(); ++i) {
    const auto& t = tables.Get(i);
    if (i > 0) text += ", ";
    text += std::to_string(t.samplerate()) + " Hz with " +
            std::to_string(coeff16 ? t.coeff_16_size() : t.coeff_32_size()) + " values";
  }
  return text;
}

// The coeff_16 values of a table that do not fit 16 bits, as the trace counted them.
std::string Coeff16Wrap(const std::string& record, const TraceEvent& e) {
  if (e.wrappedCount == 0) return {};
  const int32_t v = e.firstWrappedValue;
  return record + ": coeff_16[" + std::to_string(e.firstWrapped) + "] = " + std::to_string(v) +
         " does not fit 16 bits, the DSP gets " + std::to_string(e.firstWrappedStored) +
         (e.wrappedCount > 1 ? " (" + std::to_string(e.wrappedCount) + " values wrap)" : "");
}

// A record the loaders found: the reader passes no models of its own, so the
// one model searched is the postmix record's own.
std::string RecordName(const char* list, const TraceEvent& e, const std::string& uuid) {
  return std::string("postmix.model.") + list + "[" + std::to_string(e.entry) + "] " + Quote(uuid);
}

// A run (a kRun event) that does not fit its own area: where it ends up.
std::string RunOverrun(const std::string& what, const TraceEvent& run) {
  if (run.end <= run.areaEnd) return {};
  std::string text = what + ": " + std::to_string(run.count) + " values run " + std::to_string(run.end - run.areaEnd) +
                     " bytes past the section's end (byte " + std::to_string(run.areaEnd) + ")";
  if (run.written < run.count) {
    return text + " and are cut at the end of the block: the last " + std::to_string(run.count - run.written) +
           " values are dropped";
  }
  std::string into;
  for (const qvrcs::SectionInfo& s : qvrcs::kPostmixSections) {
    if (s.offset >= run.areaEnd && s.offset < run.end) into += (into.empty() ? "" : ", ") + std::string(s.name);
  }
  if (into.empty()) {
    // Within one section: the AEQ record's first channel runs on into the second.
    const qvrcs::SectionInfo* within = qvrcs::SectionAt(run.areaEnd);
    into = within != nullptr ? "the rest of " + std::string(within->name) : "the following bytes";
  }
  return text + " into " + into;
}

std::string UuidProblem(const std::string& record, const std::string& uuid) {
  return record + ": uuid " + Quote(uuid) +
         " is not 32 hex digits in 8-4-4-4-12 form: the DSP gets its bytes shifted or zero";
}

// The two outcomes before a record is found: no uuid to look up, or no
// listening model holding it. False when the locator found its record.
bool DescribeUnresolved(const TraceEvent& e, const char* what, LocatorOutcome& o) {
  if (e.status == qvrcs::QVRCS_NOTHING_TO_LOAD) {
    o.what = "no uuid: skipped";
    return true;
  }
  if (e.record == nullptr) {
    o.what = std::string("no listening model holds ") + what + " " + Quote(o.uuid);
    return true;
  }
  return false;
}

void DescribeRoom(const TraceEvent& e, LocatorOutcome& o) {
  if (DescribeUnresolved(e, "room", o)) return;
  const auto& room = static_cast<const model::roomModel&>(*e.record);
  const std::string name = RecordName("rooms", e, room.uuid());
  o.firstRecord = name;
  o.record = e.record;
  const size_t held = qvrcs::RoomValuesHeld(e.capacity);
  if (e.table.index < 0) {
    o.what = "room " + name + " has no coefficient table for " + kRate + " (" + RatesOf(room.coefftables()) + ")";
  } else if (e.table.count == 0) {
    o.what = "room " + name + ": its " + kRate + " table has no coeff_16 values";
  } else if (e.status == qvrcs::QVRCS_ERR_RECORD_TOO_LARGE) {
    const size_t slot = qvrcs::Section(static_cast<SectionId>(e.section)).offset;
    o.count = e.table.count;
    o.sampleRate = e.table.sampleRate;
    o.what = "room " + name + ": its " + kRate + " table has " + std::to_string(e.table.count) +
             " coeff_16 values, a record of " + std::to_string(e.end - slot) + " bytes; the slot holds " +
             std::to_string(e.capacity) + " (at most " + std::to_string(held) +
             " values)";
  } else {
    o.count = e.table.count;
    o.sampleRate = e.table.sampleRate;
    o.end = e.end;
    o.what = "room " + name + ": " + kRate + ", " + std::to_string(e.table.count) + " values, record ends at byte " +
             std::to_string(e.end);
    o.wrap = Coeff16Wrap("room " + name, e);
    if (!e.uuidPacked) o.problems.emplace_back("uuid-form", UuidProblem("room " + name, room.uuid()));
    // The record's header against its own values.
    const std::string head = "room " + name + ": ";
    if (room.brirlength() > held) {
      o.problems.emplace_back("room-header", head + "brirLength " + std::to_string(room.brirlength()) +
                                                 " is larger than the section, which holds " + std::to_string(held) +
                                                 " values");
    }
    const int channels = __builtin_popcount(room.channelmask());
    if (static_cast<int>(room.numpairs()) > channels) {
      o.problems.emplace_back("room-header", head + "numPairs " + std::to_string(room.numpairs()) +
                                                 " but channelMask " + std::to_string(room.channelmask()) +
                                                 " names " + std::to_string(channels) + " channels");
    }
    const uint64_t expected = 2ull * room.numpairs() * room.brirlength();
    if (e.table.count < expected) {
      // Past the slot's own values the DSP reads on into what follows it.
      const qvrcs::SectionInfo& slot = qvrcs::Section(e.section);
      std::string past = "zeros past them";
      if (expected > held) {
        past = "zeros up to the section's end (byte " + std::to_string(slot.end()) + "), then the following sections";
        if (const qvrcs::SectionInfo* next = qvrcs::SectionAt(slot.end())) past += " (" + std::string(next->name) + ", ...)";
      }
      o.problems.emplace_back("room-header", head + std::to_string(e.table.count) +
                                                 " values, fewer than numPairs x 2 x brirLength = " +
                                                 std::to_string(expected) + ": the DSP reads " + past);
    }
  }
}

void DescribeHeadphoneEq(const TraceEvent& e, const std::vector<const TraceEvent*>& parts, LocatorOutcome& o) {
  if (e.record == nullptr) {
    o.what = "no listening model holds headphone EQ " + Quote(o.uuid) + ": nothing loaded";
    return;
  }
  const auto& eq = static_cast<const model::headphoneEq&>(*e.record);
  const std::string name = RecordName("headphones", e, eq.uuid());
  o.firstRecord = name;
  o.record = e.record;
  if (e.table.index < 0) {
    o.what = "headphone EQ " + name + " has no coefficient table for " + kRate + " (" + RatesOf(eq.coefftables()) + ")";
    return;
  }
  if (e.table.count == 0) {
    o.what = "headphone EQ " + name + ": its " + kRate + " table has no coeff_16 values";
    return;
  }
  o.count = e.table.count;
  o.sampleRate = e.table.sampleRate;
  o.ihpirLength = e.length;
  o.wrap = Coeff16Wrap("headphone EQ " + name, e);
  o.end = e.end;
  const std::string head = "headphone EQ " + name + ": " + kRate + ", ihpirLength " + std::to_string(e.length) + ", " +
                           std::to_string(e.table.count) + " values, ";
  o.taps = e.taps;
  if (!e.uuidPacked) o.problems.emplace_back("uuid-form", UuidProblem("headphone EQ " + name, eq.uuid()));
  o.what = e.taps > 0 ? head + "cut to " + std::to_string(e.taps) + " taps per channel"
                      : head + "record ends at byte " + std::to_string(e.end);
  for (const TraceEvent* part : parts) {
    if (part->kind != TraceKind::kRun) continue;
    const std::string over = RunOverrun(o.locator + " headphone EQ", *part);
    if (!over.empty()) o.overruns.push_back(over);
  }
}

// `parts`: the channel and run events the loader reported before the locator's own.
void DescribeAeq(const TraceEvent& e, const std::vector<const TraceEvent*>& parts, LocatorOutcome& o) {
  if (DescribeUnresolved(e, "AEQ", o)) return;
  const auto& aeq = static_cast<const com::qvr::pb::coef::Aeq&>(*e.record);
  const std::string name = "AEQ " + RecordName("aeqs", e, aeq.uuid());
  o.firstRecord = RecordName("aeqs", e, aeq.uuid());
  o.record = e.record;
  int channel = -1;
  std::string text = name + ":";
  for (const TraceEvent* part : parts) {
    if (part->kind == TraceKind::kChannel) {
      channel = part->channel;
      text += (channel ? "," : "") + std::string(" channel ") + std::to_string(channel) + " from bank " +
              std::to_string(part->entry);
      if (part->table.index < 0) {
        text += " which has no " + kRate + " IIR table (" +
                RatesOf(aeq.coefficient_table(part->entry).iircoefs()) + ")";
      } else {
        text += " (" + std::to_string(part->table.count) + " values)";
        o.count += part->table.count;
        o.sampleRate = part->table.sampleRate;
      }
    } else if (part->kind == TraceKind::kRun) {
      const std::string over = RunOverrun(name + " channel " + std::to_string(channel), *part);
      if (!over.empty()) o.overruns.push_back(over);
      o.end = std::max(o.end, part->end);
    }
  }
  if (channel < 0) {
    // The loader gave up before choosing its channels' banks.
    text = name + " has " + std::to_string(e.banks) + " filter banks" +
           (e.filtered ? ", " + std::to_string(e.usableBanks) + " with a " + kRate + " IIR table" : "") +
           ": two are needed";
  }
  o.what = text;
}

// The locator the converter says the section holds, as its source.
void FromLocators(const LocatorOutcome* chosen, SectionOrigin& origin) {
  if (chosen == nullptr) return;
  origin.fromFile = true;
  origin.source = chosen->locator + " " + Quote(chosen->uuid);
  origin.detail = chosen->what;
  origin.end = chosen->end;
}

void FromRun(const TraceEvent& run, SectionOrigin& origin, std::vector<std::pair<SectionId, std::string>>& overruns) {
  const qvrcs::SectionInfo& section = qvrcs::Section(run.section);
  origin.fromFile = true;
  origin.source = std::string(section.source) + "[" + std::to_string(run.table.index) + "]";
  origin.end = run.end;
  origin.detail = kRate + ", " + std::to_string(run.count) + " values, ends at byte " + std::to_string(run.end);
  const std::string over = RunOverrun(origin.source, run);
  if (!over.empty()) overruns.emplace_back(run.section, over);
}

bool IsLocatorSection(SectionId id) {
  const qvrcs::SectionKind kind = qvrcs::Section(id).kind;
  return kind == qvrcs::SectionKind::kRoom || kind == qvrcs::SectionKind::kHeadphoneEq ||
         kind == qvrcs::SectionKind::kAeq;
}

template <class A>
auto WalkOf(A& a, SectionId id) -> decltype(&a.aeqs) {
  switch (id) {
    case SectionId::kMultichRoom:
      return &a.rooms[0];
    case SectionId::kFrontRoom:
      return &a.rooms[1];
    case SectionId::kWideRoom:
      return &a.rooms[2];
    case SectionId::kHeadphoneEq:
      return &a.hpeqs;
    default:
      return &a.aeqs;
  }
}

// Where else in the file a uuid that the converter could not find sits.
std::string ElsewhereHint(const Qvrcs& message, const KorvaSettings& settings, const std::string& uuid) {
  for (int m = 0; m < message.model_size(); ++m) {
    const model::listeningModel& listening = message.model(m);
    auto holds = [&](const auto& records) {
      for (const auto& r : records) {
        if (qvrcs::QVRCS_UuidEqualsIgnoreCase(r.uuid(), uuid)) return true;
      }
      return false;
    };
    if (holds(listening.rooms()) || holds(listening.headphones()) || holds(listening.aeqs())) {
      return " (it is in the file's top-level model[" + std::to_string(m) +
             "], which the configurator does not search: only postmix.model is)";
    }
  }
  if (!settings.postmix().has_model()) return " (postmix has no model: no uuid can resolve)";
  return {};
}

// The field path ("postmix.velmo.gorm.level") of the field at `offset` of a
// block, from the block maps; "" when none.
std::string FieldPathAt(qvrcs::TraceBlock block, size_t offset) {
  static const std::vector<qvrcs::FieldInfo> premix = qvrcs::PremixFieldMap();
  static const std::vector<qvrcs::FieldInfo> postmix = qvrcs::PostmixControlFieldMap();
  for (const qvrcs::FieldInfo& field : block == qvrcs::TraceBlock::kPremix ? premix : postmix) {
    if (field.offset == offset && field.kind == qvrcs::FieldKind::kSetting) return field.path;
  }
  return {};
}

const TraceEvent* StopIn(const Conversion& c, qvrcs::TraceBlock block) {
  for (const TraceEvent& e : c.trace.events) {
    if (e.kind == TraceKind::kStopped && e.block == block) return &e;
  }
  return nullptr;
}

std::string NegativeRefHtest(const TraceEvent& stop) {
  return FieldPathAt(stop.block, stop.offset) + " = " + std::to_string(stop.value) + " is negative";
}

}  // namespace

const std::vector<LocatorOutcome>& Analysis::Walk(SectionId id) const {
  return *WalkOf(*this, id);
}

const LocatorOutcome* Analysis::Chosen(SectionId id) const {
  for (const LocatorOutcome& o : Walk(id)) {
    if (o.index == Section(id).chosen) return &o;
  }
  return nullptr;
}

Analysis Analyse(const Conversion& conversion) {
  Analysis a;
  std::vector<const TraceEvent*> parts;
  const TraceEvent* lastRun[qvrcs::kPostmixSectionCount] = {};
  for (const TraceEvent& e : conversion.trace.events) {
    if (e.section == SectionId::kNone) continue;
    SectionOrigin& origin = a.sections[IndexOf(e.section)];
    const qvrcs::SectionInfo& section = qvrcs::Section(e.section);
    switch (e.kind) {
      case TraceKind::kChannel:
      case TraceKind::kRun:
        if (IsLocatorSection(e.section)) {
          parts.push_back(&e);
        } else {
          lastRun[IndexOf(e.section)] = &e;
        }
        break;
      case TraceKind::kLocator: {
        LocatorOutcome o;
        o.locator = std::string(section.source) + "[" + std::to_string(e.locator) + "]";
        o.index = e.locator;
        o.uuid = e.uuid != nullptr ? *e.uuid : std::string();
        o.status = e.status;
        if (section.kind == qvrcs::SectionKind::kRoom) {
          DescribeRoom(e, o);
        } else if (section.kind == qvrcs::SectionKind::kHeadphoneEq) {
          DescribeHeadphoneEq(e, parts, o);
        } else {
          DescribeAeq(e, parts, o);
        }
        parts.clear();
        WalkOf(a, e.section)->push_back(o);
        break;
      }
      case TraceKind::kWord:
        origin.fromFile = e.present;
        origin.source = section.source;
        if (!e.present) origin.detail = "absent: the conversion writes 0";
        break;
      case TraceKind::kSkipped:
        origin.detail = std::string(section.source) + "[" + std::to_string(e.table.index) + "] (" +
                        std::to_string(e.table.sampleRate) + " Hz) has " + std::to_string(e.table.count) +
                        " values, more than the " + std::to_string(section.capacity()) +
                        " the section holds: not loaded";
        if (e.section == SectionId::kHighPassCoefs) {
          a.overruns.emplace_back(e.section, origin.detail);
        } else {
          origin.detail.clear();  // another table may still fit
        }
        break;
      case TraceKind::kStatus:
        origin.reached = true;
        origin.chosen = e.locator;
        break;
      default:
        break;
    }
  }
  for (SectionId id : {SectionId::kMultichRoom, SectionId::kFrontRoom, SectionId::kWideRoom, SectionId::kHeadphoneEq,
                       SectionId::kAeq}) {
    FromLocators(a.Chosen(id), a.sections[IndexOf(id)]);
  }
  for (const qvrcs::SectionInfo& s : qvrcs::kPostmixSections) {
    const TraceEvent* run = lastRun[IndexOf(s.id)];
    if (run == nullptr) continue;
    FromRun(*run, a.sections[IndexOf(s.id)], a.overruns);
  }
  return a;
}

std::string DiagnoseFailure(const Conversion& conversion) {
  const Qvrcs& message = conversion.reading->message;
  if (!conversion.selected()) return conversion.SelectError();
  if (conversion.ok()) return {};
  const KorvaSettings& settings = conversion.settings();
  const int32_t status = conversion.postmixStatus();
  const std::string unknown = "the record that caused it was not identified";
  if (status >= 0) return unknown;

  if (const TraceEvent* stop = StopIn(conversion, qvrcs::TraceBlock::kPostmix)) {
    return status == qvrcs::QVRCS_ERR_NEGATIVE_REF_HTEST ? NegativeRefHtest(*stop) + ": the postmix conversion stops there"
                                                  : unknown;
  }
  // The step that ended the conversion: the one negative step status.
  SectionId failed = SectionId::kNone;
  for (const TraceEvent& e : conversion.trace.events) {
    if (e.kind == TraceKind::kStatus && e.status < 0 && e.section != SectionId::kNone) failed = e.section;
  }
  if (failed == SectionId::kNone) return unknown;
  const Analysis a = Analyse(conversion);
  const qvrcs::SectionKind kind = qvrcs::Section(failed).kind;
  if (kind == qvrcs::SectionKind::kRoom) {
    for (const LocatorOutcome& o : *WalkOf(a, failed)) {
      if (o.status >= 0) continue;
      if (o.status != status) return unknown;
      std::string text = o.locator + ": " + o.what;
      if (o.status == qvrcs::QVRCS_ERR_UNKNOWN_ROOM) text += ElsewhereHint(message, settings, o.uuid);
      return text;
    }
    return unknown;
  }
  if (kind == qvrcs::SectionKind::kHeadphoneEq && !a.hpeqs.empty()) {
    const LocatorOutcome& o = a.hpeqs.back();
    return o.status == status ? o.locator + " (the last headphone EQ locator, the one that counts): " + o.what
                              : unknown;
  }
  if (kind == qvrcs::SectionKind::kAeq && !a.aeqs.empty()) {
    if (status != a.aeqs.back().status) return unknown;
    std::string text = "no AEQ locator loads:";
    for (const LocatorOutcome& o : a.aeqs) {
      if (o.status == qvrcs::QVRCS_NOTHING_TO_LOAD) continue;
      text += " " + o.locator + ": " + o.what;
      if (o.status == qvrcs::QVRCS_ERR_NO_COEF_TABLE && o.firstRecord.empty()) {
        text += ElsewhereHint(message, settings, o.uuid);
      }
      text += ";";
    }
    text.pop_back();
    return text;
  }
  if (failed == SectionId::kVelmoHighPassCoefs || failed == SectionId::kVelmoHighPassOrder) {
    const auto& vhpf = settings.postmix().velmo_hpf_coef();
    return status == qvrcs::QVRCS_ERR_NO_COEF_TABLE
               ? "postmix.velmo_hpf_coef: order " + std::to_string(vhpf.order()) + " needs a " + kRate +
                     " table of at most " +
                     std::to_string(qvrcs::Section(SectionId::kVelmoHighPassCoefs).capacity()) +
                     " coeff_16 values (" + RatesAndSizes(vhpf.hpf_coeffs(), true) + ")"
               : unknown;
  }
  return unknown;
}

std::vector<Warning> FindSuspicious(const Conversion& conversion) {
  std::vector<Warning> warnings;
  auto warn = [&](const char* code, std::string text, std::string at = {}) {
    const std::string c = code;
    warnings.push_back(Warning{c, std::move(text), c == "hpeq-cut" || c == "hpeq-skipped", std::move(at)});
  };
  auto sectionName = [](SectionId id) { return std::string(qvrcs::Section(id).name); };

  // Records of the file that the reader's selection passes over.
  const qvr::SettingsSelection& selection = conversion.reading->selection;
  if (selection.workspaces > 1) {
    warn("ignored", std::to_string(selection.workspaces) +
                        " workspaces: only workspace[0] is used, the others are ignored whatever their applyTo");
  }
  if (selection.routeConfigurations > 1) {
    warn("ignored", "workspace[0] has " + std::to_string(selection.routeConfigurations) +
                        " routeConfigurations: only the first is used");
  }
  if (selection.techs > 1) {
    warn("ignored", "workspace[0].routeConfiguration[0] has " + std::to_string(selection.techs) +
                        " tech records: only the first is used");
  }
  if (selection.secondVersion) {
    warn("unused-v2", selection.firstVersion
                          ? "tech[0] also holds korva settings (the second settings version), which "
                            "the configurator ignores: it reads korva_v1_1 only"
                          : "tech[0] holds only korva settings (the second settings version), which the "
                            "configurator ignores: the DSP gets the default blocks");
  }
  if (!conversion.selected()) return warnings;
  const KorvaSettings& settings = conversion.settings();
  if (!selection.secondVersion && !settings.has_premix() && !settings.has_postmix()) {
    warn("empty-settings", std::string(selection.firstVersion ? "tech[0].korva_v1_1 has" : "tech[0] holds") +
                               " no premix or postmix settings: the DSP gets the templates only");
  }

  // 16-bit fields given values that do not fit, in block order.
  std::vector<const TraceEvent*> wrapped;
  for (const TraceEvent& e : conversion.trace.events) {
    if (e.kind == TraceKind::kField && e.wrapped) wrapped.push_back(&e);
  }
  std::stable_sort(wrapped.begin(), wrapped.end(), [](const TraceEvent* x, const TraceEvent* y) {
    return std::make_pair(x->block, x->offset) < std::make_pair(y->block, y->offset);
  });
  for (const TraceEvent* e : wrapped) {
    const std::string path = FieldPathAt(e->block, e->offset);
    warn("wrap16", path + " = " + std::to_string(e->value) + " does not fit its 16-bit field: the DSP gets " +
                       std::to_string(e->stored),
         path);
  }

  // Repeated fields with more entries than the block has slots.
  for (const TraceEvent& e : conversion.trace.events) {
    if (e.kind != TraceKind::kDropped) continue;
    const std::string first = FieldPathAt(e.block, e.offset);
    const std::string field = first.substr(0, first.rfind('['));
    warn("dropped", field + " has " + std::to_string(e.count + static_cast<size_t>(e.value)) + " entries, the block " +
                        std::to_string(e.value) + " slots: the last " + std::to_string(e.count) + " are dropped",
         first);
  }

  // A negative premix reference value is swallowed by the premix converter.
  if (const TraceEvent* stop = StopIn(conversion, qvrcs::TraceBlock::kPremix)) {
    warn("ref-htest",
         NegativeRefHtest(*stop) +
             ": the premix Enhance2 section stops there (the later ref_htest slots keep "
             "the template) and the slot still loads without an error",
         FieldPathAt(stop->block, stop->offset));
  }

  const Analysis a = Analyse(conversion);
  // A filter the file enables whose coefficient section receives nothing or
  // zeros; a section the conversion never reached says nothing of the file.
  for (const qvrcs::SectionInfo& section : qvrcs::kPostmixSections) {
    if (*section.enable == '\0' || !a.Section(section.id).reached) continue;
    const std::string enable = section.enable;
    bool enabled = false;
    bool coefficients = false;
    for (const TraceEvent& e : conversion.trace.events) {
      if (e.kind == TraceKind::kField && e.value != 0 && FieldPathAt(e.block, e.offset) == enable) enabled = true;
      if (e.kind == TraceKind::kRun && e.section == section.id && e.values != nullptr) {
        for (size_t v = 0; v < e.written; ++v) coefficients = coefficients || e.values[v] != 0;
      }
    }
    if (enabled && !coefficients) {
      warn("filter-no-coefs", enable + " enables the filter, but " + section.source +
                                  " gives it no non-zero coefficient for " + kRate + ": the DSP filters with " +
                                  section.name + " as the template left it",
           enable);
    }
  }

  const SectionId roomSections[] = {SectionId::kMultichRoom, SectionId::kFrontRoom, SectionId::kWideRoom};
  for (size_t r = 0; r < 3; ++r) {
    const std::string at = sectionName(roomSections[r]);
    // An empty uuid is skipped; when no other locator of the list loads, the
    // slot keeps the template.
    if (a.Section(roomSections[r]).reached && !a.Section(roomSections[r]).fromFile) {
      for (const LocatorOutcome& o : a.rooms[r]) {
        if (o.status != qvrcs::QVRCS_NOTHING_TO_LOAD) continue;
        warn("room-no-uuid", o.locator + ": empty uuid: nothing is loaded and the DSP gets " + at +
                                 " as the template left it",
             at);
      }
    }
    for (const LocatorOutcome& o : a.rooms[r]) {
      if (o.status != qvrcs::QVRCS_OK) continue;
      if (!o.wrap.empty()) warn("wrap16", o.wrap, at);
      for (const auto& [code, text] : o.problems) warn(code.c_str(), text, at);
    }
  }
  const std::string hpeq = sectionName(SectionId::kHeadphoneEq);
  for (const LocatorOutcome& o : a.hpeqs) {
    if (!o.wrap.empty() && o.status == qvrcs::QVRCS_OK) warn("wrap16", o.wrap, hpeq);
  }
  // The Velmo coefficient runs, in block order.
  std::vector<const TraceEvent*> velmoRuns;
  for (const TraceEvent& e : conversion.trace.events) {
    if (e.kind == TraceKind::kRun && e.width == 16 && !IsLocatorSection(e.section) && e.section != SectionId::kNone) {
      velmoRuns.push_back(&e);
    }
  }
  std::stable_sort(velmoRuns.begin(), velmoRuns.end(),
                   [](const TraceEvent* x, const TraceEvent* y) { return x->section < y->section; });
  for (const TraceEvent* run : velmoRuns) {
    const std::string w = Coeff16Wrap(
        std::string(qvrcs::Section(run->section).source) + "[" + std::to_string(run->table.index) + "]", *run);
    if (!w.empty()) warn("wrap16", w, sectionName(run->section));
  }

  // Headphone EQ: only the last locator counts, and a long filter is cut.
  for (size_t i = 0; i < a.hpeqs.size(); ++i) {
    const LocatorOutcome& o = a.hpeqs[i];
    const bool last = i + 1 == a.hpeqs.size();
    if (o.status == qvrcs::QVRCS_NOTHING_TO_LOAD && last) {
      warn("hpeq-unknown", o.locator + ": " + o.what + " (not an error for the configurator)", hpeq);
    } else if (o.status == qvrcs::QVRCS_NOTHING_TO_LOAD || (o.status < 0 && !last)) {
      warn("hpeq-skipped", o.locator + ": " + o.what + "; forgiven, only the last locator's status counts", hpeq);
    }
    if (o.status == qvrcs::QVRCS_OK && o.taps > 0) {
      warn("hpeq-cut",
           o.locator + ": ihpirLength " + std::to_string(o.ihpirLength) + ": the DSP takes " +
               std::to_string(o.taps) + " taps per channel, the rest is cut",
           hpeq);
    }
    if (o.status != qvrcs::QVRCS_OK) continue;
    for (const std::string& over : o.overruns) warn("coef-overrun", over, hpeq);
    for (const auto& [code, text] : o.problems) warn(code.c_str(), text, hpeq);
  }
  for (const LocatorOutcome& o : a.aeqs) {
    if (o.status != qvrcs::QVRCS_OK) continue;
    for (const std::string& over : o.overruns) warn("coef-overrun", over, sectionName(SectionId::kAeq));
  }
  for (const auto& [section, over] : a.overruns) warn("coef-overrun", over, sectionName(section));
  return warnings;
}

}  // namespace qvrcs_tool
