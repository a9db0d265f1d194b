// SPDX-License-Identifier: Apache-2.0
#include "tools/token/report.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace kelm::tools {

namespace {

constexpr const char *kStateNames[] = {"free", "reserved", "enrolled"};

const char *stateName(const TemplateIndexEntry &entry) { return kStateNames[static_cast<int>(slotState(entry))]; }

std::string fidText(const TemplateIndexEntry &entry) {
  char text[8];
  std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(Exchange(entry.fid)));
  return text;
}

std::string hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  char digits[4];
  for (const std::uint8_t byte : bytes) {
    std::snprintf(digits, sizeof digits, "%02X", byte);
    text += digits;
  }
  return text;
}

// The length of the UTF-8 character that `text` starts with; 0 when it starts with none, or with one not to be shown.
std::size_t characterLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  constexpr unsigned char kDelete = 0x7F;
  if (at(0) < 0x80) return at(0) >= ' ' && at(0) != kDelete ? 1 : 0;
  const std::size_t length = at(0) >= 0xC3 && at(0) < 0xE0   ? 2
                             : at(0) >= 0xE0 && at(0) < 0xF0 ? 3
                             : at(0) >= 0xF0 && at(0) < 0xF5 ? 4
                             : at(0) == 0xC2                 ? 2
                                                             : 0;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0) != 0x80) return 0;
  }
  // C1 controls, overlong forms, surrogates and what lies beyond the last code point.
  const unsigned second = at(1);
  const bool bad = (at(0) == 0xC2 && second < 0xA0) || (at(0) == 0xE0 && second < 0xA0) ||
                   (at(0) == 0xED && second >= 0xA0) || (at(0) == 0xF0 && second < 0x90) ||
                   (at(0) == 0xF4 && second >= 0x90);
  return bad ? 0 : length;
}

}  // namespace

SlotState slotState(const TemplateIndexEntry &entry) {
  if (entry.fid == 0) return SlotState::kFree;
  return entry.enrolled == 1 ? SlotState::kEnrolled : SlotState::kReserved;
}

std::string labelOf(const TemplateIndexEntry &entry) {
  std::string_view rest(reinterpret_cast<const char *>(entry.userData), sizeof entry.userData);
  rest = rest.substr(0, rest.find_last_not_of('\0') + 1);
  std::string label;
  while (!rest.empty()) {
    const std::size_t length = characterLength(rest);
    label += length == 0 ? "?" : rest.substr(0, length);
    rest.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return label;
}

std::string slotName(unsigned slot, const TemplateIndexEntry &entry) {
  const std::string label = labelOf(entry);
  return "slot " + std::to_string(slot) + (label.empty() ? "" : " (" + label + ")");
}

nlohmann::ordered_json slotJson(unsigned slot, const TemplateIndexEntry &entry) {
  nlohmann::ordered_json json = {{"slot", slot}, {"state", stateName(entry)}};
  if (slotState(entry) == SlotState::kFree) return json;
  json["fid"] = fidText(entry);
  json["tag"] = entry.tag;
  json["label"] = labelOf(entry);
  json["userData"] = hex(entry.userData);
  return json;
}

std::string slotTable(const std::vector<TemplateIndexEntry> &index) {
  std::string table = "   slot  state     FID   tag  label\n";
  char line[64];
  for (std::size_t i = 0; i < index.size(); ++i) {
    const std::size_t first = i;
    std::string slots = std::to_string(first + 1);
    if (slotState(index[i]) == SlotState::kFree) {
      while (i + 1 < index.size() && slotState(index[i + 1]) == SlotState::kFree) ++i;
      if (i != first) slots.append("-").append(std::to_string(i + 1));
      std::snprintf(line, sizeof line, "%7s  free\n", slots.c_str());
      table += line;
      continue;
    }
    std::snprintf(line, sizeof line, "%7s  %-8s  %s   %02X", slots.c_str(), stateName(index[i]),
                  fidText(index[i]).c_str(), index[i].tag);
    const std::string label = labelOf(index[i]);
    table += line;
    if (!label.empty()) table.append("  ").append(label);
    table += '\n';
  }
  return table;
}

}  // namespace kelm::tools
