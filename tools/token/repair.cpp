// SPDX-License-Identifier: Apache-2.0
// Clears a template file that an interrupted enrollment left behind.
#include <fmt/format.h>

#include <algorithm>

#include "tools/exit_codes.h"
#include "tools/failure.h"
#include "tools/token/actions.h"

namespace kelm::tools {

namespace {

constexpr std::uint16_t kTokensOwn[] = {KELM_FID_COUNTER, KELM_FID_BLOCK_RECORD, KELM_FID_TEMPLATE_INDEX};

bool isThere(const Session &session, std::uint16_t fid) {
  std::uint8_t first = 0;
  return SCardReadBin(session.handle(), fid, 0, &first, sizeof first) == 1;
}

}  // namespace

// An enrollment creates its file first and advances the counter next; cut off in between, it leaves a file in the way
// of all that follow.
Report repair(Session &session) {
  const std::vector<TemplateIndexEntry> index = session.readIndex();
  std::uint16_t counter = 0;
  check(token_get_current_fid(session.handle(), &counter), "reading the FID counter");
  const auto fid = static_cast<std::uint16_t>(counter << KELM_FID_SHIFT);
  const bool named = std::any_of(index.begin(), index.end(),
                                 [fid](const TemplateIndexEntry &entry) { return Exchange(entry.fid) == fid; });
  const bool own = std::find(std::begin(kTokensOwn), std::end(kTokensOwn), fid) != std::end(kTokensOwn);
  Report report;
  const std::string name = fmt::format("{:04X}", fid);
  if (own || named) {
    throw Failure(kExitRefused, "the FID counter yields file " + name +
                                    ", which is in use: personalise the token with a higher counter");
  }
  const bool found = isThere(session, fid);
  if (found && SCardEraseEF(session.handle(), fid) != 1) {
    throw Failure(kExitRefused, "the token would not erase file " + name + ", which no slot names");
  }
  report.text = found ? "erased file " + name + ", which an interrupted enrollment had left behind\n"
                      : "nothing stands in the way of the next enrollment\n";
  report.json = {{"erased", found}, {"fid", name}};
  return report;
}

}  // namespace kelm::tools
