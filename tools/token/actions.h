// SPDX-License-Identifier: Apache-2.0
// What the commands of `kelmtrova token` do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/token/report.h"
#include "tools/token/session.h"

namespace kelm::tools {

// A finger, the slot that is meant, and how it is to be matched or enrolled.
struct FingerOptions {
  std::optional<std::string> finger;  // for a simulated sensor
  std::optional<int> slot;
  std::optional<std::string> label;
  std::optional<int> tag;
  int mode = 0;
  bool test = false;                    // match without counting tries
  bool watch = false;                   // go on finger after finger
  bool replace = false, again = false;  // enroll into an occupied slot; a finger that is enrolled already
  bool all = false, yes = false;        // delete every slot; without a question
};

struct CreateOptions {
  int slots = 10;
  int tries = 5;
  int fidCounter = 0;  // 0 for the first safe one
};

struct ParameterOptions {
  std::optional<int> verifyMode, timeOut, securityLevel, gain;
};

// tools/token/fingers.cpp
Report enroll(Session &session, const FingerOptions &options);
Report verify(Session &session, const FingerOptions &options);
Report identify(Session &session, const FingerOptions &options);
Report deleteFingers(Session &session, const FingerOptions &options);
// Goes on until a signal ends the program: a line, with --json an object, for each finger.
[[noreturn]] void watchFingers(Session &session, const FingerOptions &options, bool identifying, bool json);

// tools/token/device.cpp
Report listTokens();
Report showInfo(Session &session);
Report selfTest(Session &session);
Report showSlots(Session &session);
Report parameters(Session &session, const ParameterOptions &options);
Report cache(Session &session, const std::string &action);
Report sendImage(Session &session, const std::string &file);

// tools/token/repair.cpp: `erase` holds FIDs in hexadecimal.
Report repair(Session &session, const std::vector<std::string> &erase);
Report examine(Session &session);

// tools/token/simulated.cpp: what only a simulated token can do
Report createToken(const TokenOptions &token, const CreateOptions &options);
Report exportToken(const TokenOptions &token, const std::string &file);
Report importToken(const TokenOptions &token, const std::string &file);
Report touch(const TokenOptions &token, const std::string &finger);
Report lift(const TokenOptions &token);
Report serve(const TokenOptions &token, const std::string &reader);
Report requirePin(const TokenOptions &token, bool required);
Report changePin(const TokenOptions &token);
Report unblock(const TokenOptions &token);

}  // namespace kelm::tools
