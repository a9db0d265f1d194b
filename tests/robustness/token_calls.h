// SPDX-License-Identifier: Apache-2.0
// A call of every exported function of the token side that does something, with arguments that it accepts.
#ifndef KELMTROVA_TESTS_ROBUSTNESS_TOKEN_CALLS_H
#define KELMTROVA_TESTS_ROBUSTNESS_TOKEN_CALLS_H

#include <functional>
#include <vector>

#include "kelmtrova/token.h"

namespace kelm::test {

struct TokenCall {
  const char *name;
  std::function<void(const SCardConnection *)> call;
};
const std::vector<TokenCall> &tokenCalls();

}  // namespace kelm::test

#endif
