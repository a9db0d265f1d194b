// The stand-in middleware against the PIN of a simulated token.
#include "platform/middleware.h"

#include <dlfcn.h>

#include <cstring>

#include "tests/platform/device.h"

namespace {

using Entry = decltype(&KelmSCardVerifyUserPin);

TEST(Middleware, VerifiesThePin) {
  void *library = dlopen(KELM_BUILD_DIR "/lib/simulator/libkelmpkcs.so", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto verified = reinterpret_cast<decltype(&KelmSCardAuth)>(dlsym(library, "KelmSCardAuth"));
  const auto verify = reinterpret_cast<Entry>(dlsym(library, "KelmSCardVerifyUserPin"));
  const Device token;
  const auto enter = [&](const char *pin, std::uint8_t *tries) {
    return verify(token.number, reinterpret_cast<std::uintptr_t>(pin), static_cast<std::uint8_t>(std::strlen(pin)),
                  reinterpret_cast<std::uintptr_t>(tries));
  };
  std::uint8_t tries = 99;
  EXPECT_EQ(verified(token.number), 0x800063C5U);
  EXPECT_EQ(enter("1234", nullptr), 0x800063C4U);
  EXPECT_EQ(enter("", &tries), 0x8000B002U);
  EXPECT_EQ(enter("12345678901234567", &tries), 0x8000B002U);
  EXPECT_EQ(verify(token.number, 0, 4, 0), 0x8000B002U);
  EXPECT_EQ(enter("2468", &tries), 0U);
  EXPECT_EQ(tries, 99);
  EXPECT_EQ(verified(token.number), 0U);
  EXPECT_EQ(verified(0), 0x80006F00U);
  for (unsigned left = 5; left-- > 0;) {
    EXPECT_EQ(enter("1234", &tries), 0x800063C0U | left);
    EXPECT_EQ(tries, left);
  }
  tries = 99;
  EXPECT_EQ(enter("2468", &tries), 0x80006983U);
  EXPECT_EQ(tries, 0);
  dlclose(library);
}

TEST(Middleware, IncompleteBuildLacksThePinEntry) {
  void *library = dlopen(KELM_BUILD_DIR "/lib/simulator/incomplete/libkelmpkcs.so", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_NE(dlsym(library, "KelmSCardAuth"), nullptr);
  EXPECT_EQ(dlsym(library, "KelmSCardVerifyUserPin"), nullptr);
  dlclose(library);
}

}  // namespace
