// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/card.h"

#include <algorithm>
#include <cstring>

#include "kelmtrova/token.h"

namespace kelm::devices {
namespace {

enum Status : std::uint16_t {
  kDone = KELM_SW_SUCCESS,
  kMoreData = KELM_SW_MORE_DATA,
  kTriesLeftAre = KELM_SW_NO_MATCH,
  kMemoryFailure = KELM_SW_MEMORY_FAILURE,
  kWrongLength = KELM_SW_WRONG_LENGTH,
  kNoLogicalChannel = 0x6881,
  kNoSecureMessaging = 0x6882,
  kNoChaining = 0x6884,
  kNotAllowed = KELM_SW_SECURITY_STATUS,
  kBlocked = KELM_SW_BLOCKED,
  kWrongConditions = 0x6985,
  kNoFileSelected = 0x6986,
  kNoImage = KELM_SW_FEATURE_6A07,
  kNoFeaturesInImage = KELM_SW_FEATURE_6A08,
  kNoFinger = KELM_SW_CAPTURE_6A0E,
  kNoTemplateFromFeatures = KELM_SW_ENROLL_6A10,
  kNoFeatures = KELM_SW_FEATURE_6A11,
  kSlotNotEnrolled = KELM_SW_MATCH_6A12,
  kTemplateFileMissing = KELM_SW_MATCH_6A13,
  kNotATemplate = KELM_SW_MATCH_6A14,
  kModeOutOfRange = KELM_SW_VERIFY_MODE,
  kNoMatch = KELM_SW_TEST_NO_MATCH,
  kWrongData = KELM_SW_INCORRECT_DATA,
  kFileNotFound = KELM_SW_FILE_NOT_FOUND,
  kNoRoom = 0x6A84,
  kFileExists = 0x6A89,
  kSelfTestFailed = KELM_SW_SELF_TEST,
  kWrongParameters = KELM_SW_WRONG_P1P2,
  kLengthIs = 0x6C00,
  kUnknownInstruction = 0x6D00,
  kUnknownClass = 0x6E00,
};

constexpr std::size_t kHeaderSize = 5;
constexpr std::size_t kLongestAnswer = 256;
constexpr std::size_t kTemplateSize = 904;
constexpr std::size_t kImageHeaderSize = 8;
constexpr std::size_t kLongestImageLine = KELM_MAX_LINE_LENGTH;
constexpr std::uint8_t kCountingNoTries = 0x26;
constexpr std::array<std::uint8_t, 4> kTemplateMark = {'K', 'F', 'P', 'T'};

// One command on its way through the token.
struct Call {
  Store &store;
  Transaction &transaction;
  PowerSession &session;
  PowerSession &before;  // what the session falls back to when the memory fails
  ByteView command;
  ByteView data = {};
  std::optional<std::uint8_t> le = {};

  std::uint8_t p1() const { return command[2]; }
  std::uint8_t p2() const { return command[3]; }
  std::uint16_t p12() const { return static_cast<std::uint16_t>(p1() << 8 | p2()); }
  std::size_t expected() const { return le.value_or(0) ? *le : kLongestAnswer; }
};

std::uint16_t bigEndian(ByteView bytes) { return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]); }

bool isOwnFile(std::uint16_t fid) {
  return fid == kCounterFile || fid == kBlockFile || fid == kIndexFile || fid == kMasterFile;
}

Reply refuse(int status) { return {static_cast<std::uint16_t>(status)}; }

Reply answerByte(std::int64_t value) { return {kDone, {static_cast<std::uint8_t>(value)}}; }

// The two bytes that some commands answer; they say nothing.
Reply answerTwo() { return {kDone, {0, 0}}; }

// ---- Templates: a mark, the length of the finger, its digest, and zeros -------------------------------------------

Bytes templateOf(const Features &features) {
  Bytes bytes(kTemplateSize);
  auto at = std::copy(kTemplateMark.begin(), kTemplateMark.end(), bytes.begin());
  for (int shift = 0; shift < 64; shift += 8) *at++ = static_cast<std::uint8_t>(features.length >> shift);
  std::copy(features.digest.begin(), features.digest.end(), at);
  return bytes;
}

// ---- Files --------------------------------------------------------------------------------------------------------

// ISO/IEC 7816-4 on the selected file, in BER-TLV: its size (not of the master file), whether it is a file (01) or a
// folder (38), its FID, and that it is in use.
Bytes controlInformation(std::uint8_t tag, std::uint16_t fid, std::optional<std::size_t> size) {
  const auto high = [](std::size_t number) { return static_cast<std::uint8_t>(number >> 8); };
  const auto low = [](std::size_t number) { return static_cast<std::uint8_t>(number); };
  Bytes objects;
  if (size) objects = {0x80, 2, high(*size), low(*size)};
  for (const int byte : {0x82, 1, size ? 0x01 : 0x38, 0x83, 2, fid >> 8, fid & 0xFF, 0x8A, 1, 0x05}) {
    objects.push_back(low(static_cast<std::size_t>(byte)));
  }
  Bytes answer = {tag, low(objects.size())};
  answer.insert(answer.end(), objects.begin(), objects.end());
  return answer;
}

// The host selects by FID and wants no data. Other clients of smart cards say by a FID or a path below the master file,
// may leave out the master file's, and ask for control information with an Le and P2 00 or 04.
Reply selectFile(const Call &call) {
  constexpr std::uint8_t kFileControlInformation = 0x00, kFileControlParameters = 0x04, kNoInformation = 0x0C;
  constexpr std::uint8_t kFileBelow = 0x02, kByName = 0x04;
  if (call.p2() != kFileControlInformation && call.p2() != kFileControlParameters && call.p2() != kNoInformation) {
    return refuse(kWrongParameters);
  }
  if (call.p1() == kByName) return refuse(call.data.empty() ? kWrongLength : kFileNotFound);
  const bool unsaid = call.data.empty() && call.p1() != kFileBelow;
  if (call.data.size() != 2 && !unsaid) return refuse(kWrongLength);
  const std::uint16_t fid = unsaid ? kMasterFile : bigEndian(call.data);
  const bool master = fid == kMasterFile && call.p1() != kFileBelow;
  std::optional<Bytes> content;
  if (!master && !(content = call.store.readFile(fid))) return refuse(kFileNotFound);
  Reply reply;
  if (call.le && call.p2() != kNoInformation) {
    const std::optional<std::size_t> size = master ? std::nullopt : std::optional(content->size());
    reply.data = controlInformation(call.p2() == kFileControlInformation ? 0x6F : 0x62, fid, size);
    if (*call.le != 0 && *call.le != reply.data.size()) return refuse(kLengthIs | static_cast<int>(reply.data.size()));
  }
  call.session.selected = master ? std::nullopt : std::optional(fid);
  return reply;
}

Reply readBinary(const Call &call) {
  if (!call.session.selected) return refuse(kNoFileSelected);
  const std::optional<Bytes> content = call.store.readFile(*call.session.selected);
  if (!content) return refuse(kNoFileSelected);
  if (call.p12() >= content->size()) return refuse(kWrongParameters);
  const std::size_t rest = content->size() - call.p12();
  std::size_t length = call.expected();
  if (length > rest) {
    if (call.le != 0) return refuse(kLengthIs | static_cast<int>(rest));
    length = rest;
  }
  const auto first = content->begin() + call.p12();
  return {kDone, Bytes(first, first + static_cast<std::ptrdiff_t>(length))};
}

Reply writeBinary(const Call &call) {
  if (!call.session.selected) return refuse(kNoFileSelected);
  std::optional<Bytes> content = call.store.readFile(*call.session.selected);
  if (!content) return refuse(kNoFileSelected);
  if (call.p12() >= content->size()) return refuse(kWrongParameters);
  if (call.data.size() > content->size() - call.p12()) return refuse(kWrongLength);
  std::copy(call.data.begin(), call.data.end(), content->begin() + call.p12());
  if (call.session.selected == kCounterFile && !isGoodCounter(*content)) return refuse(kWrongData);
  call.store.writeFile(*call.session.selected, *content);
  return {};
}

Reply createFile(const Call &call) {
  const std::uint16_t fid = call.p12();
  const std::size_t size = bigEndian(call.data.subspan(1));
  if (fid == 0 || fid == 0xFFFF || call.data[0] != kTemplateFileType || size == 0) return refuse(kWrongData);
  if (isOwnFile(fid) || call.store.readFile(fid)) return refuse(kFileExists);
  if (size > kLargestFile || call.store.totalSize() + size > kFileMemory) return refuse(kNoRoom);
  call.store.createFile(fid, kTemplateFileType, Bytes(size));
  call.session.selected = fid;
  return {};
}

Reply deleteFile(const Call &call) {
  const std::uint16_t fid = bigEndian(call.data);
  if (isOwnFile(fid)) return refuse(kWrongConditions);
  const std::optional<Bytes> content = call.store.readFile(fid);
  if (!content) return refuse(kFileNotFound);
  // An enrolled finger is protected like enrollment itself; a file that never held one may go.
  if (isTemplate(*content) && call.store.parameter(kPinRequired) && !call.session.pinVerified) {
    return refuse(kNotAllowed);
  }
  call.store.deleteFile(fid);
  if (call.session.selected == fid) call.session.selected.reset();
  return {};
}

Reply getResponse(const Call &call) {
  if (!call.session.pending) return refuse(kWrongConditions);
  Reply &pending = *call.session.pending;
  const std::size_t available = pending.data.size();
  if (call.le != 0 && call.expected() > available) return refuse(kLengthIs | static_cast<int>(available & 0xFF));
  const std::size_t length = std::min(call.expected(), available);
  const auto cut = pending.data.begin() + static_cast<std::ptrdiff_t>(length);
  Reply reply{pending.status, Bytes(pending.data.begin(), cut)};
  if (length < available) {
    pending.data.erase(pending.data.begin(), cut);
    reply.status = static_cast<std::uint16_t>(kMoreData | ((available - length) & 0xFF));
  } else {
    call.session.pending.reset();
  }
  return reply;
}

// ---- The user's PIN -----------------------------------------------------------------------------------------------

// Takes one off a counter of tries and makes that last before anything is compared. False when none is left.
bool countTry(Store &store, Transaction &transaction, std::string_view counter) {
  const std::int64_t tries = store.parameter(counter);
  if (tries == 0) return false;
  store.setParameter(counter, tries - 1);
  transaction.commit();
  transaction.begin();
  return true;
}

// Fills the tries again when it is.
bool isRightPin(Store &store, ByteView pin) {
  const std::string right = store.pin();
  if (!std::equal(right.begin(), right.end(), pin.begin(), pin.end())) return false;
  store.setParameter(kPinTriesLeft, kMaxPinTries);
  return true;
}

Reply verifyPin(const Call &call) {
  const std::int64_t tries = call.store.parameter(kPinTriesLeft);
  if (call.data.empty()) {
    if (call.session.pinVerified) return {};
    return refuse(tries ? static_cast<int>(kTriesLeftAre | tries) : kBlocked);
  }
  if (call.data.size() > kLongestPin) return refuse(kWrongLength);
  if (!countTry(call.store, call.transaction, kPinTriesLeft)) return refuse(kBlocked);
  call.session.pinVerified = call.before.pinVerified = false;
  if (!isRightPin(call.store, call.data)) {
    return refuse(static_cast<int>(kTriesLeftAre | call.store.parameter(kPinTriesLeft)));
  }
  call.session.pinVerified = true;
  return {};
}

// ---- The sensor ---------------------------------------------------------------------------------------------------

Reply captureImage(const Call &call) {
  const std::optional<Features> finger = call.store.finger();
  if (!finger) return refuse(kNoFinger);
  call.session.captured = finger;
  return answerTwo();
}

Reply extractFeatures(const Call &call) {
  PowerSession &session = call.session;
  const std::size_t buffer = call.p2() - 1U;
  if (buffer >= session.buffers.size()) return refuse(kWrongParameters);
  if (!session.captured) return refuse(kNoImage);
  if (session.captured->length == 0) return refuse(kNoFeaturesInImage);
  session.buffers[buffer] = session.live = session.captured;
  session.fresh[buffer] = true;
  if (call.store.parameter(kFingerCache)) session.fingerCached = true;
  return answerTwo();
}

// ---- Enrollment and matching --------------------------------------------------------------------------------------

// The finger that all fresh buffers show; the last extracted one when none is fresh.
std::optional<Features> featuresToEnroll(const PowerSession &session) {
  for (std::size_t buffer = 0; buffer < session.buffers.size(); ++buffer) {
    if (session.fresh[buffer] && session.buffers[buffer] != session.live) return std::nullopt;
  }
  return session.live;
}

Reply enroll(const Call &call) {
  const std::optional<Bytes> content = call.store.readFile(call.p12());
  if (!content) return refuse(kFileNotFound);
  if (isOwnFile(call.p12())) return refuse(kWrongData);
  if (content->size() < kTemplateSize) return refuse(kNoRoom);
  const std::optional<Features> features = featuresToEnroll(call.session);
  call.session.fresh = {};
  if (!features) {
    call.session.buffers = {};
    call.session.live.reset();
    return refuse(kNoTemplateFromFeatures);
  }
  Bytes bytes = templateOf(*features);
  bytes.resize(content->size());
  call.store.writeFile(call.p12(), bytes);
  return answerTwo();
}

// Whether the template of a slot is that of the live finger: kDone, kNoMatch, or why it cannot be compared.
Status compareSlot(const Call &call, ByteView index, std::size_t slot) {
  const ByteView entry = index.subspan((slot - 1) * kIndexEntrySize, kIndexEntrySize);
  const std::uint16_t fid = bigEndian(entry.subspan(2));
  if (entry[0] != 1 || fid == 0) return kSlotNotEnrolled;
  const std::optional<Bytes> content = call.store.readFile(fid);
  if (!content) return kTemplateFileMissing;
  if (!isTemplate(*content)) return kNotATemplate;
  const Bytes live = templateOf(*call.session.live);
  return std::equal(live.begin(), live.end(), content->begin()) ? kDone : kNoMatch;
}

// The verdict and, on a match, the slot. One-to-many passes over slots that cannot be compared.
std::pair<Status, std::size_t> compare(const Call &call, std::size_t slots) {
  const Bytes index = call.store.ownFile(kIndexFile);
  if (index.size() < slots * kIndexEntrySize) call.store.database().damaged("the template index is too short");
  if (call.p2()) return {compareSlot(call, index, call.p2()), call.p2()};
  Status verdict = kSlotNotEnrolled;
  for (std::size_t slot = 1; slot <= slots; ++slot) {
    const Status status = compareSlot(call, index, slot);
    if (status == kDone) return {kDone, slot};
    if (status == kNoMatch) verdict = kNoMatch;
  }
  return {verdict, 0};
}

Reply match(const Call &call) {
  const auto slots = static_cast<std::size_t>(call.store.parameter(kSlots));
  const bool counts = call.p1() != kCountingNoTries;
  if (call.p2() > slots) return refuse(kWrongParameters);
  if (counts && call.store.parameter(kTriesLeft) == 0) return refuse(kBlocked);
  if (!call.session.live) return refuse(kNoFeatures);
  if (counts && !countTry(call.store, call.transaction, kTriesLeft)) return refuse(kBlocked);
  const auto [verdict, slot] = compare(call, slots);
  call.session.fresh = {};
  if (verdict == kDone) {
    if (counts) call.store.setParameter(kTriesLeft, call.store.parameter(kMaxTries));
    return answerByte(static_cast<std::int64_t>(slot));
  }
  if (!counts) return refuse(verdict);
  const std::int64_t tries = call.store.parameter(kTriesLeft);
  if (verdict == kNoMatch) return refuse(static_cast<int>(kTriesLeftAre | tries));
  // Nothing was compared: the try comes back.
  call.store.setParameter(kTriesLeft, std::min(tries + 1, call.store.parameter(kMaxTries)));
  return refuse(verdict);
}

// ---- The device ---------------------------------------------------------------------------------------------------

Reply selfTest(const Call &call) {
  try {
    call.store.check();
  } catch (const StoreError &error) {
    if (error.kind != SIMULATOR_STORE_DAMAGED) throw;
    rememberFailure(error);
    return refuse(kSelfTestFailed);
  }
  return answerTwo();
}

// 0 name, padded with zeros; 32 version; 34 slots; 35 feature buffers; 36 bytes of a template; 38 width and 40 height
// of the sensor in pixels; 42 pixels per inch; 44 tries that matching allows. Numbers have the high byte first.
Reply deviceInformation(const Call &call) {
  constexpr std::string_view kName = "kelmtrova simulated token";
  Bytes info(47);
  std::copy(kName.begin(), kName.end(), info.begin());
  constexpr std::uint8_t kNumbers[] = {1, 0, 0, 3, kTemplateSize >> 8, kTemplateSize & 0xFF, 1, 0, 1, 104, 1, 244};
  std::copy(std::begin(kNumbers), std::end(kNumbers), info.begin() + 32);
  info[34] = static_cast<std::uint8_t>(call.store.parameter(kSlots));
  info[44] = static_cast<std::uint8_t>(call.store.parameter(kMaxTries));
  return {kDone, info};
}

struct Field {
  std::uint8_t p1;
  std::string_view name;
};

// The one-byte parameters behind 80 F9, by the P1 that reads them; each but the first is set by the following P1.
constexpr Field kFields[] = {{0x04, kSlots}, {0x05, kTimeOut}, {0x07, kSecurityLevel}, {0x0A, kImageGain}};

Reply readField(const Call &call) {
  const auto field = std::ranges::find(kFields, call.p1(), &Field::p1);
  return answerByte(call.store.parameter(field->name));
}

Reply setField(const Call &call) {
  const auto field = std::ranges::find(kFields, call.p1() - 1, &Field::p1);
  call.store.setParameter(field->name, call.data[0]);
  return {};
}

Reply readVerifyMode(const Call &call) { return answerByte(call.store.parameter(kVerifyMode)); }

Reply setVerifyMode(const Call &call) {
  if (call.data[0] > 2) return refuse(kModeOutOfRange);
  call.store.setParameter(kVerifyMode, call.data[0]);
  return {};
}

// Bit 0: the PIN was verified; 1: the token asks for it; 2: matching is blocked; 3: the PIN is blocked.
Reply securityState(const Call &call) {
  return answerByte((call.session.pinVerified ? 1 : 0) | (call.store.parameter(kPinRequired) ? 2 : 0) |
                    (call.store.parameter(kTriesLeft) ? 0 : 4) | (call.store.parameter(kPinTriesLeft) ? 0 : 8));
}

// Bit 0: the cache is on; 1: it holds a finger.
Reply cacheState(const Call &call) {
  return answerByte((call.store.parameter(kFingerCache) ? 1 : 0) | (call.session.fingerCached ? 2 : 0));
}

Reply clearCache(const Call &call) {
  call.session.fingerCached = false;
  return cacheState(call);
}

Reply switchCache(const Call &call) {
  call.store.setParameter(kFingerCache, call.p1() == 0x02);
  return clearCache(call);
}

// The header of a block: its first line, low byte first; two zeros; its number of lines; three zeros.
Reply receiveImage(const Call &call) {
  const ByteView data = call.data;
  if (data.size() <= kImageHeaderSize) return refuse(kWrongLength);
  const std::uint32_t pixels = static_cast<std::uint32_t>(data.size() - kImageHeaderSize);
  ImageBlock block{static_cast<std::uint32_t>(data[0] | data[1] << 8), data[4], 0};
  if (data[2] || data[3] || data[5] || data[6] || data[7]) return refuse(kWrongData);
  if (block.lines == 0 || pixels % block.lines) return refuse(kWrongData);
  block.lineLength = pixels / block.lines;
  if (block.lineLength > kLongestImageLine) return refuse(kWrongData);
  if (block.firstLine == 0) {
    call.store.clearImage();
  } else {
    // A block follows the one before it or, sent once more after a failed transport, takes its place.
    const std::optional<ImageBlock> last = call.store.lastBlock();
    if (!last || last->lineLength != block.lineLength ||
        (block.firstLine != last->firstLine + last->lines && block.firstLine != last->firstLine)) {
      return refuse(kWrongData);
    }
  }
  call.store.putBlock(block, data.subspan(kImageHeaderSize));
  return {};
}

// ---- The table of commands ----------------------------------------------------------------------------------------

enum class Frame : std::uint8_t {
  kAsks,         // Le
  kTells,        // Lc and data; an Le is welcome, though no data comes back
  kTellsOrAsks,  // the same, or the header alone, with or without a fifth byte of 0
  kAny,          // the command sees to it
};

constexpr int kAny = -1;

struct Rule {
  std::uint8_t cla;
  std::uint8_t ins;
  int p1;
  int p2;
  Frame frame;
  std::uint8_t length;  // the only good Lc, or the only good Le but for 0; 0 when several are good
  bool needsPin;        // answers kNotAllowed when the token asks for a PIN and has not got it
  Reply (*run)(const Call &);
};

constexpr Rule kRules[] = {
    {KELM_CLA_ISO, KELM_INS_VERIFY, 0x00, 0x00, Frame::kTellsOrAsks, 0, false, verifyPin},
    {KELM_CLA_ISO, KELM_INS_SELECT, 0x00, kAny, Frame::kAny, 0, false, selectFile},
    {KELM_CLA_ISO, KELM_INS_SELECT, 0x02, kAny, Frame::kAny, 0, false, selectFile},
    {KELM_CLA_ISO, KELM_INS_SELECT, 0x04, kAny, Frame::kAny, 0, false, selectFile},
    {KELM_CLA_ISO, KELM_INS_SELECT, 0x08, kAny, Frame::kAny, 0, false, selectFile},
    {KELM_CLA_ISO, KELM_INS_READ_BINARY, kAny, kAny, Frame::kAsks, 0, false, readBinary},
    {KELM_CLA_ISO, KELM_INS_GET_RESPONSE, 0x00, 0x00, Frame::kAsks, 0, false, getResponse},
    {KELM_CLA_ISO, KELM_INS_WRITE_BINARY, kAny, kAny, Frame::kTells, 0, false, writeBinary},
    {KELM_CLA_ISO, KELM_INS_UPDATE_BINARY, kAny, kAny, Frame::kTells, 0, false, writeBinary},
    {KELM_CLA_ISO, KELM_INS_DELETE_FILE, 0x00, 0x00, Frame::kTells, 2, false, deleteFile},
    {KELM_CLA_TOKEN, KELM_INS_CREATE_FILE, kAny, kAny, Frame::kTells, 7, false, createFile},
    {KELM_CLA_TOKEN, KELM_INS_DOWNLOAD, 0x01, 0x00, Frame::kTells, 0, false, receiveImage},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x00, 0x06, Frame::kAsks, 1, false, cacheState},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x01, 0x06, Frame::kAsks, 1, false, clearCache},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x02, 0x06, Frame::kAsks, 1, true, switchCache},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x03, 0x06, Frame::kAsks, 1, true, switchCache},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x04, 0x06, Frame::kAsks, 1, false, readField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x05, 0x06, Frame::kAsks, 1, false, readField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x06, 0x06, Frame::kTells, 1, true, setField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x07, 0x06, Frame::kAsks, 1, false, readField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x08, 0x06, Frame::kTells, 1, true, setField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x09, 0x00, Frame::kAsks, 1, false, securityState},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0A, 0x06, Frame::kAsks, 1, false, readField},
    {KELM_CLA_TOKEN, KELM_INS_PARAMETER, 0x0B, 0x06, Frame::kTells, 1, true, setField},
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x00, 0x00, Frame::kAsks, 2, false, captureImage},
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x01, 0x00, Frame::kAsks, 2, false, selfTest},
    {KELM_CLA_TOKEN, KELM_INS_DEVICE, 0x02, 0x00, Frame::kAsks, 47, false, deviceInformation},
    {KELM_CLA_TOKEN, KELM_INS_EXTRACT, 0x00, kAny, Frame::kAsks, 2, false, extractFeatures},
    {KELM_CLA_TOKEN, KELM_INS_ENROLL, kAny, kAny, Frame::kAsks, 2, true, enroll},
    {KELM_CLA_TOKEN, KELM_INS_MATCH, 0x06, kAny, Frame::kAsks, 1, false, match},
    {KELM_CLA_TOKEN, KELM_INS_MATCH, 0x16, kAny, Frame::kAsks, 1, false, match},
    {KELM_CLA_TOKEN, KELM_INS_MATCH, kCountingNoTries, kAny, Frame::kAsks, 1, false, match},
    {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x00, 0x06, Frame::kTells, 1, true, setVerifyMode},
    {KELM_CLA_TOKEN, KELM_INS_VERIFY_MODE, 0x01, 0x06, Frame::kAsks, 1, false, readVerifyMode},
};

bool fits(int wanted, std::uint8_t byte) { return wanted == kAny || wanted == byte; }

// Tells data and Le of a short command apart; false when the lengths are not those of one.
bool parse(Call &call) {
  const ByteView command = call.command;
  if (command.size() == kHeaderSize) call.le = command[4];
  if (command.size() <= kHeaderSize) return true;
  const std::size_t length = command[4];
  const std::size_t rest = command.size() - kHeaderSize;
  if (length == 0 || (rest != length && rest != length + 1)) return false;
  call.data = command.subspan(kHeaderSize, length);
  if (rest > length) call.le = command.back();
  return true;
}

// kDone when what is there of data and Le is right for the rule.
int checkFrame(const Rule &rule, const Call &call) {
  switch (rule.frame) {
    case Frame::kAsks:
      if (!call.data.empty() || !call.le) return kWrongLength;
      return rule.length == 0 || *call.le == 0 || *call.le == rule.length ? kDone : kLengthIs | rule.length;
    case Frame::kTellsOrAsks:
      if (call.data.empty() && call.le.value_or(0) == 0) return kDone;
      [[fallthrough]];
    case Frame::kTells:
      return !call.data.empty() && (rule.length == 0 || call.data.size() == rule.length) ? kDone : kWrongLength;
    default:
      return kDone;
  }
}

// What a class other than the two that are used asks for and does not get.
Status refuseClass(std::uint8_t cla) {
  if (cla >= 0x80) return kUnknownClass;
  if (cla >= 0x40) return kNoLogicalChannel;
  if (cla >= 0x20) return kUnknownClass;
  return cla & 0x10 ? kNoChaining : cla & 0x0C ? kNoSecureMessaging : kNoLogicalChannel;
}

// In the order of ISO/IEC 7816-4: class, instruction, P1 and P2, length, security, and then the work itself.
Reply dispatch(Call call) {
  const ByteView command = call.command;
  if (command.size() < 4) return refuse(kWrongLength);
  if (command[0] != KELM_CLA_ISO && command[0] != KELM_CLA_TOKEN) return refuse(refuseClass(command[0]));
  const bool framed = parse(call);
  int status = kUnknownInstruction;
  for (const Rule &rule : kRules) {
    if (rule.cla != command[0] || rule.ins != command[1]) continue;
    status = kWrongParameters;
    if (!fits(rule.p1, command[2]) || !fits(rule.p2, command[3])) continue;
    status = framed ? checkFrame(rule, call) : kWrongLength;
    if (status != kDone) break;
    if (rule.needsPin && call.store.parameter(kPinRequired) && !call.session.pinVerified) return refuse(kNotAllowed);
    return rule.run(call);
  }
  return refuse(status);
}

}  // namespace

bool isTemplate(ByteView content) {
  return content.size() >= kTemplateSize && std::equal(kTemplateMark.begin(), kTemplateMark.end(), content.begin());
}

// FNV-1a of 128 bits: fingers differ by accident, nobody forges them here.
Features featuresOf(ByteView finger) {
  __extension__ using Wide = unsigned __int128;
  constexpr Wide kPrime = Wide{1} << 88 | 0x13B;
  Wide hash = Wide{0x6C62272E07BB0142} << 64 | 0x62B821756295C58D;
  for (const std::uint8_t byte : finger) hash = (hash ^ byte) * kPrime;
  Features features{finger.size()};
  for (std::uint8_t &byte : features.digest) {
    byte = static_cast<std::uint8_t>(hash);
    hash >>= 8;
  }
  return features;
}

Reply answerCommand(Store &store, PowerSession &session, ByteView command) {
  PowerSession before = session;
  try {
    Transaction transaction(store.database());
    if (command.size() < 2 || command[1] != KELM_INS_GET_RESPONSE) session.pending.reset();
    Reply reply = dispatch({store, transaction, session, before, command});
    transaction.commit();
    return reply;
  } catch (const StoreError &error) {
    rememberFailure(error);
    session = std::move(before);
    return refuse(kMemoryFailure);
  } catch (...) {
    session = std::move(before);
    throw;
  }
}

PinVerdict comparePin(Store &store, Transaction &transaction, ByteView pin) {
  if (!countTry(store, transaction, kPinTriesLeft)) return PinVerdict::kBlocked;
  return isRightPin(store, pin) ? PinVerdict::kRight : PinVerdict::kWrong;
}

}  // namespace kelm::devices
