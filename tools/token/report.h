// SPDX-License-Identifier: Apache-2.0
// What a command has to say: for people and, with --json, for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kelmtrova/token.h"
#include "tools/exit_codes.h"

namespace kelm::tools {

struct Report {
  std::string text;  // whole lines
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  int exitCode = kExitDone;
};

enum class SlotState { kFree, kReserved, kEnrolled };

SlotState slotState(const TemplateIndexEntry &entry);
// The caller's 16 bytes as text: up to the zeros that fill them, what cannot be shown replaced by question marks.
std::string labelOf(const TemplateIndexEntry &entry);
// "slot 3 (right thumb)"; without a label "slot 3".
std::string slotName(unsigned slot, const TemplateIndexEntry &entry);
nlohmann::ordered_json slotJson(unsigned slot, const TemplateIndexEntry &entry);
// One line per slot, neighbouring free ones drawn together.
std::string slotTable(const std::vector<TemplateIndexEntry> &index);

}  // namespace kelm::tools
