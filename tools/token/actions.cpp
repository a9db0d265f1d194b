// SPDX-License-Identifier: Apache-2.0
#include "tools/token/actions.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <span>

#include "tools/failure.h"
#include "tools/image/picture.h"
#include "tools/terminal.h"
#include "tools/text.h"
#include "tools/token/watch.h"
#include "tools/token/words.h"

namespace kelm::tools {

namespace {

constexpr unsigned kAnySlot = 0;

// "  00  4B 45 ...  KE.." for 16 bytes each.
std::string dump(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kPerLine = 16;
  std::string text;
  for (std::size_t start = 0; start < bytes.size(); start += kPerLine) {
    const auto line = bytes.subspan(start, std::min(kPerLine, bytes.size() - start));
    std::string characters;
    for (const std::uint8_t byte : line) characters += byte >= ' ' && byte < 0x7F ? static_cast<char>(byte) : '.';
    text += fmt::format("  {:02X}  {:<{}}  {}\n", start, hex(line, " "), 3 * kPerLine - 1, characters);
  }
  return text;
}

void requireSlotInRange(int slot, std::size_t slots) {
  if (slot < 1 || static_cast<std::size_t>(slot) > slots) {
    throw Failure(kExitUsage,
                  "slot " + std::to_string(slot) + " does not exist: the token has " + counted(slots, "slot"));
  }
}

int chooseSlot(const std::vector<TemplateIndexEntry> &index) {
  for (const SlotState state : {SlotState::kFree, SlotState::kReserved}) {
    const auto place =
        std::find_if(index.begin(), index.end(), [&](const auto &entry) { return slotState(entry) == state; });
    if (place != index.end()) return static_cast<int>(place - index.begin()) + 1;
  }
  throw Failure(kExitRefused, "no slot is free: delete one, or name the one to replace with --slot");
}

TemplateIndexEntry recordOf(const FingerOptions &options) {
  TemplateIndexEntry record{};
  record.tag = static_cast<std::uint8_t>(options.tag);
  std::memcpy(record.userData, options.label.data(), std::min(options.label.size(), sizeof record.userData));
  return record;
}

Report matched(Session &session, unsigned slot) {
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  Report report;
  report.json["match"] = true;
  if (slot < 1 || slot > index.size()) {
    report.json["slot"] = slot;
    report.text = "match: slot " + std::to_string(slot) + "\n";
    return report;
  }
  report.json.update(slotJson(slot, index[slot - 1]));
  report.text = "match: " + slotName(slot, index[slot - 1]) + "\n";
  return report;
}

Report notMatched(unsigned slot, std::optional<unsigned> triesLeft) {
  Report report;
  report.exitCode = kExitNoMatch;
  report.json["match"] = false;
  if (slot != kAnySlot) report.json["slot"] = slot;
  report.text = slot == kAnySlot ? "no match in any slot" : "no match with slot " + std::to_string(slot);
  if (triesLeft) {
    report.json["triesLeft"] = *triesLeft;
    report.text += *triesLeft == 1 ? ", 1 try left" : ", " + std::to_string(*triesLeft) + " tries left";
  }
  report.text += "\n";
  return report;
}

bool isNoMatch(std::uint64_t result) { return result == KELM_RESULT_NO_MATCH || result == KELM_RESULT_NOT_IDENTIFIED; }

// The match that leaves the token's try counter alone.
Report matchForTest(Session &session, unsigned slot) {
  auto found = static_cast<std::uint8_t>(slot);
  const std::uint64_t result = KelmTrovaFeatureVerifyTest(session.handle(), slot != kAnySlot, &found);
  if (isNoMatch(result)) return notMatched(slot, std::nullopt);
  check(result, "matching");
  return matched(session, found);
}

struct Parameter {
  const char *name, *key;
  std::uint64_t (*get)(const SCardConnection *, std::uint8_t *);
  std::uint64_t (*set)(const SCardConnection *, std::uint8_t);
  std::optional<int> ParameterOptions::*value;
};

constexpr Parameter kParameters[] = {
    {"verify mode", "verifyMode", KelmTrovaGetVerifyMode, KelmTrovaSetVerifyMode, &ParameterOptions::verifyMode},
    {"time-out", "timeOut", KelmTrovaGetTimeOut, KelmTrovaSetTimeOut, &ParameterOptions::timeOut},
    {"security level", "securityLevel", KelmTrovaGetSecLevel, KelmTrovaSetSecLevel, &ParameterOptions::securityLevel},
    {"image gain", "gain", KelmTrovaGetImageGain, KelmTrovaSetImageGain, &ParameterOptions::gain},
    {"security state", "securityState", KelmTrovaGetSecState, nullptr, nullptr},
};

}  // namespace

Report createToken(const TokenOptions &token, const CreateOptions &options) {
  const SimulatorLink &link = requireSimulator("be created");
  const std::string store = storePath(link, token);
  const std::filesystem::path folder = std::filesystem::path(store).parent_path();
  std::error_code error;
  if (std::filesystem::exists(store, error)) throw Failure(kExitUsage, store + " exists already");
  if (!folder.empty()) std::filesystem::create_directories(folder, error);
  if (error) throw Failure(kExitUsage, "the folder " + folder.string() + " cannot be made: " + error.message());
  SimulatorPersonalisation personalisation{};
  personalisation.slots = static_cast<std::uint8_t>(options.slots);
  personalisation.firstFidCounter = static_cast<std::uint16_t>(options.fidCounter);
  personalisation.maxTries = static_cast<std::uint8_t>(options.tries);
  const std::string pin = options.pin == "-" ? readSecret("PIN of the new token: ") : options.pin;
  personalisation.pin = pin.c_str();
  if (link.create(store.c_str(), &personalisation) != 0) {
    throw Failure(kExitUsage, "no token can be made in " + store + ": " + link.error());
  }
  Report report;
  report.text = "made a token with " + counted(personalisation.slots, "slot") + " in " + store + "\n";
  report.json = {{"store", store}, {"slots", options.slots}, {"tries", options.tries}};
  return report;
}

Report showInfo(Session &session) {
  std::array<std::uint8_t, KELM_DEVICE_INFO_ROOM> info{};
  std::uint64_t length = 0;
  check(KelmTrovaGetDeviceInfo(session.handle(), info.data(), &length), "asking for the device information");
  const std::span<const std::uint8_t> bytes(info.data(), std::min<std::uint64_t>(length, info.size()));
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  const auto used = static_cast<std::size_t>(std::count_if(
      index.begin(), index.end(), [](const auto &entry) { return slotState(entry) == SlotState::kEnrolled; }));
  Report report;
  report.text = "fingerprint token at " + session.place() + "\n" + counted(index.size(), "slot") + ", " +
                std::to_string(used) + " enrolled\n" + "device information, " + counted(bytes.size(), "byte") + ":\n" +
                dump(bytes);
  report.json = {{"place", session.place()}, {"slots", index.size()}, {"enrolled", used}};
  report.json["deviceInformation"] = hex(bytes);
  return report;
}

Report selfTest(Session &session) {
  check(KelmTrovaSelfTest(session.handle()), "testing the token");
  Report report;
  report.text = "the token passed its self-test\n";
  report.json["passed"] = true;
  return report;
}

Report showSlots(Session &session) {
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  Report report;
  report.text = slotTable(index);
  report.json["slots"] = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < index.size(); ++i) {
    report.json["slots"].push_back(slotJson(static_cast<unsigned>(i + 1), index[i]));
  }
  return report;
}

Report enroll(Session &session, const FingerOptions &options) {
  constexpr int kBuffers = 3;
  const TemplateIndexEntry record = recordOf(options);
  session.placeFinger(options.finger);
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  if (options.slot) requireSlotInRange(*options.slot, index.size());
  const int slot = options.slot ? *options.slot : chooseSlot(index);
  const bool replaced = slotState(index[static_cast<std::size_t>(slot) - 1]) == SlotState::kEnrolled;
  const std::string name = slotName(static_cast<unsigned>(slot), record);
  session.captureFeatures(kBuffers);
  check(KelmTrovaFeatureEnroll(session.handle(), static_cast<std::uint8_t>(slot), &record), "enrolling into " + name);
  Report report;
  report.text = "enrolled into " + name + (replaced ? ", in place of what was there" : "") + "\n";
  report.json = {{"slot", slot}, {"tag", record.tag}, {"label", labelOf(record)}, {"replaced", replaced}};
  return report;
}

Report verify(Session &session, const FingerOptions &options) {
  session.placeFinger(options.finger);
  requireSlotInRange(*options.slot, session.slotCount());
  const auto slot = static_cast<std::uint8_t>(*options.slot);
  session.captureFeatures(1);
  if (options.test) return matchForTest(session, slot);
  std::uint8_t triesLeft = 0;
  const std::uint64_t result =
      KelmTrovaFeatureVerify(session.handle(), static_cast<std::uint8_t>(options.mode), slot, &triesLeft);
  if (isNoMatch(result)) return notMatched(slot, triesLeft);
  check(result, "verifying against slot " + std::to_string(slot));
  return matched(session, slot);
}

Report identify(Session &session, const FingerOptions &options) {
  session.placeFinger(options.finger);
  session.captureFeatures(1);
  if (options.test) return matchForTest(session, kAnySlot);
  std::uint8_t slot = 0, triesLeft = 0;
  const std::uint64_t result =
      KelmTrovaFeatureIdentify(session.handle(), static_cast<std::uint8_t>(options.mode), &slot, &triesLeft);
  if (isNoMatch(result)) return notMatched(kAnySlot, triesLeft);
  check(result, "identifying the finger");
  return matched(session, slot);
}

Report deleteSlot(Session &session, int slot) {
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  requireSlotInRange(slot, index.size());
  const TemplateIndexEntry &entry = index[static_cast<std::size_t>(slot) - 1];
  const std::string name = slotName(static_cast<unsigned>(slot), entry);
  check(KelmTrovaDeleteFingerPrint(session.handle(), static_cast<std::uint8_t>(slot)), "deleting " + name);
  const bool wasFree = slotState(entry) == SlotState::kFree;
  Report report;
  report.text = wasFree ? name + " is free already\n" : "deleted " + name + "\n";
  report.json = {{"slot", slot}, {"wasFree", wasFree}};
  return report;
}

Report parameters(Session &session, const ParameterOptions &options) {
  for (const Parameter &parameter : kParameters) {
    if (parameter.value == nullptr || !(options.*parameter.value)) continue;
    check(parameter.set(session.handle(), static_cast<std::uint8_t>(*(options.*parameter.value))),
          std::string("setting the ") + parameter.name);
  }
  Report report;
  for (const Parameter &parameter : kParameters) {
    std::uint8_t value = 0;
    check(parameter.get(session.handle(), &value), std::string("reading the ") + parameter.name);
    report.text += fmt::format("{:<15} {:3}\n", parameter.name, value);
    report.json[parameter.key] = value;
  }
  return report;
}

Report cache(Session &session, const std::string &action) {
  if (action == "clear") {
    check(KelmTrovaClearFingerCache(session.handle()), "clearing the finger cache");
  } else if (action != "state") {
    check(KelmTrovaEnableFingerCache(session.handle(), action == "on"), "switching the finger cache " + action);
  }
  std::uint8_t state = 0;
  check(KelmTrovaGetFingerCacheState(session.handle(), &state), "reading the finger cache's state");
  Report report;
  report.text = "finger cache: state " + std::to_string(state) + "\n";
  report.json["state"] = state;
  return report;
}

Report sendImage(Session &session, const std::string &file) {
  const Picture picture = readPicture(file);
  if (picture.width > KELM_MAX_LINE_LENGTH) {
    throw Failure(kExitUsage, file + " is " + std::to_string(picture.width) +
                                  " pixels wide; a token takes at most 240: reduce it first");
  }
  const auto width = static_cast<std::uint64_t>(picture.width), height = static_cast<std::uint64_t>(picture.height);
  const TokenImage image{height, width, 0, picture.samples.data()};
  const std::uint64_t linesPerBlock = KELM_MAX_LINE_LENGTH / width;
  std::uint64_t blocks = 0;
  {
    Progress progress("sending", "lines", height);
    watch().onImageBlock = [&] { progress.show(++blocks * linesPerBlock); };
    const std::uint64_t result = KelmTrovaDownloadImage(session.handle(), &image);
    watch().onImageBlock = nullptr;
    check(result, "sending " + file);
  }
  Report report;
  report.text = "sent " + file + ": " + std::to_string(picture.width) + " x " + std::to_string(picture.height) +
                " pixels in " + counted(blocks, "block") + "\n";
  report.json = {{"width", picture.width}, {"height", picture.height}, {"blocks", blocks}};
  return report;
}

Report verifyPin(Session &session, const std::string &pin) {
  session.verifyPin(pin);
  Report report;
  report.text = "the PIN is right\n";
  report.json["verified"] = true;
  return report;
}

Report requirePin(Session &session, bool required) {
  const SimulatorLink &link = requireSimulator("be made to ask for its PIN");
  if (link.requirePin(session.device(), required) != 0) {
    throw Failure(kExitRefused, std::string("the token's PIN cannot be switched: ") + link.error());
  }
  Report report;
  report.text = required ? "the token asks for its PIN from now on\n" : "the token asks for no PIN any more\n";
  report.json["required"] = required;
  return report;
}

Report unblock(Session &session) {
  const SimulatorLink &link = requireSimulator("be unblocked from here");
  if (link.unblock(session.device()) != 0) {
    throw Failure(kExitRefused, std::string("the token cannot be unblocked: ") + link.error());
  }
  Report report;
  report.text = "matching is unblocked, all tries are there again\n";
  report.json["unblocked"] = true;
  return report;
}

}  // namespace kelm::tools
