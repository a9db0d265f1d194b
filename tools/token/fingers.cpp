// SPDX-License-Identifier: Apache-2.0
// Fingers: enrolled, verified, identified, deleted, watched for.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/signals.h"
#include "tools/terminal.h"
#include "tools/text.h"
#include "tools/token/actions.h"
#include "tools/token/refusal.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

using Index = std::vector<TemplateIndexEntry>;

constexpr std::size_t kAnySlot = 0;

const TemplateIndexEntry &entryOf(const Index &index, std::size_t slot) { return index[slot - 1]; }

void requireSlotInRange(int slot, std::size_t slots) {
  if (slot >= 1 && static_cast<std::size_t>(slot) <= slots) return;
  throw Failure(kExitUsage, fmt::format("slot {} does not exist: the token has {}", slot, counted(slots, "slot")));
}

// The one slot with that label; a label that several have is refused.
std::size_t slotWithLabel(const Index &index, const std::string &label) {
  std::vector<std::size_t> slots;
  for (std::size_t slot = 1; slot <= index.size(); ++slot) {
    const TemplateIndexEntry &entry = entryOf(index, slot);
    if (slotState(entry) != SlotState::kFree && labelBytes(entry) == label) slots.push_back(slot);
  }
  if (slots.size() == 1) return slots.front();
  if (slots.empty()) {
    throw Failure(kExitUsage, fmt::format("no slot has the label \"{}\"", label),
                  "`kelmtrova token slots` shows the labels", "no-such-label");
  }
  throw Failure(kExitUsage, fmt::format("slots {} have the label \"{}\"", fmt::join(slots, " and "), label),
                "choose one with --slot", "ambiguous-label");
}

// The slot that --slot or --label names.
std::size_t namedSlot(const Index &index, const FingerOptions &options) {
  if (!options.slot) return slotWithLabel(index, *options.label);
  requireSlotInRange(*options.slot, index.size());
  return static_cast<std::size_t>(*options.slot);
}

std::size_t firstFree(const Index &index) {
  for (const SlotState state : {SlotState::kFree, SlotState::kReserved}) {
    const auto place =
        std::find_if(index.begin(), index.end(), [&](const auto &entry) { return slotState(entry) == state; });
    if (place != index.end()) return static_cast<std::size_t>(place - index.begin()) + 1;
  }
  throw Failure(kExitRefused, "no slot is free", "delete a finger, or name the one to replace with --replace --slot",
                "full");
}

// The slot to enroll into, which is free or meant to be replaced.
std::size_t slotToEnroll(const Index &index, const FingerOptions &options) {
  if (!options.replace && !options.slot) return firstFree(index);
  if (!options.slot && !options.label) {
    throw Failure(kExitUsage, "--replace needs the finger to replace", "name it with --slot or --label");
  }
  const std::size_t slot = namedSlot(index, options);
  if (slotState(entryOf(index, slot)) == SlotState::kEnrolled && !options.replace) {
    throw Failure(kExitUsage, slotName(slot, entryOf(index, slot)) + " is occupied",
                  "--replace puts the new finger in its place", "occupied");
  }
  return slot;
}

// What goes into the index: what is not given anew stays as it was.
TemplateIndexEntry recordOf(const TemplateIndexEntry &before, const FingerOptions &options) {
  TemplateIndexEntry record{};
  if (slotState(before) == SlotState::kEnrolled) record = before;
  if (options.tag) record.tag = static_cast<std::uint8_t>(*options.tag);
  if (options.label) {
    std::fill(std::begin(record.userData), std::end(record.userData), std::uint8_t{0});
    std::copy(options.label->begin(), options.label->end(), record.userData);
  }
  return record;
}

// The slot that matches the finger on the sensor, by a match that costs no try; none also where the token cannot tell.
std::optional<std::size_t> slotOfFinger(Session &session) {
  session.captureFeatures(1, ", to see whether it is enrolled already");
  std::uint8_t slot = 0;
  const std::uint64_t result = KelmTrovaFeatureVerifyTest(session.handle(), 0, &slot);
  if (noTokenAnswered()) check(result, "matching");
  return result == KELM_RESULT_OK ? std::optional<std::size_t>(slot) : std::nullopt;
}

void refuseEnrolledFinger(Session &session, const Index &index, std::size_t into) {
  const std::size_t others = enrolledCount(index) - (slotState(entryOf(index, into)) == SlotState::kEnrolled ? 1 : 0);
  if (others == 0) return;
  const auto slot = slotOfFinger(session);
  if (!slot || *slot == into) return;
  const bool known = *slot >= 1 && *slot <= index.size();
  throw Failure(kExitRefused,
                fmt::format("this finger is enrolled already, in {}",
                            known ? slotName(*slot, entryOf(index, *slot)) : fmt::format("slot {}", *slot)),
                "--again enrolls it a second time, --replace anew in its place", "enrolled-already");
}

Report matched(Session &session, std::size_t slot) {
  const Index index = session.readIndex();
  Report report;
  report.tone = Tone::kGood;
  report.json["match"] = true;
  if (slot < 1 || slot > index.size()) {
    report.json["slot"] = slot;
    report.text = fmt::format("match: slot {}\n", slot);
    return report;
  }
  report.json.update(slotJson(slot, entryOf(index, slot)));
  report.text = "match: " + slotName(slot, entryOf(index, slot)) + "\n";
  return report;
}

Report notMatched(const std::string &with, std::size_t slot, std::optional<unsigned> triesLeft) {
  Report report;
  report.exitCode = kExitNoMatch;
  report.tone = Tone::kBad;
  report.json["match"] = false;
  if (slot != kAnySlot) report.json["slot"] = slot;
  report.text = "no match " + with;
  if (triesLeft) {
    report.json["triesLeft"] = *triesLeft;
    report.json["blocked"] = *triesLeft == 0;
    report.text += *triesLeft == 0   ? ", no tries left: matching is blocked from now on"
                   : *triesLeft == 1 ? ", 1 try left"
                                     : fmt::format(", {} tries left", *triesLeft);
  }
  report.text += "\n";
  return report;
}

// The library has one result for the last failed try and for what is asked after it; the token's status word tells them
// apart.
bool wasLastTry(std::uint64_t result) {
  return result == KELM_RESULT_BLOCKED && watch().tracedStatus == static_cast<int>(KELM_SW_NO_MATCH);
}

bool isNoMatch(std::uint64_t result) {
  return result == KELM_RESULT_NO_MATCH || result == KELM_RESULT_NOT_IDENTIFIED || wasLastTry(result);
}

// Captures a finger and compares it with a slot, or with all.
Report matchOnce(Session &session, const FingerOptions &options, std::size_t slot, const std::string &name) {
  const Stretch stretch(session.device());
  session.captureFeatures(1);
  auto found = static_cast<std::uint8_t>(slot);
  const auto mode = static_cast<std::uint8_t>(options.mode);
  std::uint8_t triesLeft = 0;
  std::uint64_t result;
  if (options.test) {
    result = KelmTrovaFeatureVerifyTest(session.handle(), slot != kAnySlot, &found);
  } else if (slot == kAnySlot) {
    result = KelmTrovaFeatureIdentify(session.handle(), mode, &found, &triesLeft);
  } else {
    result = KelmTrovaFeatureVerify(session.handle(), mode, found, &triesLeft);
  }
  if (isNoMatch(result)) {
    return notMatched(slot == kAnySlot ? "in any slot" : "with " + name, slot,
                      options.test ? std::nullopt : std::optional<unsigned>(triesLeft));
  }
  check(result, slot == kAnySlot ? "identifying the finger" : "verifying against " + name);
  return matched(session, found);
}

// The slot that verification is about, and its name for messages.
struct Wanted {
  std::size_t slot = kAnySlot;
  std::string name;
};

Wanted wantedSlot(Session &session, const FingerOptions &options) {
  if (!options.slot) {
    const Index index = session.readIndex();
    const std::size_t slot = slotWithLabel(index, *options.label);
    return {slot, slotName(slot, entryOf(index, slot))};
  }
  requireSlotInRange(*options.slot, session.slotCount());
  return {static_cast<std::size_t>(*options.slot), fmt::format("slot {}", *options.slot)};
}

void requireSlotOrLabel(const FingerOptions &options, const char *what) {
  if (options.slot || options.label) return;
  throw Failure(kExitUsage, std::string(what) + " must be named", "with --slot or --label");
}

Report deleteAll(Session &session, const Index &index, const FingerOptions &options) {
  const auto taken = static_cast<std::size_t>(std::count_if(
      index.begin(), index.end(), [](const auto &entry) { return slotState(entry) != SlotState::kFree; }));
  const std::string fingers = counted(taken, "slot");
  if (taken > 0 && !options.yes && !confirmed(fmt::format("Clear {} of {}? [y/N] ", fingers, session.place()))) {
    throw Failure(kExitUsage, "nothing was deleted", "--yes deletes all without a question", "not-confirmed");
  }
  Report report;
  report.json["deleted"] = nlohmann::ordered_json::array();
  for (std::size_t slot = 1; slot <= index.size(); ++slot) {
    const TemplateIndexEntry &entry = entryOf(index, slot);
    if (slotState(entry) == SlotState::kFree) continue;
    check(
        session.withPin([&] { return KelmTrovaDeleteFingerPrint(session.handle(), static_cast<std::uint8_t>(slot)); }),
        "deleting " + slotName(slot, entry));
    report.json["deleted"].push_back(slotJson(slot, entry));
    report.text += "deleted " + slotName(slot, entry) + "\n";
  }
  if (taken == 0) report.text = "every slot is free already\n";
  return report;
}

}  // namespace

Report enroll(Session &session, const FingerOptions &options) {
  constexpr int kBuffers = 3;
  session.layFinger(options.finger);
  const Stretch stretch(session.device());
  const Index index = session.readIndex();
  const std::size_t slot = slotToEnroll(index, options);
  const TemplateIndexEntry &before = entryOf(index, slot);
  const bool replaced = slotState(before) == SlotState::kEnrolled;
  const TemplateIndexEntry record = recordOf(before, options);
  if (!options.again) refuseEnrolledFinger(session, index, slot);
  session.captureFeatures(kBuffers);
  check(session.withPin(
            [&] { return KelmTrovaFeatureEnroll(session.handle(), static_cast<std::uint8_t>(slot), &record); }),
        "enrolling into " + slotName(slot, record));
  Report report;
  report.tone = Tone::kGood;
  report.text =
      fmt::format("enrolled into {}{}\n", slotName(slot, record), replaced ? ", in place of what was there" : "");
  report.json = {{"slot", slot}, {"tag", record.tag}, {"label", labelOf(record)}, {"replaced", replaced}};
  return report;
}

Report verify(Session &session, const FingerOptions &options) {
  requireSlotOrLabel(options, "the finger to compare with");
  session.layFinger(options.finger);
  const Wanted wanted = wantedSlot(session, options);
  return matchOnce(session, options, wanted.slot, wanted.name);
}

Report identify(Session &session, const FingerOptions &options) {
  session.layFinger(options.finger);
  return matchOnce(session, options, kAnySlot, "");
}

Report deleteFingers(Session &session, const FingerOptions &options) {
  if (!options.all) requireSlotOrLabel(options, "the finger to delete");
  const Stretch stretch(session.device());
  const Index index = session.readIndex();
  if (options.all) return deleteAll(session, index, options);
  const std::size_t slot = namedSlot(index, options);
  const TemplateIndexEntry &entry = entryOf(index, slot);
  const std::string name = slotName(slot, entry);
  check(session.withPin([&] { return KelmTrovaDeleteFingerPrint(session.handle(), static_cast<std::uint8_t>(slot)); }),
        "deleting " + name);
  const bool wasFree = slotState(entry) == SlotState::kFree;
  Report report;
  report.text = wasFree ? name + " is free already\n" : "deleted " + name + "\n";
  report.json["deleted"] = nlohmann::ordered_json::array();
  if (!wasFree) report.json["deleted"].push_back(slotJson(slot, entry));
  return report;
}

namespace {

using std::chrono::milliseconds;

// Waits until a finger comes onto a simulated sensor, or leaves it; another process lays it there.
void awaitFinger(Session &session, bool lies) {
  constexpr milliseconds kPause{50};
  while ((session.state().fingerLies != 0) != lies) std::this_thread::sleep_for(kPause);
}

// An image that is of no use, or none: the next finger may do better.
bool isPoorCapture(const Failure &failure) {
  constexpr std::uint32_t kPoor[] = {KELM_SW_CAPTURE_6A0E, KELM_SW_FEATURE_6A07, KELM_SW_FEATURE_6A08,
                                     KELM_SW_FEATURE_6A0B, KELM_SW_FEATURE_6A11};
  return std::any_of(std::begin(kPoor), std::end(kPoor),
                     [&](std::uint32_t status) { return failure.result == KELM_RESULT_OF(status); });
}

void sayOne(const Report &report, bool json) {
  std::string line = report.text;
  if (json) {
    nlohmann::ordered_json answer = {{"ok", true}};
    answer.update(report.json);
    line = jsonText(answer, -1) + '\n';
  } else {
    line.pop_back();
    line = toned(line, report.tone, STDOUT_FILENO) + '\n';
  }
  put(line);
  flushOutput();
}

}  // namespace

void watchFingers(Session &session, const FingerOptions &options, bool identifying, bool json) {
  // Long enough to lift a finger from a real sensor; a simulated one without a finger answers at once.
  constexpr milliseconds kBetweenFingers{1000}, kBetweenCaptures{100};
  if (options.finger) {
    throw Failure(kExitUsage, "--watch waits for fingers and takes no --finger",
                  "`kelmtrova token touch` lays one on a simulated sensor");
  }
  if (!identifying) requireSlotOrLabel(options, "the finger to compare with");
  const Wanted wanted = identifying ? Wanted{} : wantedSlot(session, options);
  const OnSignal end([](int signal) {
    if (signal == SIGTSTP) return false;
    flockfile(stdout);  // the line that is being written is written to its end
    std::fflush(stdout);
    clearStatusLine();
    if (isatty(STDERR_FILENO) == 1 && !isQuiet()) std::fputc('\n', stderr);  // after the terminal's own ^C
    traceEnds();
    _exit(kExitDone);
  });
  if (session.simulated() && isatty(STDERR_FILENO) == 1) {
    putError(
        "waiting for fingers, which `kelmtrova token touch` lays on the sensor and `lift` takes off; Ctrl-C ends it");
  }
  for (;;) {
    if (session.simulated()) awaitFinger(session, true);
    try {
      sayOne(matchOnce(session, options, wanted.slot, wanted.name), json);
      session.setPrompting(true);
      std::this_thread::sleep_for(session.simulated() ? milliseconds(0) : kBetweenFingers);
    } catch (const Failure &failure) {
      if (!isPoorCapture(failure)) throw;
      session.setPrompting(false);  // asked once for each finger
      if (failure.result != KELM_RESULT_OF(KELM_SW_CAPTURE_6A0E)) putError(failure.what());
      std::this_thread::sleep_for(kBetweenCaptures);
    }
    if (session.simulated()) awaitFinger(session, false);
  }
}

}  // namespace kelm::tools
