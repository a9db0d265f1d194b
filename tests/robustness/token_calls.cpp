// SPDX-License-Identifier: Apache-2.0
#include "tests/robustness/token_calls.h"

#include <algorithm>

#include "tests/support/allocation.h"

namespace kelm::test {

namespace {

using Handle = const SCardConnection *;

// What the calls send and receive lies here, not on the stack.
std::uint8_t bytes[8192];
std::uint64_t length;
std::uint16_t counter;

template <auto function>
void plain(Handle handle) {
  function(handle);
}

template <auto function, std::uint8_t value>
void set(Handle handle) {
  function(handle, value);
}

template <auto function>
void get(Handle handle) {
  function(handle, bytes);
}

const std::uint8_t *secrets() {
  static const std::vector<std::uint8_t> all(400, kSecret);
  return all.data();
}

void enroll(Handle handle) {
  static TemplateIndexEntry record;
  std::fill_n(reinterpret_cast<std::uint8_t *>(&record), sizeof record, kSecret);
  KelmTrovaFeatureEnroll(handle, 1, &record);
}

void download(Handle handle) {
  static const TokenImage image = {4, 100, 0, secrets()};
  KelmTrovaDownloadImage(handle, &image);
}

void exchangeBytes(Handle handle) {
  static std::uint8_t command[5] = {0x80, 0xFA, 0x02, 0x00, 0x2F};
  SCardAPDU(handle, command, sizeof command, bytes, &length);
}

void transmit(Handle handle) {
  static const std::uint8_t command[5] = {0x80, 0xFA, 0x02, 0x00, 0x2F};
  SCardTransmit(handle->hDevice, nullptr, command, sizeof command, nullptr, bytes, &length);
}

}  // namespace

const std::vector<TokenCall> &tokenCalls() {
  static const std::vector<TokenCall> calls{
      {"SCardTransmit", transmit},
      {"SCardAPDU", exchangeBytes},
      {"MYTRACE", [](Handle) { MYTRACE("%d", 1); }},
      {"MyLock", [](Handle handle) { MyLock(handle); }},
      {"MyUnlock", [](Handle) { MyUnlock(0); }},
      {"TEST", [](Handle) { (TEST)(0); }},
      {"SCardReadBin", [](Handle handle) { SCardReadBin(handle, 0x0520, 0, bytes, 400); }},
      {"SCardUpdateBin", [](Handle handle) { SCardUpdateBin(handle, 0x0520, 0, secrets(), 400); }},
      {"SCardCreateFile", [](Handle handle) { SCardCreateFile(handle, 0x0400, secrets(), 255); }},
      {"SCardEraseEF", [](Handle handle) { SCardEraseEF(handle, 0x0400); }},
      {"token_get_current_fid", [](Handle handle) { token_get_current_fid(handle, &counter); }},
      {"token_set_next_fid", [](Handle handle) { token_set_next_fid(handle, 5); }},
      {"LittleEndian", [](Handle) { LittleEndian(); }},
      {"ToBigEndian", [](Handle) { ToBigEndian(5); }},
      {"Exchange", [](Handle) { Exchange(5); }},
      {"KelmIsTrova", plain<KelmIsTrova>},
      {"KelmTrovaSelfTest", plain<KelmTrovaSelfTest>},
      {"KelmTrovaGetDeviceInfo", [](Handle handle) { KelmTrovaGetDeviceInfo(handle, bytes, &length); }},
      {"KelmTrovaGetMaxTmpltNum", get<KelmTrovaGetMaxTmpltNum>},
      {"KelmTrovaCaptureImage", plain<KelmTrovaCaptureImage>},
      {"KelmTrovaFeatureExtract", set<KelmTrovaFeatureExtract, 1>},
      {"KelmTrovaFeatureEnroll", enroll},
      {"KelmTrovaReadIndexFile", get<KelmTrovaReadIndexFile>},
      {"KelmTrovaDeleteFingerPrint", set<KelmTrovaDeleteFingerPrint, 1>},
      {"KelmTrovaFeatureVerify", [](Handle handle) { KelmTrovaFeatureVerify(handle, 0, 1, bytes); }},
      {"KelmTrovaFeatureIdentify", [](Handle handle) { KelmTrovaFeatureIdentify(handle, 0, bytes, bytes + 1); }},
      {"KelmTrovaFeatureVerifyTest", [](Handle handle) { KelmTrovaFeatureVerifyTest(handle, 0, bytes); }},
      {"KelmTrovaSetVerifyMode", set<KelmTrovaSetVerifyMode, 1>},
      {"KelmTrovaGetVerifyMode", get<KelmTrovaGetVerifyMode>},
      {"KelmTrovaSetTimeOut", set<KelmTrovaSetTimeOut, 1>},
      {"KelmTrovaGetTimeOut", get<KelmTrovaGetTimeOut>},
      {"KelmTrovaSetSecLevel", set<KelmTrovaSetSecLevel, 1>},
      {"KelmTrovaGetSecLevel", get<KelmTrovaGetSecLevel>},
      {"KelmTrovaSetImageGain", set<KelmTrovaSetImageGain, 1>},
      {"KelmTrovaGetImageGain", get<KelmTrovaGetImageGain>},
      {"KelmTrovaGetSecState", get<KelmTrovaGetSecState>},
      {"KelmTrovaGetFingerCacheState", get<KelmTrovaGetFingerCacheState>},
      {"KelmTrovaClearFingerCache", plain<KelmTrovaClearFingerCache>},
      {"KelmTrovaEnableFingerCache", set<KelmTrovaEnableFingerCache, 1>},
      {"KelmTrovaDownloadImage", download},
      {"KelmTrovaUploadImage", [](Handle handle) { KelmTrovaUploadImage(handle, 0); }},
  };
  return calls;
}

}  // namespace kelm::test
