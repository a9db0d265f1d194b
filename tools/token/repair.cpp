// SPDX-License-Identifier: Apache-2.0
// Template files that no slot names, and whether self-test, index, files and counter of a token agree.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "tools/failure.h"
#include "tools/terminal.h"
#include "tools/text.h"
#include "tools/token/actions.h"
#include "tools/token/refusal.h"
#include "tools/token/watch.h"

namespace kelm::tools {

namespace {

using Index = std::vector<TemplateIndexEntry>;
using Fids = std::vector<std::uint16_t>;

constexpr std::uint16_t kLastCounter = 0x7FF;

bool isTokensOwn(std::uint16_t fid) {
  return fid == KELM_FID_COUNTER || fid == KELM_FID_BLOCK_RECORD || fid == KELM_FID_TEMPLATE_INDEX ||
         fid == KELM_FID_MASTER_FILE;
}

// The slot whose entry names the file, 0 for none.
std::size_t slotNaming(const Index &index, std::uint16_t fid) {
  const auto place = std::find_if(index.begin(), index.end(), [fid](const auto &entry) { return fidOf(entry) == fid; });
  return place == index.end() ? 0 : static_cast<std::size_t>(place - index.begin()) + 1;
}

bool isThere(const Session &session, std::uint16_t fid) {
  std::uint8_t first = 0;
  if (SCardReadBin(session.handle(), fid, 0, &first, sizeof first) == 1) return true;
  if (noTokenAnswered()) throw fileRefusal("looking for file " + fidText(fid));
  // A file that cannot be read is there nonetheless.
  return watch().lastStatus != static_cast<int>(KELM_SW_FILE_NOT_FOUND);
}

std::uint16_t fidCounter(const Session &session) {
  std::uint16_t counter = 0;
  check(token_get_current_fid(session.handle(), &counter), "reading the FID counter");
  return counter;
}

// The files of simulated tokens are known by kind.
Fids simulatedTemplates(const Session &session) {
  std::vector<SimulatorFile> files;
  for (;;) {
    const int count = simulator()->getFiles(session.device(), files.data(), files.size());
    if (count < 0) throw storeFailure();
    if (static_cast<std::size_t>(count) <= files.size()) break;
    files.resize(static_cast<std::size_t>(count));
  }
  Fids fids;
  for (const SimulatorFile &file : files) {
    if (file.kind == SIMULATOR_FILE_TEMPLATE) fids.push_back(file.fid);
  }
  return fids;
}

// On other tokens every file that an enrollment can have made so far: the counter stands at the next one, which is
// there when an enrollment was cut off right after it made its file.
Fids reachableFiles(Session &session, const Index &index) {
  const std::uint16_t last = std::min(fidCounter(session), kLastCounter);
  Fids fids;
  Progress progress("looking for files", "files", last);
  for (std::uint16_t counter = 1; counter <= last; ++counter) {
    const auto fid = static_cast<std::uint16_t>(counter << KELM_FID_SHIFT);
    if (!isTokensOwn(fid) && slotNaming(index, fid) == 0 && isThere(session, fid)) fids.push_back(fid);
    progress.show(counter);
  }
  return fids;
}

Fids unnamedTemplates(Session &session, const Index &index) {
  Fids fids = session.simulated() ? simulatedTemplates(session) : reachableFiles(session, index);
  std::erase_if(fids, [&](std::uint16_t fid) { return isTokensOwn(fid) || slotNaming(index, fid) != 0; });
  return fids;
}

std::string listed(const Fids &fids) {
  std::string text;
  for (const std::uint16_t fid : fids) text += (text.empty() ? "" : ", ") + fidText(fid);
  return text;
}

nlohmann::ordered_json asJson(const Fids &fids) {
  auto json = nlohmann::ordered_json::array();
  for (const std::uint16_t fid : fids) json.push_back(fidText(fid));
  return json;
}

std::uint16_t parseFid(const std::string &text) {
  std::uint16_t fid = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), fid, 16);
  if (text.size() == 4 && error == std::errc() && rest == text.data() + text.size()) return fid;
  throw Failure(kExitUsage, text + " is no FID", "a FID has four hexadecimal digits, like 0560");
}

// What the user named, if it may go.
Fids namedFiles(Session &session, const Index &index, const std::vector<std::string> &names) {
  Fids fids;
  for (const std::string &name : names) {
    const std::uint16_t fid = parseFid(name);
    if (isTokensOwn(fid)) {
      throw Failure(kExitUsage, fmt::format("file {} is the token's own and is never erased", fidText(fid)));
    }
    if (const std::size_t slot = slotNaming(index, fid); slot != 0) {
      throw Failure(kExitUsage, fmt::format("file {} belongs to {}", fidText(fid), slotName(slot, index[slot - 1])),
                    "`kelmtrova token delete` deletes a finger");
    }
    if (!isThere(session, fid)) throw Failure(kExitUsage, fmt::format("there is no file {}", fidText(fid)));
    fids.push_back(fid);
  }
  return fids;
}

// The file that the next enrollment will want to make, where something is in its way that cannot be erased.
std::string obstacle(const Session &session, const Index &index) {
  const std::uint16_t counter = fidCounter(session);
  const auto fid = static_cast<std::uint16_t>(counter << KELM_FID_SHIFT);
  if (counter < 1 || counter > kLastCounter) return "the FID counter is used up";
  const std::size_t slot = slotNaming(index, fid);
  if (isTokensOwn(fid)) return fmt::format("the FID counter yields file {}, which is the token's own", fidText(fid));
  if (slot == 0) return "";
  return fmt::format("the FID counter yields file {}, which slot {} has", fidText(fid), slot);
}

constexpr const char *kPersonalise = "personalise the token anew, with a counter that starts higher";

// One thing that was looked at.
struct Finding {
  std::string what, advice;  // no advice: all is well
};

class Examination {
 public:
  void sound(const std::string &what) { findings_.push_back({what, ""}); }
  void wrong(const std::string &what, const std::string &advice) { findings_.push_back({what, advice}); }

  std::size_t wrongs() const {
    return static_cast<std::size_t>(
        std::count_if(findings_.begin(), findings_.end(), [](const Finding &one) { return !one.advice.empty(); }));
  }

  Report report() const {
    Report report;
    auto checks = nlohmann::ordered_json::array();
    bool healthy = true;
    for (const Finding &finding : findings_) {
      const bool good = finding.advice.empty();
      healthy = healthy && good;
      report.text +=
          fmt::format("{} {}\n", toned(good ? "ok   " : "wrong", good ? Tone::kGood : Tone::kBad, 1), finding.what);
      if (!good) report.text += fmt::format("      {}\n", finding.advice);
      checks.push_back({{"ok", good}, {"what", finding.what}});
      if (!good) checks.back()["advice"] = finding.advice;
    }
    report.exitCode = healthy ? kExitDone : kExitRefused;
    report.json = {{"healthy", healthy}, {"checks", checks}};
    return report;
  }

 private:
  std::vector<Finding> findings_;
};

void examineSelfTest(Session &session, Examination &examination) {
  const std::uint64_t result = KelmTrovaSelfTest(session.handle());
  if (result == KELM_RESULT_OK) return examination.sound("the token passes its self-test");
  if (noTokenAnswered()) check(result, "testing the token");
  examination.wrong("the token fails its self-test", "unplug it and plug it in again; a token that stays so is broken");
}

void examineSlot(Session &session, const Index &index, std::size_t slot, Examination &examination) {
  const TemplateIndexEntry &entry = index[slot - 1];
  const std::uint16_t fid = fidOf(entry);
  const std::string name = slotName(slot, entry);
  const std::string anew = fmt::format("`kelmtrova token enroll --replace --slot {}` enrolls the finger anew", slot);
  const std::string clear = fmt::format("`kelmtrova token delete --slot {}` clears it", slot);
  if (fid == 0) {
    const bool empty = entry.enrolled == 0;
    if (!empty) examination.wrong(name + " is marked as enrolled, but names no file", clear);
    return;
  }
  if (isTokensOwn(fid)) {
    examination.wrong(fmt::format("{} names file {}, which is the token's own", name, fidText(fid)), kPersonalise);
    return;
  }
  if (const std::size_t other = slotNaming(index, fid); other != slot) {
    examination.wrong(fmt::format("{} and slot {} name the same file {}", name, other, fidText(fid)),
                      "delete both and enroll the fingers anew");
  }
  if (!isThere(session, fid)) {
    examination.wrong(fmt::format("the template file {} of {} is missing", fidText(fid), name), anew);
  }
  if (slotState(entry) == SlotState::kReserved) {
    examination.wrong(name + " is reserved: it has a file, but no enrollment into it succeeded",
                      fmt::format("enroll into it with --slot {}, or {}", slot, clear));
  }
}

void examineSlots(Session &session, const Index &index, Examination &examination) {
  const std::size_t before = examination.wrongs();
  for (std::size_t slot = 1; slot <= index.size(); ++slot) examineSlot(session, index, slot, examination);
  for (std::size_t slot = 2; slot <= index.size(); ++slot) {
    const std::string label = labelBytes(index[slot - 1]);
    for (std::size_t other = 1; other < slot && !label.empty(); ++other) {
      if (labelBytes(index[other - 1]) != label) continue;
      examination.wrong(fmt::format("slots {} and {} have the same label \"{}\"", other, slot, shown(label)),
                        "name them by --slot, or enroll one again under another label");
    }
  }
  if (examination.wrongs() == before) {
    examination.sound(fmt::format("the index is sound: {}, {} enrolled, each with its file",
                                  counted(index.size(), "slot"), enrolledCount(index)));
  }
}

void examineCounter(const Session &session, const Index &index, Examination &examination) {
  if (const std::string what = obstacle(session, index); !what.empty()) return examination.wrong(what, kPersonalise);
  const std::uint16_t counter = fidCounter(session);
  std::uint16_t highest = 0;
  for (const TemplateIndexEntry &entry : index) highest = std::max(highest, fidOf(entry));
  if (highest >> KELM_FID_SHIFT >= counter) {
    return examination.wrong(fmt::format("the FID counter stands at {}, behind file {}", counter, fidText(highest)),
                             "enrollments into free slots will fail when it gets there: " + std::string(kPersonalise));
  }
  examination.sound(fmt::format("the FID counter stands at {}: {} into free slots are left", counter,
                                counted(kLastCounter - counter + 1U, "first enrollment")));
}

void examineFiles(Session &session, const Index &index, Examination &examination) {
  const Fids fids = unnamedTemplates(session, index);
  if (fids.empty()) return examination.sound("there is no template file that no slot names");
  examination.wrong(fmt::format("{} that no slot names: {}", counted(fids.size(), "template file"), listed(fids)),
                    session.simulated() ? "`kelmtrova token repair` erases what interrupted enrollments left"
                                        : "`kelmtrova token repair --erase FID` erases one that is nobody else's");
}

void examineState(const Session &session, Examination &examination) {
  if (!session.simulated()) return;
  const SimulatorState state = session.state();
  const char *const unblock = "`kelmtrova token unblock` gives the tries back";
  if (state.triesLeft == 0) examination.wrong("matching is blocked: no tries are left", unblock);
  if (state.pinTriesLeft == 0) examination.wrong("the PIN is blocked: no tries are left", unblock);
  if (state.readOnly) {
    examination.wrong("the store may only be read", "matching and enrolling need write permission for it");
  }
}

}  // namespace

Report repair(Session &session, const std::vector<std::string> &erase) {
  const Stretch stretch(session.device());
  const Index index = session.readIndex();
  const Fids found = erase.empty() ? unnamedTemplates(session, index) : namedFiles(session, index, erase);
  const bool erasing = session.simulated() || !erase.empty();
  Report report;
  report.json = {{"found", asJson(found)}, {"erased", nlohmann::ordered_json::array()}};
  if (!erasing && !found.empty()) {
    report.text = fmt::format(
        "no slot names {}: {}\nthey may be what interrupted enrollments left, or belong to somebody else; "
        "`kelmtrova token repair --erase FID` erases one\n",
        counted(found.size(), "file"), listed(found));
    return report;
  }
  for (const std::uint16_t fid : found) {
    const auto call = [&] { return SCardEraseEF(session.handle(), fid) == 1 ? KELM_RESULT_OK : KELM_RESULT_DELETE; };
    if (session.withPin(call) != KELM_RESULT_OK) throw fileRefusal("erasing file " + fidText(fid));
    report.json["erased"].push_back(fidText(fid));
  }
  report.text = found.empty() ? "no template file is left that no slot names\n"
                              : fmt::format("erased {}, which no slot named: {}\n",
                                            counted(found.size(), "template file"), listed(found));
  if (const std::string what = obstacle(session, index); !what.empty()) {
    throw Failure(kExitRefused, what, kPersonalise, "counter");
  }
  return report;
}

Report examine(Session &session) {
  const Stretch stretch(session.device());
  Examination examination;
  examineSelfTest(session, examination);
  const Index index = session.readIndex();
  examineSlots(session, index, examination);
  examineCounter(session, index, examination);
  examineFiles(session, index, examination);
  examineState(session, examination);
  return examination.report();
}

}  // namespace kelm::tools
