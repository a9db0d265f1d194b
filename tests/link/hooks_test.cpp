// SPDX-License-Identifier: Apache-2.0
// The public headers next to GoogleTest, whose TEST is a macro.
#include <gtest/gtest.h>

#include <cstdint>

#include "kelmtrova/image.h"
#include "kelmtrova/token.h"

TEST(Hooks, LockTokenIsTheHandle) {
  SCardConnection connection{};
  EXPECT_EQ(MyLock(nullptr), 0U);
  EXPECT_EQ(MyLock(&connection), reinterpret_cast<std::uintptr_t>(&connection));
  EXPECT_EQ((TEST)(~0ULL), 0U);
}
