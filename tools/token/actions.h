// SPDX-License-Identifier: Apache-2.0
// What the commands of `kelmtrova token` do.
#pragma once

#include <optional>
#include <string>

#include "tools/token/report.h"
#include "tools/token/session.h"

namespace kelm::tools {

struct CreateOptions {
  int slots = 10;
  int tries = 5;
  int fidCounter = 0;  // 0 for the first safe one
  std::string pin = "1234";
};

struct FingerOptions {
  std::string finger;
  std::optional<int> slot;
  std::string label;
  int tag = 0;
  int mode = 0;
  bool test = false;  // match without counting tries
};

struct ParameterOptions {
  std::optional<int> verifyMode, timeOut, securityLevel, gain;
};

Report createToken(const TokenOptions &token, const CreateOptions &options);
Report showInfo(Session &session);
Report selfTest(Session &session);
Report showSlots(Session &session);
Report enroll(Session &session, const FingerOptions &options);
Report verify(Session &session, const FingerOptions &options);
Report identify(Session &session, const FingerOptions &options);
Report deleteSlot(Session &session, int slot);
Report repair(Session &session);
Report parameters(Session &session, const ParameterOptions &options);
Report cache(Session &session, const std::string &action);
Report sendImage(Session &session, const std::string &file);
Report verifyPin(Session &session, const std::string &pin);
Report requirePin(Session &session, bool required);
Report unblock(Session &session);

}  // namespace kelm::tools
