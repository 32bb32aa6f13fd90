// The Korva driver answered inside the process, for the fuzzers.
//
// A fuzz target that uploads is linked with -Wl,--wrap=ioctl: the ioctl calls
// of configurator/driver.cpp (the real request code, records and calls) then
// land in __wrap_ioctl, which hands those on the fake driver's descriptor to
// the simulated driver's model (tools/korva-driver-sim/sim_model.h), exactly
// as korva-driver-sim does for a separate process. Nothing of this is linked
// into the configurator itself.
#pragma once

#include <vector>

#include "tools/korva-driver-sim/sim_model.h"

namespace fuzz {

// Starts a fresh simulated driver that answers by `answers` (as the
// simulator's --answer rules), and points g_fd at it.
void StartFakeDriver(std::vector<korva_sim::AnswerRule> answers);

// The driver started last.
const korva_sim::Driver& FakeDriver();

}  // namespace fuzz
