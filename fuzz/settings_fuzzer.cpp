// Structured, extreme KorvaSettings built from the fuzz input, through both
// converters and through the tuning file reader.
//
// Random bytes rarely make a tuning file whose rooms, headphone EQs and AEQs
// resolve; here the input chooses among shapes that do: locators naming
// uuids that a listening model holds (in another letter case, or not at
// all), coefficient tables at several rates, with and without a rate, and
// coefficient lists at, just below and beyond every capacity of the blocks.
// Every other settings field is filled through reflection.
//
// Checked beyond memory safety: the premix converter never fails and the
// postmix converter answers only its own codes; the bytes no conversion may
// touch keep their template values; a conversion from a caller's block
// leaves the fixed words as the caller had them; converting twice gives the
// same bytes, traced or not; what the trace says was written is what the
// blocks hold; and the reader, given the same settings as a tuning file,
// uploads exactly what the converters produced.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <memory>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "fuzz/block_checks.h"
#include "fuzz/fuzz_support.h"
#include "qvrcs/qvrcs.h"
#include "qvrcsPB.pb.h"

namespace {

namespace pb = google::protobuf;
using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::korva_v1_1::Postmix;
using com::qvr::pb::model::listeningModel;
using TableList = pb::RepeatedPtrField<CoefTable>;
using Locators = pb::RepeatedPtrField<com::qvr::pb::wbn::ResourceLocator>;

constexpr uint32_t kRate = 48000;

// Identifiers the models and the locators share; letter case and length
// vary, so matching, packing and the empty uuid are all reached.
constexpr const char* kUuids[] = {
    "",
    "11111111-2222-3333-4444-555555555555",
    "abcdef00-1111-2222-3333-444455556666",
    "ABCDEF00-1111-2222-3333-444455556666",
    "0123456789abcdef0123456789abcdef",
    "zzzzzzzz-zzzz-zzzz-zzzz-zzzzzzzzzzzz",
    "1-2-3",
    "11111111-2222-3333-4444-5555555555555",
    "g1111111-2222-3333-4444-55555555555a",
};

// Sample rates of a table: the working one, others, and none (-1).
constexpr int64_t kRates[] = {-1, kRate, 44100, 96000, 0, -48000, INT32_MIN};

// Coefficient counts around every capacity: velmo crossover (14), velmo and
// postmix high-pass (20), Gorm (24), headphone EQ (258, 514), AEQ channel
// (334, 668), front and wide rooms (6150), multichannel room (16400).
constexpr int kCounts[] = {0,   1,   2,   13,  14,  15,   19,   20,   21,   23,   24,
                           25,  128, 129, 130, 257, 258,  259,  260,  333,  334,  335,
                           513, 514, 515, 667, 668, 669,  1000, 6149, 6150, 6151, 16399,
                           16400, 16401, 20000};

constexpr int32_t kValues[] = {0, 1, -1, 32767, -32768, 65535, 65536, 70000, INT32_MAX, INT32_MIN};

// Message types built by hand below; reflection leaves them alone.
bool BuiltByHand(const pb::Descriptor* type) {
  const std::string& name = type->full_name();
  return name == "com.qvr.pb.model.listeningModel" || name == "com.qvr.pb.wbn.ResourceLocator" ||
         name.rfind("com.qvr.pb.coef.", 0) == 0;
}

class Builder {
 public:
  explicit Builder(FuzzedDataProvider& in) : in_(in) {}

  int32_t Value() {
    return in_.ConsumeBool() ? in_.PickValueInArray(kValues) : in_.ConsumeIntegral<int32_t>();
  }

  int Count() {
    return in_.ConsumeBool() ? in_.PickValueInArray(kCounts) : in_.ConsumeIntegralInRange(0, 40);
  }

  // Every scalar field possibly set, every repeated scalar field possibly
  // filled, sub-records possibly present (to a small depth).
  void FillScalars(pb::Message* message, int depth) {
    const pb::Descriptor* type = message->GetDescriptor();
    const pb::Reflection* reflection = message->GetReflection();
    for (int i = 0; i < type->field_count(); ++i) {
      const pb::FieldDescriptor* field = type->field(i);
      if (!in_.ConsumeBool()) continue;
      if (field->cpp_type() == pb::FieldDescriptor::CPPTYPE_MESSAGE) {
        if (depth >= 3 || BuiltByHand(field->message_type())) continue;
        if (field->is_repeated()) {
          const int count = in_.ConsumeIntegralInRange(0, 2);
          for (int n = 0; n < count; ++n) FillScalars(reflection->AddMessage(message, field), depth + 1);
        } else {
          FillScalars(reflection->MutableMessage(message, field), depth + 1);
        }
        continue;
      }
      const int count = field->is_repeated() ? Count() % 41 : 1;
      for (int n = 0; n < count; ++n) SetScalar(message, reflection, field);
    }
  }

  void FillTables(TableList* tables, bool wide) {
    const int count = in_.ConsumeIntegralInRange(0, 3);
    for (int t = 0; t < count; ++t) {
      CoefTable* table = tables->Add();
      const int64_t rate = in_.PickValueInArray(kRates);
      if (rate >= INT32_MIN && rate != -1) table->set_samplerate(static_cast<int32_t>(rate));
      // Long lists are generated from two numbers, not read value by value.
      const int values = Count();
      const int32_t first = Value();
      const int32_t step = in_.ConsumeIntegral<int16_t>();
      auto* list = wide ? table->mutable_coeff_32() : table->mutable_coeff_16();
      list->Reserve(values);
      for (int v = 0; v < values; ++v) list->Add(static_cast<int32_t>(static_cast<uint32_t>(first) + static_cast<uint32_t>(step) * v));
      // The variants the conversion never reads.
      if (in_.ConsumeBool()) (wide ? table->mutable_coeff_16() : table->mutable_coeff_32())->Add(Value());
    }
  }

  const char* Uuid() { return in_.PickValueInArray(kUuids); }

  void FillModel(listeningModel* model) {
    const int rooms = in_.ConsumeIntegralInRange(0, 4);
    for (int r = 0; r < rooms; ++r) {
      auto* room = model->add_rooms();
      if (in_.ConsumeBool()) room->set_uuid(Uuid());
      room->set_channelmask(static_cast<uint32_t>(Value()));
      room->set_numpairs(static_cast<uint32_t>(Value()));
      room->set_brirlength(static_cast<uint32_t>(Value()));
      room->set_reverbgain(Value());
      room->set_reverbcut(static_cast<uint32_t>(Value()));
      FillTables(room->mutable_coefftables(), false);
    }
    const int headphones = in_.ConsumeIntegralInRange(0, 3);
    for (int h = 0; h < headphones; ++h) {
      auto* eq = model->add_headphones();
      if (in_.ConsumeBool()) eq->set_uuid(Uuid());
      constexpr uint32_t kLengths[] = {0, 1, 100, 128, 129, 256, 0x80000000u, UINT32_MAX};
      eq->set_ihpirlength(in_.ConsumeBool() ? in_.PickValueInArray(kLengths)
                                            : in_.ConsumeIntegral<uint32_t>());
      FillTables(eq->mutable_coefftables(), false);
    }
    const int aeqs = in_.ConsumeIntegralInRange(0, 3);
    for (int a = 0; a < aeqs; ++a) {
      auto* aeq = model->add_aeqs();
      if (in_.ConsumeBool()) aeq->set_uuid(Uuid());
      const int banks = in_.ConsumeIntegralInRange(0, 5);
      for (int b = 0; b < banks; ++b) {
        auto* bank = aeq->add_coefficient_table();
        if (in_.ConsumeBool()) bank->set_iirorder(Value());
        FillTables(bank->mutable_iircoefs(), true);
        if (in_.ConsumeBool()) FillTables(bank->mutable_fircoefs(), true);
      }
    }
  }

  void FillLocators(Locators* locators) {
    const int count = in_.ConsumeIntegralInRange(0, 4);
    for (int n = 0; n < count; ++n) {
      auto* locator = locators->Add();
      if (in_.ConsumeBool()) locator->set_uuid(Uuid());
    }
  }

  void FillPostmixCoefficients(Postmix* postmix) {
    if (in_.ConsumeBool()) FillModel(postmix->mutable_model());
    FillLocators(postmix->mutable_multichroom());
    FillLocators(postmix->mutable_frontroom());
    FillLocators(postmix->mutable_wideroom());
    FillLocators(postmix->mutable_hpeqcoef());
    FillLocators(postmix->mutable_aeqcoef());
    if (in_.ConsumeBool()) {
      auto* hpf = postmix->mutable_hpf_coef();
      if (in_.ConsumeBool()) hpf->set_order(Value());
      FillTables(hpf->mutable_coeffs(), true);
    }
    if (in_.ConsumeBool()) {
      auto* hpf = postmix->mutable_velmo_hpf_coef();
      if (in_.ConsumeBool()) hpf->set_order(in_.ConsumeBool() ? 2 : Value());
      FillTables(hpf->mutable_hpf_coeffs(), false);
    }
    if (in_.ConsumeBool()) {
      auto* xover = postmix->mutable_velmo_xover_coef();
      if (in_.ConsumeBool()) xover->set_order(Value());
      FillTables(xover->mutable_lpf_coeffs(), false);
      FillTables(xover->mutable_hpf_coeffs(), false);
    }
    if (in_.ConsumeBool()) {
      auto* gorm = postmix->mutable_gorm_coef();
      if (in_.ConsumeBool()) gorm->set_speaker_size(Value());
      if (in_.ConsumeBool()) gorm->set_analysis_size(Value());
      FillTables(gorm->mutable_coeffs(), true);
    }
  }

 private:
  void SetScalar(pb::Message* message, const pb::Reflection* reflection,
                 const pb::FieldDescriptor* field) {
    const bool repeated = field->is_repeated();
    switch (field->cpp_type()) {
      case pb::FieldDescriptor::CPPTYPE_INT32:
        repeated ? reflection->AddInt32(message, field, Value())
                 : reflection->SetInt32(message, field, Value());
        break;
      case pb::FieldDescriptor::CPPTYPE_BOOL:
        repeated ? reflection->AddBool(message, field, in_.ConsumeBool())
                 : reflection->SetBool(message, field, in_.ConsumeBool());
        break;
      case pb::FieldDescriptor::CPPTYPE_ENUM: {
        const pb::EnumDescriptor* type = field->enum_type();
        const int value = type->value(in_.ConsumeIntegralInRange(0, type->value_count() - 1))->number();
        repeated ? reflection->AddEnumValue(message, field, value)
                 : reflection->SetEnumValue(message, field, value);
        break;
      }
      // Strings and floating point are never read by the converters; no integer
      // outside the listening model is unsigned or 64 bits wide (schema_test).
      default:
        break;
    }
  }

  FuzzedDataProvider& in_;
};

struct Converted {
  int32_t premix = 0;
  int32_t postmix = 0;
  std::unique_ptr<qvrcs::PremixBlock> premixBlock = std::make_unique<qvrcs::PremixBlock>();
  std::unique_ptr<qvrcs::PostmixBlock> postmixBlock = std::make_unique<qvrcs::PostmixBlock>();
};

// Both converters as the reader runs them, each block in its own exact-size
// allocation so that a write past either is caught.
void Convert(const KorvaSettings& settings, const qvrcs::ListeningModelList& models, bool useTemplate,
             uint8_t filler, Converted& out, qvrcs::TraceObserver* trace = nullptr) {
  qvrcs::ConversionContext context;
  qvrcs::QVRCS_InitContext(context, kRate);
  out.premixBlock->fill(filler);
  out.postmixBlock->fill(filler);
  out.premix = qvrcs::QVRCS_ConvertPremix(context, settings, *out.premixBlock, useTemplate, trace);
  out.postmix = qvrcs::QVRCS_ConvertPostmix(context, settings, *out.postmixBlock, useTemplate, models, trace);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Builder build(in);

  KorvaSettings settings;
  if (in.ConsumeBool()) build.FillScalars(settings.mutable_premix(), 0);
  if (in.ConsumeBool()) build.FillScalars(settings.mutable_postmix(), 0);
  build.FillPostmixCoefficients(settings.mutable_postmix());

  // Models of the caller's own, searched before the postmix's model.
  std::vector<listeningModel> callerModels(in.ConsumeIntegralInRange(0, 2));
  for (listeningModel& model : callerModels) build.FillModel(&model);
  const qvrcs::ListeningModelList models(callerModels.begin(), callerModels.end());

  const bool useTemplate = in.ConsumeBool();
  const uint8_t filler = in.ConsumeIntegral<uint8_t>();

  Converted first;
  Convert(settings, models, useTemplate, filler, first);
  FUZZ_CHECK(first.premix == qvrcs::QVRCS_OK);
  FUZZ_CHECK(first.postmix == qvrcs::QVRCS_OK || first.postmix == qvrcs::QVRCS_ERR_NEGATIVE_REF_HTEST ||
             first.postmix == qvrcs::QVRCS_ERR_NO_COEF_TABLE || first.postmix == qvrcs::QVRCS_ERR_UNKNOWN_ROOM);
  if (useTemplate) {
    fuzz::CheckPremixBlock(first.premixBlock->data());
    fuzz::CheckPostmixBlock(first.postmixBlock->data());
  } else {
    for (size_t i = qvrcs::kPostmixFixedWords; i < qvrcs::kMultichRoomSlot; ++i) {
      FUZZ_CHECK((*first.postmixBlock)[i] == filler);
    }
  }

  // Nothing depends on what happened before, nor on whether the conversion
  // is traced; and the trace tells what the blocks hold.
  Converted second;
  qvrcs::ConversionTrace trace;
  Convert(settings, models, useTemplate, filler, second, &trace);
  FUZZ_CHECK(second.postmix == first.postmix);
  FUZZ_CHECK(*second.premixBlock == *first.premixBlock);
  FUZZ_CHECK(*second.postmixBlock == *first.postmixBlock);
  FUZZ_CHECK(fuzz::TraceMismatch(trace, second.premixBlock->data(), second.postmixBlock->data()).empty());

  // The device's path: the same settings as a tuning file, no caller models.
  if (!callerModels.empty() || !useTemplate) return 0;
  com::qvr::pb::wbn::Qvrcs message;
  *message.add_workspace()->add_routeconfiguration()->add_tech()->mutable_korva_v1_1() = settings;
  const std::string bytes = message.SerializeAsString();
  static fuzz::MemoryFile file;
  FUZZ_CHECK(file.Store(bytes.data(), bytes.size()));
  std::vector<uint8_t> payload(qvr::kCacheBlockSize, 0);
  const int32_t result = QVRCS_GetPremixData(file.path().c_str(), payload.data());
  if (first.postmix != qvrcs::QVRCS_OK) {
    FUZZ_CHECK(result == -4);
    return 0;
  }
  FUZZ_CHECK(result == 0);
  FUZZ_CHECK(std::memcmp(payload.data() + qvr::kPremixPayloadOffset, first.premixBlock->data(),
                         qvrcs::kPremixBlockSize) == 0);
  FUZZ_CHECK(std::memcmp(payload.data() + qvr::kPostmixPayloadOffset, first.postmixBlock->data(),
                         qvrcs::kPostmixBlockSize) == 0);
  return 0;
}
