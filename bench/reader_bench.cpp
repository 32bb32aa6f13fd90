// Cost of reading one tuning file of the largest size the postmix block
// takes, against parsing the same file alone.
//
// The file is built here through the generated classes: the multichannel
// room at its 16400-value capacity, front and wide rooms at 6150, a 258-value
// headphone EQ and a two-bank AEQ of 334 values per bank, each table also
// present at 44100 and 96000 Hz, plus the small coefficient sections.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "configurator/payload.h"
#include "configurator/tuning_reader.h"
#include "qvrcsPB.pb.h"

namespace {

using com::qvr::pb::coef::CoefTable;
using com::qvr::pb::korva_v1_1::Postmix;
using TableList = google::protobuf::RepeatedPtrField<CoefTable>;

constexpr int32_t kRates[] = {44100, 48000, 96000};

// Deterministic full-range 16-bit values (worst case for the varint size).
class Values {
 public:
  int32_t Next16() { return static_cast<int16_t>(Next() >> 16); }
  int32_t Next32() { return static_cast<int32_t>(Next()); }

 private:
  uint32_t Next() { return state_ = state_ * 1664525u + 1013904223u; }
  uint32_t state_ = 12345;
};

void AddTables16(TableList* tables, int count, Values& values) {
  for (int32_t rate : kRates) {
    CoefTable* table = tables->Add();
    table->set_samplerate(rate);
    for (int i = 0; i < count; ++i) table->add_coeff_16(values.Next16());
  }
}

void AddTables32(TableList* tables, int count, Values& values) {
  for (int32_t rate : kRates) {
    CoefTable* table = tables->Add();
    table->set_samplerate(rate);
    for (int i = 0; i < count; ++i) table->add_coeff_32(values.Next32());
  }
}

std::string MaximumTuningFile() {
  Values values;
  com::qvr::pb::wbn::Qvrcs message;
  Postmix* postmix = message.add_workspace()
                         ->add_routeconfiguration()
                         ->add_tech()
                         ->mutable_korva_v1_1()
                         ->mutable_postmix();
  auto* model = postmix->mutable_model();

  const struct {
    const char* uuid;
    int count;
    google::protobuf::RepeatedPtrField<com::qvr::pb::wbn::ResourceLocator>* locators;
  } rooms[] = {
      {"11111111-2222-3333-4444-555555555555", 16400, postmix->mutable_multichroom()},
      {"21111111-2222-3333-4444-555555555555", 6150, postmix->mutable_frontroom()},
      {"31111111-2222-3333-4444-555555555555", 6150, postmix->mutable_wideroom()},
  };
  for (const auto& r : rooms) {
    auto* room = model->add_rooms();
    room->set_uuid(r.uuid);
    room->set_channelmask(0x3F);
    room->set_numpairs(6);
    room->set_brirlength(2048);
    room->set_reverbgain(-6);
    room->set_reverbcut(8000);
    AddTables16(room->mutable_coefftables(), r.count, values);
    r.locators->Add()->set_uuid(r.uuid);
  }

  auto* headphone = model->add_headphones();
  headphone->set_uuid("41111111-2222-3333-4444-555555555555");
  headphone->set_ihpirlength(128);
  AddTables16(headphone->mutable_coefftables(), 258, values);
  postmix->add_hpeqcoef()->set_uuid(headphone->uuid());

  auto* aeq = model->add_aeqs();
  aeq->set_uuid("51111111-2222-3333-4444-555555555555");
  for (int bank = 0; bank < 2; ++bank) {
    auto* filterBank = aeq->add_coefficient_table();
    filterBank->set_iirorder(24);
    AddTables32(filterBank->mutable_iircoefs(), 334, values);
  }
  postmix->add_aeqcoef()->set_uuid(aeq->uuid());

  postmix->mutable_hpf_coef()->set_order(2);
  AddTables32(postmix->mutable_hpf_coef()->mutable_coeffs(), 20, values);
  postmix->mutable_velmo_hpf_coef()->set_order(2);
  AddTables16(postmix->mutable_velmo_hpf_coef()->mutable_hpf_coeffs(), 20, values);
  postmix->mutable_velmo_xover_coef()->set_order(4);
  AddTables16(postmix->mutable_velmo_xover_coef()->mutable_lpf_coeffs(), 14, values);
  AddTables16(postmix->mutable_velmo_xover_coef()->mutable_hpf_coeffs(), 14, values);
  postmix->mutable_gorm_coef()->set_speaker_size(20);
  postmix->mutable_gorm_coef()->set_analysis_size(20);
  AddTables32(postmix->mutable_gorm_coef()->mutable_coeffs(), 24, values);
  return message.SerializeAsString();
}

std::string g_path;  // the tuning file, for the whole run

void BM_GetPremixData(benchmark::State& state) {
  std::vector<uint8_t> payload(qvr::kCacheBlockSize);
  for (auto _ : state) {
    const int32_t result = QVRCS_GetPremixData(g_path.c_str(), payload.data());
    if (result != 0) state.SkipWithError("QVRCS_GetPremixData failed");
    benchmark::DoNotOptimize(payload.data());
    benchmark::ClobberMemory();
  }
}

// The same opening and parse as the reader, and nothing else.
void BM_ParseOnly(benchmark::State& state) {
  for (auto _ : state) {
    std::ifstream file(g_path, std::ios::in | std::ios::binary);
    com::qvr::pb::wbn::Qvrcs message;
    if (!message.ParseFromIstream(&file)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(message);
  }
}

// Console output as usual, then the ratio of the two benchmarks' times (the
// medians when run with repetitions). CPU time is the steadier figure on a
// shared machine; wall time is shown too.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Iteration || median) {
        times_[run.run_name.function_name] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto reader = times_.find("BM_GetPremixData");
    const auto parse = times_.find("BM_ParseOnly");
    if (reader == times_.end() || parse == times_.end()) return;
    if (parse->second.cpu <= 0 || parse->second.real <= 0) return;
    std::printf("QVRCS_GetPremixData / parse only: cpu %.3f, wall %.3f (goal <= 1.10)\n",
                reader->second.cpu / parse->second.cpu, reader->second.real / parse->second.real);
  }

 private:
  struct Times {
    double cpu = 0;
    double real = 0;
  };
  std::map<std::string, Times> times_;
};

}  // namespace

BENCHMARK(BM_ParseOnly)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetPremixData)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/reader_bench_XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) return 1;
  g_path = dir + "/maximum.qvrcs";
  {
    const std::string bytes = MaximumTuningFile();
    std::ofstream out(g_path, std::ios::binary);
    out << bytes;
    if (!out.good()) return 1;
    std::printf("tuning file: %zu bytes\n", bytes.size());
  }

  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::remove(g_path.c_str());
  rmdir(dir.c_str());
  return 0;
}
