// SPDX-License-Identifier: Apache-2.0
#include "tools/token/messages.h"

#include <fmt/format.h>

#include "apdu/names.h"
#include "kelmtrova/token.h"
#include "tools/token/platform.h"

namespace kelm::tools {

namespace {

constexpr const char *kLayAgain = "clean the sensor, lay the finger flat on it and try again";
constexpr const char *kTryAgain = "try again; if it stays so, -v shows where the token refuses";
constexpr const char *kAskVendor = "the token's handbook explains its own status words; -v shows the exchange";
constexpr const char *kOwnBug = "please report it with the output of -v";

constexpr ResultWords kResults[] = {
    {KELM_RESULT_OK, "done", ""},
    {KELM_RESULT_CREATE_FILE, "the token would not create the template file",
     "an enrollment may have been cut off (`kelmtrova token repair` clears what it left), its memory may be full "
     "(delete a slot), or its FID counter yields the file of another: the FIDs 0x0020, 0x0040 "
     "and 0x0520 are the token's own files, so personalise it with a counter that starts beyond 0x29"},
    {KELM_RESULT_ERASE_FILE, "a template file had to be erased again after a failure, and could not be",
     "a file that no slot names may be left on the token; try again, or personalise the token anew"},
    {KELM_RESULT_FID_COUNTER, "the token's FID counter could not be read or written", kTryAgain},
    {KELM_RESULT_INDEX_WRITE, "the index entry could not be written, so the new template was erased again",
     "enroll again"},
    {KELM_RESULT_AUTH_LIBRARY, "the token's middleware libkelmpkcs.so, or its entry KelmSCardAuth, could not be loaded",
     "install the middleware where the dynamic loader finds it (LD_LIBRARY_PATH names further folders)",
     "no-middleware"},
    {KELM_RESULT_PIN_LIBRARY,
     "the token's middleware libkelmpkcs.so, or its entry KelmSCardVerifyUserPin, could not be loaded",
     "install the middleware where the dynamic loader finds it (LD_LIBRARY_PATH names further folders)",
     "no-middleware"},
    {KELM_RESULT_OF(KELM_SW_MEMORY_FAILURE), "the token could not write its memory",
     "try again; a token that stays so is worn out"},
    {KELM_RESULT_OF(KELM_SW_WRONG_LENGTH), "the token found the length of the command wrong",
     "it may take smaller pictures only"},
    {KELM_RESULT_OF(KELM_SW_SECURITY_STATUS), "the token wants its PIN first",
     "give it with --pin-file or --pin-stdin, or run the command on a terminal", "pin-needed"},
    {KELM_RESULT_BLOCKED, "matching is blocked: no tries are left",
     "unblock the token (`kelmtrova token unblock` on a simulated one, else the tool of its maker)", "blocked"},
    {KELM_RESULT_OF(KELM_SW_FEATURE_6A07), "the token has no image to extract features from (6A07)", kLayAgain},
    {KELM_RESULT_OF(KELM_SW_FEATURE_6A08), "the token found no features in the image (6A08)", kLayAgain},
    {KELM_RESULT_CAPTURE, "the capture failed", kTryAgain},
    {KELM_RESULT_OF(KELM_SW_FEATURE_6A0B), "the token could not use the image (6A0B)", kLayAgain},
    {KELM_RESULT_OF(KELM_SW_CAPTURE_6A0E), "no finger came onto the sensor (6A0E)",
     "lay one on it (--finger or `kelmtrova token touch` on a simulated token) and try again", "no-finger"},
    {KELM_RESULT_ENROLL_SETUP,
     "the slot count or the FID counter could not be obtained or advanced, or the counter is used up",
     "try again; a token whose counter left 1 to 0x7FF must be personalised anew"},
    {KELM_RESULT_OF(KELM_SW_ENROLL_6A10),
     "the features did not make a template, they may be of different fingers (6A10)",
     "enroll again with one finger, laid flat"},
    {KELM_RESULT_OF(KELM_SW_FEATURE_6A11), "the token has no features to work on (6A11)", kLayAgain},
    {KELM_RESULT_OF(KELM_SW_MATCH_6A12), "nothing is enrolled to compare with (6A12)",
     "`kelmtrova token slots` shows what is enrolled", "not-enrolled"},
    {KELM_RESULT_OF(KELM_SW_MATCH_6A13), "the slot's template file is missing on the token (6A13)",
     "enroll the finger again"},
    {KELM_RESULT_OF(KELM_SW_MATCH_6A14), "the slot's template file holds no template (6A14)",
     "enroll the finger again"},
    {KELM_RESULT_OF(KELM_SW_VERIFY_MODE), "the token does not take this verify mode", "choose another, 0 to 2"},
    {KELM_RESULT_NO_MATCH, "the finger does not match", kLayAgain},
    {KELM_RESULT_NOT_IDENTIFIED, "the finger matches none that is enrolled", kLayAgain},
    {KELM_RESULT_OF(KELM_SW_INCORRECT_DATA), "the token found the data of the command wrong",
     "it may not take pictures of this size"},
    {KELM_RESULT_OF(KELM_SW_FILE_NOT_FOUND), "the slot's template file was missing on the token and has been made anew",
     "enroll once more"},
    {KELM_RESULT_OF(KELM_SW_SELF_TEST), "the token's self-test failed",
     "unplug it and plug it in again; a token that stays so is broken"},
    {KELM_RESULT_OF(KELM_SW_DEVICE_6AFB), "the token cannot do this",
     "it may be of another kind; `kelmtrova token selftest` checks it"},
    {KELM_RESULT_OF(KELM_SW_WRONG_P1P2), "the token found the parameters of the command wrong", kAskVendor},
    {KELM_RESULT_DELETE, "the slot could not be cleared entirely",
     "delete it once more, or enroll into it, which repairs it"},
    {KELM_RESULT_INDEX_READ, "the token's template index could not be read",
     "try again; a token without its index file 0x0520 must be personalised anew"},
    {KELM_RESULT_LINE_LENGTH, "the picture's lines are empty or longer than 240 pixels", "reduce it first"},
    {KELM_RESULT_NOT_LOCKED, "the connection to the token could not be locked", kOwnBug},
    {KELM_RESULT_UNLISTED, "the token gave an answer that this command does not expect, or none at all", kTryAgain},
    {KELM_RESULT_ARGUMENT, "a number is out of range", "`kelmtrova token info` says how many slots the token has"},
    {KELM_RESULT_MEMORY, "there is not enough memory", "close other programs", "memory"},
};

}  // namespace

const ResultWords &resultWords(std::uint64_t result) {
  static constexpr ResultWords kUnknown = {0, "the token answered with a code that this program does not know",
                                           kAskVendor};
  for (const ResultWords &entry : kResults) {
    if (entry.code == result) return entry;
  }
  return kUnknown;
}

std::string resultNumber(std::uint64_t result) { return fmt::format("0x{:08X}", result); }

std::string statusWords(int status) {
  if (manager() != nullptr && status >= 0) {
    const char *own = manager()->codeText(static_cast<std::uint16_t>(status));
    if (own != nullptr) return own;
  }
  return status < 0 ? "" : apdu::statusWords(static_cast<std::uint16_t>(status));
}

}  // namespace kelm::tools
