// SPDX-License-Identifier: Apache-2.0
// The library's bridge, the stand-in middleware and the PIN of a simulated token, end to end.
#include <dlfcn.h>

#include <cstring>

#include "kelmtrova/token.h"
#include "tests/devices/device.h"

namespace {

TEST(Middleware, VerifiesThePin) {
  const Device token;
  std::uint8_t tries = 99;
  const auto enter = [&](const char *pin) {
    return KelmSCardVerifyUserPinBio(token.number, reinterpret_cast<std::uintptr_t>(pin),
                                     static_cast<std::uint8_t>(std::strlen(pin)),
                                     reinterpret_cast<std::uintptr_t>(&tries));
  };
  EXPECT_EQ(KelmSCardAuthBio(token.number), 0x800063C5U);
  for (const char *bad : {"", "12345678901234567"}) EXPECT_EQ(enter(bad), 0x8000B002U);
  EXPECT_EQ(KelmSCardVerifyUserPinBio(token.number, 0, 4, 0), 0x8000B002U);
  EXPECT_EQ(enter("2468"), 0U);
  EXPECT_EQ(tries, 99);
  EXPECT_EQ(KelmSCardAuthBio(token.number), 0U);
  EXPECT_EQ(KelmSCardAuthBio(0), 0x8000ED00U);
  for (unsigned left = 5; left-- > 0;) {
    EXPECT_EQ(enter("1234"), 0x800063C0U | left);
    EXPECT_EQ(tries, left);
  }
  tries = 99;
  EXPECT_EQ(enter("2468"), 0x80006983U);
  EXPECT_EQ(tries, 0);
}

TEST(Middleware, IncompleteBuildLacksThePinEntry) {
  void *library = dlopen(KELM_BUILD_DIR "/lib/incomplete/libkelmpkcs.so", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_NE(dlsym(library, "KelmSCardAuth"), nullptr);
  EXPECT_EQ(dlsym(library, "KelmSCardVerifyUserPin"), nullptr);
  dlclose(library);
}

}  // namespace
