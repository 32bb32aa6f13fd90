// Runs the qvrcs tool in this process, as its command line would, with what
// it writes to standard output and error; and the tuning file and
// configurator.cfg its tests start from.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "block_support.h"
#include "configurator/config_file.h"
#include "test_support.h"
#include "tools/qvrcs/tool.h"

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// `input` is what the tool reads as standard input.
inline ToolRun RunTool(const std::vector<std::string>& args, const std::string& input = "") {
  std::istringstream in(input);
  std::ostringstream out, err;
  const int status = qvrcs_tool::Run(args, in, out, err);
  return ToolRun{status, out.str(), err.str()};
}

constexpr const char* kGoodUuid = "6f1c2a3b-0000-4000-8000-00000000a001";

// A tuning file that loads: one front room, one headphone EQ and one AEQ in
// the postmix record's own model, all with 48000 Hz tables.
inline com::qvr::pb::wbn::Qvrcs GoodTuning() {
  using qvrcs::block_test::AddTable16;
  using qvrcs::block_test::Ramp;
  com::qvr::pb::wbn::Qvrcs tuning = qvr_test::TuningWith({});
  qvr_test::SettingsOf(tuning).mutable_premix()->mutable_dravo()->set_input_gain(1000);
  auto& postmix = qvr_test::PostmixOf(tuning);
  postmix.set_postmix_gain(-256);
  auto* model = postmix.mutable_model();
  auto* room = model->add_rooms();
  room->set_uuid(kGoodUuid);
  room->set_numpairs(1);
  room->set_channelmask(3);
  room->set_brirlength(50);
  AddTable16(room->mutable_coefftables(), 48000, Ramp(100, 1));
  postmix.add_frontroom()->set_uuid(kGoodUuid);
  auto* eq = model->add_headphones();
  eq->set_uuid(kGoodUuid);
  eq->set_ihpirlength(8);
  AddTable16(eq->mutable_coefftables(), 48000, Ramp(18, 1));
  postmix.add_hpeqcoef()->set_uuid(kGoodUuid);
  auto* aeq = model->add_aeqs();
  aeq->set_uuid(kGoodUuid);
  for (int bank = 0; bank < 2; ++bank) {
    qvrcs::block_test::AddTable32(aeq->add_coefficient_table()->mutable_iircoefs(), 48000, Ramp(12, 1));
  }
  postmix.add_aeqcoef()->set_uuid(kGoodUuid);
  return tuning;
}

// configurator.cfg naming files[i] for the i-th slot (the last file for the
// slots past the list), each for device 1.
inline std::string SlotConfig(const std::vector<std::string>& files) {
  std::string text;
  for (size_t i = 0; i < std::size(qvr::kConfigSlots); ++i) {
    text += std::string(qvr::kConfigSlots[i].name) + " { filename: \"" + files[std::min(i, files.size() - 1)] +
            "\" device_bitmask: 1 }\n";
  }
  return text;
}
