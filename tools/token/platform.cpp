// SPDX-License-Identifier: Apache-2.0
#include "tools/token/platform.h"

#include <dlfcn.h>

namespace kelm::tools {

namespace {

// Finds functions in one library, or in all that are loaded; remembers whether one is missing.
class Lookup {
 public:
  explicit Lookup(void *library) : library_(library) {}

  template <typename Function>
  Lookup &operator()(Function &function, const char *name) {
    function = reinterpret_cast<Function>(dlsym(library_, name));
    whole_ = whole_ && function != nullptr;
    return *this;
  }
  bool whole() const { return whole_; }

 private:
  void *library_;
  bool whole_ = true;
};

bool find(Manager &all) {
  return Lookup(RTLD_DEFAULT)(all.list, "deviceManagerList")(all.open, "deviceManagerOpen")(
             all.close, "deviceManagerClose")(all.error, "deviceManagerError")(all.errorCode, "deviceManagerErrorCode")(
             all.codeText, "deviceManagerCodeText")(all.begin, "deviceManagerBegin")(all.end, "deviceManagerEnd")
      .whole();
}

bool find(Simulator &all) {
  return Lookup(RTLD_DEFAULT)(all.create, "simulatorCreate")(all.open, "simulatorOpen")(all.close, "simulatorClose")(
             all.failure, "simulatorFailure")(all.error, "simulatorError")(all.defaultStore, "simulatorDefaultStore")(
             all.exportTo, "simulatorExport")(all.importFrom, "simulatorImport")(
             all.placeFinger, "simulatorPlaceFinger")(all.removeFinger, "simulatorRemoveFinger")(
             all.getState, "simulatorGetState")(all.requirePin, "simulatorRequirePin")(
             all.changePin, "simulatorChangePin")(all.unblock, "simulatorUnblock")(all.serve, "simulatorServe")(
             all.setTrace, "simulatorSetTrace")(all.getFiles, "simulatorGetFiles")
      .whole();
}

bool find(Tracer &all) {
  void *const library = dlopen("libkelmtrova-trace.so", RTLD_NOW | RTLD_LOCAL);
  return library != nullptr &&
         Lookup(library)(all.open, "kelmTraceOpen")(all.command, "kelmTraceCommand")(all.answer, "kelmTraceAnswer")(
             all.error, "kelmTraceError")(all.close, "kelmTraceClose")
             .whole();
}

template <typename Functions>
const Functions *found() {
  static Functions all;
  static const bool whole = find(all);
  return whole ? &all : nullptr;
}

}  // namespace

const Manager *manager() { return found<Manager>(); }
const Simulator *simulator() { return found<Simulator>(); }
const Tracer *tracer() { return found<Tracer>(); }

}  // namespace kelm::tools
