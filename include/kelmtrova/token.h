/*
 * kelmtrova/token.h - the token API of libkelmtrova.
 *
 * Commands to a USB fingerprint token that captures, enrolls and matches by itself. The host never sees a finger image
 * or a template: it chooses the slot, keeps the template index on the token up to date and reads the verdicts.
 */
#ifndef KELMTROVA_TOKEN_H
#define KELMTROVA_TOKEN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELMTROVA_API
#define KELMTROVA_API __attribute__((visibility("default")))
#endif

/* ---- Records ---------------------------------------------------------------------------------------------------- */

/* The connection record; the caller's connection layer owns it, the library only reads it. 40 bytes. */
typedef struct SCardConnection {
  uint8_t bState; /* 3 = ready for exchanges */
  uint8_t abReserved[23];
  uint64_t hDevice;    /* the device manager's handle of the token */
  uint64_t dwProtocol; /* 1 = T=0, any other value = T=1 */
} SCardConnection;

/* A protocol-control record. 16 bytes. */
typedef struct SCardPci {
  uint64_t dwProtocol;
  uint64_t cbPciLength;
} SCardPci;

/* One slot's entry of the template index. 20 bytes. */
typedef struct TemplateIndexEntry {
  uint8_t enrolled;
  uint8_t tag;
  uint16_t fid; /* big-endian: high byte first in memory */
  uint8_t userData[16];
} TemplateIndexEntry;

/* A grey image for the token. 32 bytes. */
typedef struct TokenImage {
  uint64_t dwLines;
  uint64_t dwLineLen;
  uint64_t dwAux;
  const uint8_t *pbPixels;
} TokenImage;

/* ---- Transport -------------------------------------------------------------------------------------------------- */

KELMTROVA_API extern const SCardPci g_rgSCardT0Pci;
KELMTROVA_API extern const SCardPci g_rgSCardT1Pci;

KELMTROVA_API int64_t SCardTransmit(uint64_t hCard, const SCardPci *sendPci, const uint8_t *send, uint64_t sendLength,
                                    SCardPci *recvPci, uint8_t *recv, uint64_t *recvLength);
KELMTROVA_API uint32_t SCardAPDU(const SCardConnection *handle, uint8_t *command, uint64_t commandLength,
                                 uint8_t *response, uint64_t *responseLength);
KELMTROVA_API void MYTRACE(const char *format, ...);
KELMTROVA_API uint64_t MyLock(const SCardConnection *handle);
KELMTROVA_API void MyUnlock(uint64_t token);
/* In parentheses because TEST is also a macro of GoogleTest. */
KELMTROVA_API uint64_t(TEST)(uint64_t value);

/* ---- Files of the token ----------------------------------------------------------------------------------------- */

KELMTROVA_API int32_t SCardReadBin(const SCardConnection *handle, uint16_t fid, uint16_t offset, uint8_t *out,
                                   uint16_t length);
KELMTROVA_API int32_t SCardUpdateBin(const SCardConnection *handle, uint64_t fid, uint64_t offset, const uint8_t *data,
                                     uint64_t length);
KELMTROVA_API int32_t SCardCreateFile(const SCardConnection *handle, uint16_t fid, const uint8_t *fcp,
                                      uint8_t fcpLength);
KELMTROVA_API int32_t SCardEraseEF(const SCardConnection *handle, uint16_t fid);
KELMTROVA_API uint64_t token_get_current_fid(const SCardConnection *handle, uint16_t *counter);
KELMTROVA_API uint64_t token_set_next_fid(const SCardConnection *handle, uint16_t value);
KELMTROVA_API int32_t LittleEndian(void);
KELMTROVA_API uint16_t ToBigEndian(uint16_t value);
KELMTROVA_API uint16_t Exchange(uint16_t value);

/* ---- Middleware bridge ------------------------------------------------------------------------------------------ */

KELMTROVA_API uint64_t KelmSCardAuthBio(uint64_t arg);
KELMTROVA_API uint64_t KelmSCardVerifyUserPinBio(uint64_t a, uint64_t b, uint8_t c, uint64_t d);

/* ---- Detection, self-test, device information ------------------------------------------------------------------- */

KELMTROVA_API int32_t KelmIsTrova(const SCardConnection *handle);
KELMTROVA_API uint64_t KelmTrovaSelfTest(const SCardConnection *handle);
KELMTROVA_API uint64_t KelmTrovaGetDeviceInfo(const SCardConnection *handle, uint8_t *info, uint64_t *infoLength);
KELMTROVA_API uint64_t KelmTrovaGetMaxTmpltNum(const SCardConnection *handle, uint8_t *maxCount);

/* ---- Capture and feature extraction ----------------------------------------------------------------------------- */

KELMTROVA_API uint64_t KelmTrovaCaptureImage(const SCardConnection *handle);
KELMTROVA_API uint64_t KelmTrovaFeatureExtract(const SCardConnection *handle, uint8_t bufferIndex);

/* ---- Enrollment, template index, deletion ----------------------------------------------------------------------- */

KELMTROVA_API uint64_t KelmTrovaFeatureEnroll(const SCardConnection *handle, uint8_t slot,
                                              const TemplateIndexEntry *record);
KELMTROVA_API uint64_t KelmTrovaReadIndexFile(const SCardConnection *handle, uint8_t *buffer);
KELMTROVA_API uint64_t KelmTrovaDeleteFingerPrint(const SCardConnection *handle, uint8_t slot);

/* ---- Verification and identification ---------------------------------------------------------------------------- */

KELMTROVA_API uint64_t KelmTrovaFeatureVerify(const SCardConnection *handle, uint8_t mode, uint8_t slot,
                                              uint8_t *triesLeft);
KELMTROVA_API uint64_t KelmTrovaFeatureIdentify(const SCardConnection *handle, uint8_t mode, uint8_t *matchedSlot,
                                                uint8_t *triesLeft);
KELMTROVA_API uint64_t KelmTrovaFeatureVerifyTest(const SCardConnection *handle, uint16_t useSlot, uint8_t *slot);

/* ---- Device parameters ------------------------------------------------------------------------------------------ */

KELMTROVA_API uint64_t KelmTrovaSetVerifyMode(const SCardConnection *handle, uint8_t value);
KELMTROVA_API uint64_t KelmTrovaGetVerifyMode(const SCardConnection *handle, uint8_t *valueOut);
KELMTROVA_API uint64_t KelmTrovaSetTimeOut(const SCardConnection *handle, uint8_t value);
KELMTROVA_API uint64_t KelmTrovaGetTimeOut(const SCardConnection *handle, uint8_t *valueOut);
KELMTROVA_API uint64_t KelmTrovaSetSecLevel(const SCardConnection *handle, uint8_t value);
KELMTROVA_API uint64_t KelmTrovaGetSecLevel(const SCardConnection *handle, uint8_t *valueOut);
KELMTROVA_API uint64_t KelmTrovaSetImageGain(const SCardConnection *handle, uint8_t value);
KELMTROVA_API uint64_t KelmTrovaGetImageGain(const SCardConnection *handle, uint8_t *valueOut);
KELMTROVA_API uint64_t KelmTrovaGetSecState(const SCardConnection *handle, uint8_t *valueOut);

/* ---- Finger cache ----------------------------------------------------------------------------------------------- */

KELMTROVA_API uint64_t KelmTrovaGetFingerCacheState(const SCardConnection *handle, uint8_t *stateOut);
KELMTROVA_API uint64_t KelmTrovaClearFingerCache(const SCardConnection *handle);
KELMTROVA_API uint64_t KelmTrovaEnableFingerCache(const SCardConnection *handle, uint8_t enable);

/* ---- Image transfer --------------------------------------------------------------------------------------------- */

KELMTROVA_API uint64_t KelmTrovaDownloadImage(const SCardConnection *handle, const TokenImage *image);
KELMTROVA_API uint64_t KelmTrovaUploadImage(const SCardConnection *handle, uint64_t reserved);

#ifdef __cplusplus
}
#endif

#endif
