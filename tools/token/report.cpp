// SPDX-License-Identifier: Apache-2.0
#include "tools/token/report.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/text.h"

namespace kelm::tools {

namespace {

constexpr const char *kStateNames[] = {"free", "reserved", "enrolled"};

const char *stateName(const TemplateIndexEntry &entry) { return kStateNames[static_cast<int>(slotState(entry))]; }

}  // namespace

SlotState slotState(const TemplateIndexEntry &entry) {
  if (entry.fid == 0) return SlotState::kFree;
  return entry.enrolled == 1 ? SlotState::kEnrolled : SlotState::kReserved;
}

std::size_t enrolledCount(const std::vector<TemplateIndexEntry> &index) {
  return static_cast<std::size_t>(std::count_if(
      index.begin(), index.end(), [](const auto &entry) { return slotState(entry) == SlotState::kEnrolled; }));
}

std::string labelBytes(const TemplateIndexEntry &entry) {
  const std::string_view bytes(reinterpret_cast<const char *>(entry.userData), sizeof entry.userData);
  return std::string(bytes.substr(0, bytes.find_last_not_of('\0') + 1));
}

std::string labelOf(const TemplateIndexEntry &entry) { return shown(labelBytes(entry)); }

std::string fidText(std::uint16_t fid) { return fmt::format("{:04X}", fid); }

std::uint16_t fidOf(const TemplateIndexEntry &entry) { return Exchange(entry.fid); }

std::string slotName(std::size_t slot, const TemplateIndexEntry &entry) {
  const std::string label = labelOf(entry);
  return fmt::format("slot {}{}", slot, label.empty() ? "" : " (" + label + ")");
}

nlohmann::ordered_json slotJson(std::size_t slot, const TemplateIndexEntry &entry) {
  nlohmann::ordered_json json = {{"slot", slot}, {"state", stateName(entry)}};
  if (slotState(entry) == SlotState::kFree) return json;
  json["fid"] = fidText(fidOf(entry));
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
      if (i != first) slots += fmt::format("-{}", i + 1);
      table += fmt::format("{:>7}  free\n", slots);
      continue;
    }
    const std::string label = labelOf(index[i]);
    table += fmt::format("{:>7}  {:<8}  {}   {:02X}{}{}\n", slots, stateName(index[i]), fidText(fidOf(index[i])),
                         index[i].tag, label.empty() ? "" : "  ", label);
  }
  return table;
}

}  // namespace kelm::tools
