// SPDX-License-Identifier: Apache-2.0
// What only the open device manager can do, looked up while the program runs: a maker's device manager has the entry
// for exchanges and nothing else.
#pragma once

#include "kelmtrova/device_manager.h"
#include "kelmtrova/simulator.h"
#include "kelmtrova/trace.h"

namespace kelm::tools {

struct Manager {
  decltype(&deviceManagerList) list;
  decltype(&deviceManagerOpen) open;
  decltype(&deviceManagerClose) close;
  decltype(&deviceManagerError) error;
  decltype(&deviceManagerErrorCode) errorCode;
  decltype(&deviceManagerCodeText) codeText;
  decltype(&deviceManagerBegin) begin;
  decltype(&deviceManagerEnd) end;
};

struct Simulator {
  decltype(&simulatorCreate) create;
  decltype(&simulatorOpen) open;
  decltype(&simulatorClose) close;
  decltype(&simulatorFailure) failure;
  decltype(&simulatorError) error;
  decltype(&simulatorDefaultStore) defaultStore;
  decltype(&simulatorExport) exportTo;
  decltype(&simulatorImport) importFrom;
  decltype(&simulatorPlaceFinger) placeFinger;
  decltype(&simulatorRemoveFinger) removeFinger;
  decltype(&simulatorGetState) getState;
  decltype(&simulatorRequirePin) requirePin;
  decltype(&simulatorChangePin) changePin;
  decltype(&simulatorUnblock) unblock;
  decltype(&simulatorServe) serve;
  decltype(&simulatorSetTrace) setTrace;
  decltype(&simulatorGetFiles) getFiles;
};

struct Tracer {
  decltype(&kelmTraceOpen) open;
  decltype(&kelmTraceCommand) command;
  decltype(&kelmTraceAnswer) answer;
  decltype(&kelmTraceError) error;
  decltype(&kelmTraceClose) close;
};

// Null with a maker's device manager.
const Manager *manager();
const Simulator *simulator();
// From libkelmtrova-trace.so; null where that is not installed.
const Tracer *tracer();

}  // namespace kelm::tools
