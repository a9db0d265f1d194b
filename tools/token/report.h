// SPDX-License-Identifier: Apache-2.0
// What a command has to say: for people and, with --json, for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kelmtrova/token.h"
#include "tools/exit_codes.h"
#include "tools/text.h"

namespace kelm::tools {

struct Report {
  std::string text;  // whole lines
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  int exitCode = kExitDone;
  Tone tone = Tone::kPlain;  // of a text of one line
  int indent = 2;            // of the JSON; -1 for one line
};

enum class SlotState { kFree, kReserved, kEnrolled };

SlotState slotState(const TemplateIndexEntry &entry);
std::size_t enrolledCount(const std::vector<TemplateIndexEntry> &index);
// The slot's 16 bytes without the zeros that fill them.
std::string labelBytes(const TemplateIndexEntry &entry);
// The same as it can be shown.
std::string labelOf(const TemplateIndexEntry &entry);
std::string fidText(std::uint16_t fid);  // "0540"
// The FID of the slot's template file, 0 for none.
std::uint16_t fidOf(const TemplateIndexEntry &entry);
// "slot 3 (right thumb)"; without a label "slot 3".
std::string slotName(std::size_t slot, const TemplateIndexEntry &entry);
nlohmann::ordered_json slotJson(std::size_t slot, const TemplateIndexEntry &entry);
// One line per slot, neighbouring free ones drawn together.
std::string slotTable(const std::vector<TemplateIndexEntry> &index);

}  // namespace kelm::tools
