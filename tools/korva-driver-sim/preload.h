// The simulator's own preload library (preload.cpp), as the simulator hands
// it to the program: its file name and the environment it reads.
#pragma once

// Library file name; it is built next to the korva-driver-sim executable.
#define KORVA_SIM_PRELOAD_LIBRARY "libkorva-sim-preload.so"
// The node rules (node_rules.h), ';'-separated, in the order given.
#define KORVA_SIM_NODE_RULES_VARIABLE "KORVA_SIM_NODE_RULES"
// N: the N-th allocation of an upload buffer fails (unset: none does).
#define KORVA_SIM_FAIL_ALLOC_VARIABLE "KORVA_SIM_FAIL_ALLOC"
// File the library appends one line to for every open of a node and every
// allocation it makes fail: "open NODE ERRNO" (NODE an index of
// kNodeNames, ERRNO 0 when the open went on to the testbed) and "alloc N".
#define KORVA_SIM_EVENTS_VARIABLE "KORVA_SIM_EVENTS"
