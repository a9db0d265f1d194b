// SPDX-License-Identifier: Apache-2.0
#include "tools/token/report.h"

#include <fmt/format.h>

#include "tools/text.h"

namespace kelm::tools {

namespace {

constexpr const char *kStateNames[] = {"free", "reserved", "enrolled"};

const char *stateName(const TemplateIndexEntry &entry) { return kStateNames[static_cast<int>(slotState(entry))]; }

std::string fidText(const TemplateIndexEntry &entry) { return fmt::format("{:04X}", Exchange(entry.fid)); }

}  // namespace

SlotState slotState(const TemplateIndexEntry &entry) {
  if (entry.fid == 0) return SlotState::kFree;
  return entry.enrolled == 1 ? SlotState::kEnrolled : SlotState::kReserved;
}

std::string labelOf(const TemplateIndexEntry &entry) {
  const std::string_view rest(reinterpret_cast<const char *>(entry.userData), sizeof entry.userData);
  return shown(rest.substr(0, rest.find_last_not_of('\0') + 1));
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
  for (std::size_t i = 0; i < index.size(); ++i) {
    const std::size_t first = i;
    std::string slots = std::to_string(first + 1);
    if (slotState(index[i]) == SlotState::kFree) {
      while (i + 1 < index.size() && slotState(index[i + 1]) == SlotState::kFree) ++i;
      if (i != first) slots.append("-").append(std::to_string(i + 1));
      table += fmt::format("{:>7}  free\n", slots);
      continue;
    }
    table += fmt::format("{:>7}  {:<8}  {}   {:02X}", slots, stateName(index[i]), fidText(index[i]), index[i].tag);
    const std::string label = labelOf(index[i]);
    if (!label.empty()) table.append("  ").append(label);
    table += '\n';
  }
  return table;
}

}  // namespace kelm::tools
