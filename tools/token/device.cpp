// SPDX-License-Identifier: Apache-2.0
// The token itself: where it is, what it is, how it stands, its parameters.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <span>

#include "tools/failure.h"
#include "tools/image/picture.h"
#include "tools/terminal.h"
#include "tools/text.h"
#include "tools/token/actions.h"
#include "tools/token/refusal.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

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

std::vector<std::uint8_t> deviceInformation(const Session &session) {
  std::vector<std::uint8_t> info(KELM_DEVICE_INFO_ROOM);
  std::uint64_t length = 0;
  check(KelmTrovaGetDeviceInfo(session.handle(), info.data(), &length), "asking for the device information");
  info.resize(std::min<std::uint64_t>(length, info.size()));
  return info;
}

// The simulated token says so in its device information, also from within a reader; only then are its bits known.
bool saysItIsSimulated(std::span<const std::uint8_t> info) {
  constexpr std::string_view kName = "kelmtrova simulated token";
  return info.size() >= kName.size() && std::equal(kName.begin(), kName.end(), info.begin());
}

struct Bit {
  std::uint8_t mask;
  const char *set, *clear;
};

// "PIN not verified, PIN not asked for, ..." for the bits of a byte.
template <std::size_t Count>
std::string inWords(std::uint8_t value, const Bit (&bits)[Count]) {
  std::string words;
  for (const Bit &bit : bits)
    words += (words.empty() ? "" : ", ") + std::string(value & bit.mask ? bit.set : bit.clear);
  return words;
}

constexpr Bit kSecurityBits[] = {{0x01, "PIN verified", "PIN not verified"},
                                 {0x02, "PIN asked for", "PIN not asked for"},
                                 {0x04, "matching blocked", "matching not blocked"},
                                 {0x08, "PIN blocked", "PIN not blocked"}};
constexpr Bit kCacheBits[] = {{0x01, "on", "off"}, {0x02, "holds a finger", "empty"}};

struct Parameter {
  const char *name, *key, *words;
  std::uint64_t (*get)(const SCardConnection *, std::uint8_t *);
  std::uint64_t (*set)(const SCardConnection *, std::uint8_t);
  std::optional<int> ParameterOptions::*value;
};

constexpr Parameter kParameters[] = {
    {"verify mode", "verifyMode", "0 to 2, what each asks for is the token's", KelmTrovaGetVerifyMode,
     KelmTrovaSetVerifyMode, &ParameterOptions::verifyMode},
    {"time-out", "timeOut", "how long a capture waits for a finger, in the token's unit", KelmTrovaGetTimeOut,
     KelmTrovaSetTimeOut, &ParameterOptions::timeOut},
    {"security level", "securityLevel", "how strictly fingers are matched, on the token's scale", KelmTrovaGetSecLevel,
     KelmTrovaSetSecLevel, &ParameterOptions::securityLevel},
    {"image gain", "gain", "of the sensor, on the token's scale", KelmTrovaGetImageGain, KelmTrovaSetImageGain,
     &ParameterOptions::gain},
    {"security state", "securityState", "", KelmTrovaGetSecState, nullptr, nullptr},
};

void addParameters(Session &session, bool bitsKnown, Report &report) {
  for (const Parameter &parameter : kParameters) {
    std::uint8_t value = 0;
    check(parameter.get(session.handle(), &value), std::string("reading the ") + parameter.name);
    const bool state = parameter.set == nullptr;
    const std::string words = !state      ? parameter.words
                              : bitsKnown ? inWords(value, kSecurityBits)
                                          : "bits of the token's own meaning";
    report.text += fmt::format("{:<15} {:3}  {}\n", parameter.name, value, words);
    report.json[parameter.key] = value;
    if (state && bitsKnown) report.json["securityStateText"] = words;
  }
}

// Whether the host recorded on the token that matching is blocked; none where that file cannot be read.
std::optional<bool> blockRecorded(const Session &session) {
  constexpr std::uint16_t kOffset = 0x6A;
  constexpr std::uint8_t kBlocked = 0x04;
  std::uint8_t byte = 0;
  if (SCardReadBin(session.handle(), KELM_FID_BLOCK_RECORD, kOffset, &byte, 1) != 1) return std::nullopt;
  return (byte & kBlocked) != 0;
}

// How matching and the PIN stand, as far as it can be known without costing a try.
void addState(Session &session, std::span<const std::uint8_t> info, Report &report) {
  nlohmann::ordered_json matching, pin;
  std::string matchingWords, pinWords;
  if (session.simulated()) {
    const SimulatorState state = session.state();
    matching = {{"blocked", state.triesLeft == 0}, {"triesLeft", state.triesLeft}, {"maxTries", state.maxTries}};
    matchingWords = fmt::format("{}, {} of {} tries left", state.triesLeft == 0 ? "blocked" : "not blocked",
                                state.triesLeft, state.maxTries);
    pin = {{"required", state.pinRequired != 0},
           {"blocked", state.pinTriesLeft == 0},
           {"triesLeft", state.pinTriesLeft},
           {"maxTries", state.maxPinTries}};
    pinWords = fmt::format("{}, {} of {} tries left", state.pinRequired ? "asked for" : "not asked for",
                           state.pinTriesLeft, state.maxPinTries);
    report.json["readOnly"] = state.readOnly != 0;
    if (state.readOnly) matchingWords += " (the store may only be read: nothing can be matched or enrolled)";
  } else {
    std::uint8_t security = 0;
    const bool bitsKnown =
        saysItIsSimulated(info) && KelmTrovaGetSecState(session.handle(), &security) == KELM_RESULT_OK;
    const auto recorded = blockRecorded(session);
    const bool blocked = recorded.value_or(false) || (bitsKnown && (security & 0x04) != 0);
    matching = {{"blocked", recorded || bitsKnown ? nlohmann::ordered_json(blocked) : nullptr}};
    matchingWords = blocked ? "blocked" : recorded || bitsKnown ? "not blocked" : "the token does not say";
    if (bitsKnown) pin = {{"required", (security & 0x02) != 0}, {"blocked", (security & 0x08) != 0}};
    pinWords = !bitsKnown ? "the token does not say in a way that is known here"
                          : fmt::format("{}{}", security & 0x02 ? "asked for" : "not asked for",
                                        security & 0x08 ? ", blocked" : "");
  }
  report.json["matching"] = matching;
  report.json["pin"] = pin;
  report.text += fmt::format("matching: {}\nPIN: {}\n", matchingWords, pinWords);
}

// The address stands before the words already.
std::string withoutName(const std::string &words, const Address &address) {
  for (const std::string &name : {address.text, address.store}) {
    if (!name.empty() && words.starts_with(name + ": ")) return words.substr(name.size() + 2);
  }
  return words;
}

// What a place holds, and how much of it is taken; or what keeps a simulated token from being used.
std::optional<Failure> describe(const Place &place, Report &report) {
  std::optional<Failure> unusable;
  nlohmann::ordered_json json = {{"address", shown(place.address.text)},
                                 {"kind", place.address.kind == Address::Kind::kReader ? "reader" : "simulated"}};
  std::string words = shown(place.description);
  bool isToken = false;
  if (place.isToken) {
    try {
      Session session(place.address, TokenOptions{});
      const std::vector<std::uint8_t> info = deviceInformation(session);
      const std::vector<TemplateIndexEntry> index = session.readIndex();
      const std::size_t enrolled = enrolledCount(index);
      // A name at the start of the device information, if it is one.
      const auto end = std::find_if(info.begin(), info.end(), [](std::uint8_t c) { return c < ' ' || c > '~'; });
      const std::string name(info.begin(),
                             std::min(end, info.begin() + std::min<std::ptrdiff_t>(32, end - info.begin())));
      words = name.size() >= 4 ? name : "fingerprint token";
      json.update({{"what", words}, {"slotCount", index.size()}, {"enrolled", enrolled}});
      words += fmt::format(", {}, {} taken", counted(index.size(), "slot"), enrolled);
      isToken = true;
    } catch (const Failure &failure) {
      words = shown(withoutName(failure.what(), place.address));
      if (place.address.kind == Address::Kind::kSimulated) unusable = failure;
    }
  }
  if (!isToken) json["what"] = words;
  report.json[isToken ? "tokens" : "others"].push_back(json);
  report.text += fmt::format("{}\n    {}\n", shown(place.address.text), words);
  return unusable;
}

}  // namespace

Report listTokens() {
  if (simulator() == nullptr) {
    throw Failure(kExitNoToken, "the device manager libkelmkmgr.so is a maker's own and cannot list its tokens",
                  "give its handle of the token as --token handle:N", "other-device-manager");
  }
  const Places places = findPlaces();
  Report report;
  for (const char *key : {"tokens", "others"}) report.json[key] = nlohmann::ordered_json::array();
  std::optional<Failure> unusable;
  for (const Place &place : places.all) {
    if (const auto failure = describe(place, report)) unusable = failure;
  }
  if (!places.problem.empty()) {
    report.text += fmt::format("readers could not be asked: {}\n", shown(places.problem));
    report.json["problem"] = shown(places.problem);
  }
  if (!report.json["tokens"].empty()) return report;
  // A token that is there makes none that is missing.
  if (unusable) {
    report.exitCode = unusable->exitCode;
    report.json.update(
        {{"ok", false}, {"error", unusable->error}, {"code", unusable->code}, {"advice", unusable->advice}});
    return report;
  }
  report.exitCode = kExitNoToken;
  const char *const advice =
      "plug one in (a reader needs the service pcscd), or make a simulated one with `kelmtrova token create`";
  report.text += fmt::format("no fingerprint token is there; {}\n", advice);
  report.json.update(
      {{"ok", false}, {"error", "no fingerprint token is there"}, {"code", "no-token"}, {"advice", advice}});
  return report;
}

Report showInfo(Session &session) {
  const std::vector<std::uint8_t> info = deviceInformation(session);
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  const std::size_t enrolled = enrolledCount(index);
  Report report;
  report.json = {{"address", session.place()}, {"slotCount", index.size()}, {"enrolled", enrolled}};
  report.text = fmt::format("fingerprint token at {}\n{}, {} enrolled\n", shown(session.place()),
                            counted(index.size(), "slot"), enrolled);
  addState(session, info, report);
  Report values;
  addParameters(session, session.simulated() || saysItIsSimulated(info), values);
  report.text += values.text;
  report.json["parameters"] = values.json;
  report.text += fmt::format("device information, {}:\n{}", counted(info.size(), "byte"), dump(info));
  report.json["deviceInformation"] = hex(info);
  return report;
}

Report selfTest(Session &session) {
  check(KelmTrovaSelfTest(session.handle()), "testing the token");
  Report report;
  report.tone = Tone::kGood;
  report.text = "the token passed its self-test\n";
  report.json["passed"] = true;
  return report;
}

Report showSlots(Session &session) {
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  Report report;
  report.text = slotTable(index);
  report.json["slots"] = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < index.size(); ++i) report.json["slots"].push_back(slotJson(i + 1, index[i]));
  return report;
}

Report parameters(Session &session, const ParameterOptions &options) {
  for (const Parameter &parameter : kParameters) {
    if (parameter.value == nullptr || !(options.*parameter.value)) continue;
    const auto value = static_cast<std::uint8_t>(*(options.*parameter.value));
    check(session.withPin([&] { return parameter.set(session.handle(), value); }),
          std::string("setting the ") + parameter.name);
  }
  Report report;
  addParameters(session, session.simulated() || saysItIsSimulated(deviceInformation(session)), report);
  return report;
}

Report cache(Session &session, const std::string &action) {
  if (action == "clear") {
    check(KelmTrovaClearFingerCache(session.handle()), "clearing the finger cache");
  } else if (action != "state") {
    check(session.withPin([&] { return KelmTrovaEnableFingerCache(session.handle(), action == "on"); }),
          "switching the finger cache " + action);
  }
  std::uint8_t state = 0;
  check(KelmTrovaGetFingerCacheState(session.handle(), &state), "reading the finger cache's state");
  Report report;
  report.json["cacheState"] = state;
  std::string words = "bits of the token's own meaning";
  if (session.simulated() || saysItIsSimulated(deviceInformation(session))) {
    words = inWords(state, kCacheBits);
    report.json["on"] = (state & 0x01) != 0;
    report.json["holdsFinger"] = (state & 0x02) != 0;
  }
  report.text = fmt::format("finger cache: state {} ({})\n", state, words);
  return report;
}

Report sendImage(Session &session, const std::string &file) {
  const Picture picture = readPicture(file);
  if (picture.width > KELM_MAX_LINE_LENGTH) {
    throw Failure(kExitUsage, fmt::format("{} is {} pixels wide; a token takes at most 240", file, picture.width),
                  "`kelmtrova image reduce` halves it");
  }
  const auto width = static_cast<std::uint64_t>(picture.width), height = static_cast<std::uint64_t>(picture.height);
  const TokenImage image{height, width, 0, picture.samples.data()};
  const std::uint64_t linesPerBlock = KELM_MAX_LINE_LENGTH / width;
  std::uint64_t blocks = 0;
  {
    const Stretch stretch(session.device());
    Progress progress("sending", "lines", height);
    watch().onCommand = [&](std::uint8_t instruction) {
      if (instruction == KELM_INS_DOWNLOAD) progress.show(++blocks * linesPerBlock);
    };
    const std::uint64_t result = KelmTrovaDownloadImage(session.handle(), &image);
    watch().onCommand = nullptr;
    check(result, "sending " + file);
  }
  Report report;
  report.text = fmt::format("sent {}: {} x {} pixels in {}\n", shown(file), width, height, counted(blocks, "block"));
  report.json = {{"width", width}, {"height", height}, {"blocks", blocks}};
  return report;
}

}  // namespace kelm::tools
