/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/token.h - the token API of libkelmtrova.
 *
 * Commands to a USB fingerprint token that captures, enrolls and matches by itself. The host never sees a finger image
 * or a template: it chooses the slot, keeps the template index on the token up to date and reads the verdicts.
 *
 * From finger to template:
 *
 *   KelmTrovaCaptureImage(handle);
 *   KelmTrovaFeatureExtract(handle, 1);            (and buffers 2 and 3, each after a capture of its own)
 *   KelmTrovaFeatureEnroll(handle, slot, &record);
 *
 * and from finger to verdict: capture, extract, then KelmTrovaFeatureVerify or KelmTrovaFeatureIdentify.
 *
 * The handle points to the caller's connection record, which lives as long as the connection. A null handle, the
 * all-ones handle and a record that is not ready make no exchange. Everything else comes with the arguments of a call:
 * the library keeps nothing between calls, starts no thread and holds no lock. Calls for different tokens may run on
 * different threads; a caller that shares one token between threads serialises its calls itself.
 *
 * A call makes its exchanges with the device manager (libkelmkmgr.so): one per command, two when the token asks for
 * GET RESPONSE or the transport asks for a retry. Memory is taken from the heap only by SCardReadBin (once, released
 * before it returns) and by enrollment and deletion (one index buffer, likewise). A function takes up to 20 KiB of
 * stack; what the device manager, the middleware and functions that replace the library's own take comes on top.
 *
 * Results of the commands are 64-bit: KELM_RESULT_OK, or 0x80000000 plus a 16-bit code, which is a status word that
 * the command passes on or a code of the library. The lists below are complete: a command gives no other results.
 * An output that is not mentioned under a result stays untouched.
 */
#ifndef KELMTROVA_TOKEN_H
#define KELMTROVA_TOKEN_H

#include <stddef.h>
#include <stdint.h>

#include "kelmtrova/version.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELMTROVA_API
#define KELMTROVA_API __attribute__((visibility("default")))
#endif

/* ---- Status words ----------------------------------------------------------------------------------------------- */

/* 32-bit unsigned, as SCardAPDU returns them: SW1 in bits 8 to 15, SW2 in bits 0 to 7. What 0x6A07 to 0x6A14 stand for
 * in detail is defined by the token; the names say which commands pass them on. */
#define KELM_SW_SUCCESS UINT32_C(0x9000)
#define KELM_SW_MORE_DATA UINT32_C(0x6100) /* 0x61xx: xx bytes wait for GET RESPONSE (00 = 256) */
#define KELM_SW_NO_MATCH UINT32_C(0x63C0)  /* 0x63Cx: no match, x tries left */
#define KELM_SW_MEMORY_FAILURE UINT32_C(0x6581)
#define KELM_SW_WRONG_LENGTH UINT32_C(0x6700)
#define KELM_SW_SECURITY_STATUS UINT32_C(0x6982) /* security status not satisfied: the token wants its PIN first */
#define KELM_SW_BLOCKED UINT32_C(0x6983)
#define KELM_SW_FEATURE_6A07 UINT32_C(0x6A07) /* extraction and matching */
#define KELM_SW_FEATURE_6A08 UINT32_C(0x6A08)
#define KELM_SW_FEATURE_6A0B UINT32_C(0x6A0B)
#define KELM_SW_CAPTURE_6A0E UINT32_C(0x6A0E) /* capture */
#define KELM_SW_ENROLL_6A10 UINT32_C(0x6A10)  /* enrollment */
#define KELM_SW_FEATURE_6A11 UINT32_C(0x6A11) /* extraction and matching */
#define KELM_SW_MATCH_6A12 UINT32_C(0x6A12)   /* matching */
#define KELM_SW_MATCH_6A13 UINT32_C(0x6A13)
#define KELM_SW_MATCH_6A14 UINT32_C(0x6A14)
#define KELM_SW_VERIFY_MODE UINT32_C(0x6A18)   /* verify mode refused */
#define KELM_SW_TEST_NO_MATCH UINT32_C(0x6A21) /* no match, test variant only */
#define KELM_SW_INCORRECT_DATA UINT32_C(0x6A80)
#define KELM_SW_FILE_NOT_FOUND UINT32_C(0x6A82)
#define KELM_SW_SELF_TEST UINT32_C(0x6AFA)   /* self-test failed */
#define KELM_SW_DEVICE_6AFB UINT32_C(0x6AFB) /* device information and image download */
#define KELM_SW_WRONG_P1P2 UINT32_C(0x6B00)
/* Made by the library, never by the token. */
#define KELM_SW_NO_EXCHANGE UINT32_C(0xFFFF) /* no exchange could be made, or it failed */
#define KELM_SW_NOT_LOCKED UINT32_C(0x9909)  /* MyLock answered 0: nothing was sent */

/* ---- Results ---------------------------------------------------------------------------------------------------- */

/* 64-bit unsigned; the upper 32 bits are always 0. */
#define KELM_RESULT_OK UINT64_C(0)
/* A status word that a command passes on. */
#define KELM_RESULT_OF(statusWord) (UINT64_C(0x80000000) | (statusWord))

#define KELM_RESULT_UNLISTED UINT64_C(0x8000B001) /* a status word that the command does not list, or no exchange */
#define KELM_RESULT_ARGUMENT UINT64_C(0x8000B002) /* an argument out of range, or a null pointer */
#define KELM_RESULT_MEMORY UINT64_C(0x8000B003)   /* no memory for the index buffer */
#define KELM_RESULT_NOT_LOCKED UINT64_C(0x80009909)
#define KELM_RESULT_DELETE UINT64_C(0x80009901)      /* template file not erased, or index entry not cleared */
#define KELM_RESULT_INDEX_READ UINT64_C(0x80009902)  /* the template index could not be read */
#define KELM_RESULT_LINE_LENGTH UINT64_C(0x80009903) /* image lines of 0 or of more than 240 bytes */
/* A template file could not be created. A token also refuses the FIDs of its own files, see KelmTrovaFeatureEnroll. */
#define KELM_RESULT_CREATE_FILE UINT64_C(0x80000101)
#define KELM_RESULT_ERASE_FILE UINT64_C(0x80000102)   /* a template file had to be erased again and could not be */
#define KELM_RESULT_FID_COUNTER UINT64_C(0x80000107)  /* the FID counter could not be read or written */
#define KELM_RESULT_INDEX_WRITE UINT64_C(0x80000108)  /* index entry not written; the template file was erased */
#define KELM_RESULT_AUTH_LIBRARY UINT64_C(0x8000010A) /* middleware or its entry KelmSCardAuth not loaded */
#define KELM_RESULT_PIN_LIBRARY UINT64_C(0x8000010C)  /* middleware or its entry KelmSCardVerifyUserPin not loaded */
#define KELM_RESULT_CAPTURE UINT64_C(0x80006A09)      /* any failure of a capture but 0x6A0E */
/* Enrollment could not obtain the slot count, or could not use the FID counter. */
#define KELM_RESULT_ENROLL_SETUP UINT64_C(0x80006A0F)
#define KELM_RESULT_NO_MATCH UINT64_C(0x80006A21)       /* one-to-one: another finger */
#define KELM_RESULT_NOT_IDENTIFIED UINT64_C(0x80006A2F) /* one-to-many: none of the enrolled fingers */
#define KELM_RESULT_BLOCKED UINT64_C(0x80006983)        /* no tries left */

/* ---- Numbers of the token --------------------------------------------------------------------------------------- */

/* Command APDUs: class and instruction. CREATE FILE and what follows it are commands of the token's own class. */
#define KELM_CLA_ISO 0x00
#define KELM_CLA_TOKEN 0x80
#define KELM_INS_VERIFY 0x20 /* of the PIN; the middleware sends it, the library never does */
#define KELM_INS_SELECT 0xA4
#define KELM_INS_READ_BINARY 0xB0
#define KELM_INS_GET_RESPONSE 0xC0
#define KELM_INS_WRITE_BINARY 0xD0
#define KELM_INS_UPDATE_BINARY 0xD6
#define KELM_INS_DELETE_FILE 0xE4
#define KELM_INS_CREATE_FILE 0xE0
#define KELM_INS_DOWNLOAD 0xF7  /* image download */
#define KELM_INS_PARAMETER 0xF9 /* slot count, parameters and finger cache, by P1 */
#define KELM_INS_DEVICE 0xFA    /* capture, self-test, device information, by P1 */
#define KELM_INS_EXTRACT 0xFB   /* feature extraction */
#define KELM_INS_ENROLL 0xFC
#define KELM_INS_MATCH 0xFD
#define KELM_INS_VERIFY_MODE 0xFE

#define KELM_FID_COUNTER UINT16_C(0x0020)        /* file: bytes 1 and 2 hold the FID counter, low byte first */
#define KELM_FID_BLOCK_RECORD UINT16_C(0x0040)   /* file: byte 0x6A, bit 0x04 says that matching is blocked */
#define KELM_FID_TEMPLATE_INDEX UINT16_C(0x0520) /* file: one TemplateIndexEntry per slot */
#define KELM_FID_MASTER_FILE UINT16_C(0x3F00)    /* the master file; no template file gets this FID */
#define KELM_FID_SELECTED UINT16_C(0xFFFF)       /* argument: the file that is selected already */
#define KELM_FID_SHIFT 5                         /* FID of a template file = counter value << 5 */
#define KELM_CONNECTION_READY 3                  /* SCardConnection.bState */
#define KELM_DEVICE_INFO_ROOM 256                /* bytes that KelmTrovaGetDeviceInfo may write */
#define KELM_MAX_LINE_LENGTH 240                 /* TokenImage.dwLineLen */

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
  uint64_t dwProtocol;  /* 1 = T=0, 2 = T=1 */
  uint64_t cbPciLength; /* 8; neither is read by the library */
} SCardPci;

/* One slot's entry of the template index. 20 bytes, the same on the token and in memory.
 * Free: all zero. Reserved (it owns a template file, but no enrollment succeeded): `fid` only. Enrolled: all fields. */
typedef struct TemplateIndexEntry {
  uint8_t enrolled;     /* 1 when the slot holds a template, else 0 */
  uint8_t tag;          /* the caller's, kept uninterpreted */
  uint16_t fid;         /* the slot's template file, big-endian: high byte first in memory; 0 = none */
  uint8_t userData[16]; /* the caller's, kept uninterpreted */
} TemplateIndexEntry;

/* A grey image for the token. 32 bytes. */
typedef struct TokenImage {
  uint64_t dwLines;
  uint64_t dwLineLen;      /* bytes per line, 1 to 240; one byte per pixel */
  uint64_t dwAux;          /* carried along, not read */
  const uint8_t *pbPixels; /* dwLines x dwLineLen bytes, top line first, no padding; the caller's, only read */
} TokenImage;

/* ---- Transport -------------------------------------------------------------------------------------------------- */

/* SCardTransmit, SCardAPDU, MYTRACE, MyLock and MyUnlock are always called by name through the dynamic linker, as are
 * the file functions below (not those of byte order): a program or a preloaded library that defines one of them takes
 * its place. These names carry no symbol version, so that libraries with versions of their own can do so too. */

/* Constant: { 1, 8 } for T=0 and { 2, 8 } for T=1. */
KELMTROVA_API extern const SCardPci g_rgSCardT0Pci;
KELMTROVA_API extern const SCardPci g_rgSCardT1Pci;

/*
 * One exchange with the device manager, on its handle of the token, `hCard`.
 *
 * `send` holds `sendLength` bytes of command. `recv` receives the data bytes and after them SW1 SW2, `*recvLength` the
 * count of both: it is not read, so `recv` needs room for 258 bytes. Data that come with a status word other than
 * 0x9000 are dropped, as are data beyond 256 bytes. The protocol-control records, `sendPci` and `recvPci`, are not read
 * and may be null.
 *
 * Always returns 0: errors of the device manager are its code's low 16 bits in place of SW1 SW2. With a null `send`,
 * `recv` or `recvLength` nothing is sent and `*recvLength`, where there is one, becomes 0.
 */
KELMTROVA_API int64_t SCardTransmit(uint64_t hCard, const SCardPci *sendPci, const uint8_t *send, uint64_t sendLength,
                                    SCardPci *recvPci, uint8_t *recv, uint64_t *recvLength);

/*
 * One command to the token and its answer: returns the status word and stores the answer's data bytes in `response` and
 * their count in `*responseLength` (which is not read).
 *
 * `command` needs 5 writable bytes at least, whatever `commandLength` says: when the token answers 0x61xx, they are
 * overwritten with GET RESPONSE 00 C0 00 00 xx, whose answer is then the answer of the call. When the transport returns
 * 1117, the same command is sent once more. There is one such extra exchange per call: a second 0x61xx is returned as
 * it stands, a second 1117 is a failed exchange.
 *
 * `response` needs room for 256 bytes; for 8190 where SCardTransmit was replaced by one that delivers more. Data that
 * such a transport delivers together with 0x61xx may remain there, beyond `*responseLength`.
 *
 * Returns KELM_SW_NO_EXCHANGE with a length of 0, and makes no exchange, for the null and the all-ones handle, for a
 * record whose `bState` is not 3, and for a null `command`, `response` or `responseLength`. Returns the same, again
 * with a length of 0, when the transport fails, or delivers fewer than 2 or claims more than 8192 bytes.
 */
KELMTROVA_API uint32_t SCardAPDU(const SCardConnection *handle, uint8_t *command, uint64_t commandLength,
                                 uint8_t *response, uint64_t *responseLength);

/* The trace hook, which takes a `format` of printf and its arguments: does nothing. Each command passes it "Enter " and
 * its name on entry, and after its exchange its name and " SCardAPDU return retV=%04X, dwRespLen=%d" with the status
 * word (unsigned) and the data length (int). A capture and an upload write no trace, reading the index and deleting
 * only the first; the download's texts stand there. */
KELMTROVA_API void MYTRACE(const char *format, ...);

/* The lock hooks mark where a command talks to the token; they take no lock. MyLock returns the handle as the lock's
 * token, so that a null handle counts as a lock not obtained (0). MyUnlock does nothing; it is called with that token,
 * at the end of an enrollment also with 0, when no lock was obtained. */
KELMTROVA_API uint64_t MyLock(const SCardConnection *handle);
KELMTROVA_API void MyUnlock(uint64_t token);

/* Ignores `value` and returns 0. In parentheses because TEST is also a macro of GoogleTest. */
KELMTROVA_API uint64_t(TEST)(uint64_t value);

/* ---- Files of the token ----------------------------------------------------------------------------------------- */

/* These take no lock and write no trace. They return 1 for success and 0 for failure: any status word but 0x9000, or
 * an argument refused as described, and then nothing more is sent. FIDs and offsets are sent high byte first. */

/*
 * Reads `length` bytes at `offset` of a file into `out`: SELECT 00 A4 00 00 02 FID (left out for KELM_FID_SELECTED),
 * then READ BINARY 00 B0 offset Le for every 176 bytes. `out` is written only when the whole read succeeded; bytes
 * that the token leaves out of an answer read as 0, bytes beyond those asked for are dropped. Offsets are 16-bit and
 * wrap. Takes one heap block of `length` + 32 bytes; without memory it fails after the SELECT.
 * A null `out` or a `length` of 0 fails without sending anything.
 */
KELMTROVA_API int32_t SCardReadBin(const SCardConnection *handle, uint16_t fid, uint16_t offset, uint8_t *out,
                                   uint16_t length);

/*
 * Writes `length` bytes of `data` at `offset` of a file: SELECT as above, then WRITE BINARY 00 D0 offset Lc for every
 * 176 bytes. The low 16 bits of `fid` and of each offset are sent, so that a write across offset 0xFFFF goes on at 0
 * if the token takes it so far. Chunks written before a failure stay written.
 * Null `data` or a `length` of 0 fails without sending anything.
 */
KELMTROVA_API int32_t SCardUpdateBin(const SCardConnection *handle, uint64_t fid, uint64_t offset, const uint8_t *data,
                                     uint64_t length);

/* CREATE FILE 80 E0 FID Lc with `fcpLength` (0 to 255) bytes of file control parameters. Null `fcp` with a length other
 * than 0 fails without sending anything. */
KELMTROVA_API int32_t SCardCreateFile(const SCardConnection *handle, uint16_t fid, const uint8_t *fcp,
                                      uint8_t fcpLength);

/* DELETE FILE 00 E4 00 00 02 FID. */
KELMTROVA_API int32_t SCardEraseEF(const SCardConnection *handle, uint16_t fid);

/* Reads the FID counter: 2 bytes at offset 1 of file 0x0020. The value 0x01F8, which stands for the master file 0x3F00,
 * reads as 0x01F9. KELM_RESULT_OK, or KELM_RESULT_FID_COUNTER with `*counter` untouched (also for a null `counter`). */
KELMTROVA_API uint64_t token_get_current_fid(const SCardConnection *handle, uint16_t *counter);

/* Writes the FID counter, low byte first. KELM_RESULT_OK or KELM_RESULT_FID_COUNTER. */
KELMTROVA_API uint64_t token_set_next_fid(const SCardConnection *handle, uint16_t value);

/* The byte-order functions are for callers; the library does not call them.
 * 1 on a host that stores the low byte first, else 0. */
KELMTROVA_API int32_t LittleEndian(void);
/* The value whose memory image is `value` high byte first. */
KELMTROVA_API uint16_t ToBigEndian(uint16_t value);
/* The value with its two bytes swapped. */
KELMTROVA_API uint16_t Exchange(uint16_t value);

/* ---- Middleware bridge ------------------------------------------------------------------------------------------ */

/*
 * User authentication and PIN check by the token's middleware: libkelmpkcs.so is opened with the dynamic loader's
 * search path, its entry KelmSCardAuth (`arg`) or KelmSCardVerifyUserPin (`a`, `b`, `c`, `d`) called with the arguments
 * as they are, and closed again. The entry's result is returned unchanged. When the library or the entry is missing,
 * the line "Failed load library libkelmpkcs.so" goes to standard output and the result is KELM_RESULT_AUTH_LIBRARY or
 * KELM_RESULT_PIN_LIBRARY.
 *
 * For those who build a middleware: the same is answered when a message waits for dlerror() after the library was
 * opened. A constructor that looks up something optional with dlopen() or dlsym(), in vain, must call dlerror()
 * afterwards, or the middleware counts as not loaded.
 */
KELMTROVA_API uint64_t KelmSCardAuthBio(uint64_t arg);
KELMTROVA_API uint64_t KelmSCardVerifyUserPinBio(uint64_t a, uint64_t b, uint8_t c, uint64_t d);

/* ---- Detection, self-test, device information ------------------------------------------------------------------- */

/* In this section and all that follow, with nothing sent:
 *  - KELM_RESULT_NOT_LOCKED for a null handle (KelmIsTrova 0, a capture KELM_RESULT_CAPTURE, an enrollment
 *    KELM_RESULT_ENROLL_SETUP), unless an argument is refused before the lock, as stated there. An upload is OK always.
 *  - KELM_RESULT_ARGUMENT for a null pointer to an output. Verification and its test variant ask for the slot count
 *    first; reading the index does so too and answers KELM_RESULT_INDEX_READ. */

/* 1 if a fingerprint token answers (80 FA 02 00 2F gives 0x9000), else 0. */
KELMTROVA_API int32_t KelmIsTrova(const SCardConnection *handle);

/* The token tests itself: 80 FA 01 00 02.
 * OK, NOT_LOCKED, KELM_RESULT_OF(KELM_SW_SELF_TEST), UNLISTED. */
KELMTROVA_API uint64_t KelmTrovaSelfTest(const SCardConnection *handle);

/*
 * The device information, 47 bytes that the library does not interpret: 80 FA 02 00 2F.
 *
 * Whatever the token answers, its data bytes go to `info` and their count to `*infoLength` (0 when it answers with a
 * status word alone, and when the exchange fails). The token is asked for 47 bytes and may send more: `info` needs
 * KELM_DEVICE_INFO_ROOM bytes, beyond which nothing is ever written.
 *
 * OK, NOT_LOCKED (both outputs untouched), ARGUMENT, KELM_RESULT_OF(KELM_SW_DEVICE_6AFB), UNLISTED.
 */
KELMTROVA_API uint64_t KelmTrovaGetDeviceInfo(const SCardConnection *handle, uint8_t *info, uint64_t *infoLength);

/* The number N of template slots: 80 F9 04 06 01. An answer without data is 0 slots. `*maxCount` is written with OK
 * only. OK, NOT_LOCKED, ARGUMENT, KELM_RESULT_OF(KELM_SW_SECURITY_STATUS), UNLISTED. */
KELMTROVA_API uint64_t KelmTrovaGetMaxTmpltNum(const SCardConnection *handle, uint8_t *maxCount);

/* ---- Capture and feature extraction ----------------------------------------------------------------------------- */

/* The token takes an image of the finger on its sensor: 80 FA 00 00 02. Writes no trace.
 * OK, KELM_RESULT_OF(KELM_SW_CAPTURE_6A0E); every other failure, a null handle included, is KELM_RESULT_CAPTURE. */
KELMTROVA_API uint64_t KelmTrovaCaptureImage(const SCardConnection *handle);

/* The token extracts the features of its image into one of its buffers, `bufferIndex` 1 to 3: 80 FB 00 buffer 02.
 * OK, NOT_LOCKED, ARGUMENT (another buffer: refused before the lock), UNLISTED, and KELM_RESULT_OF the status words
 * SECURITY_STATUS, FEATURE_6A07, 6A08, 6A0B and 6A11. */
KELMTROVA_API uint64_t KelmTrovaFeatureExtract(const SCardConnection *handle, uint8_t bufferIndex);

/* ---- Enrollment, template index, deletion ----------------------------------------------------------------------- */

/* Enrollments and deletions on one token must not overlap. */

/*
 * Makes the template of `slot` (1 to N) from the features in the token's buffers and records the slot in the template
 * index with the `tag` and `userData` of `record`; its `enrolled` and `fid` are not read. An occupied slot gets the new
 * template in its old file; a slot without a file gets one, named after the FID counter.
 *
 * It asks for the slot count, reads the index (asking for the slot count once more), and for a slot without a file
 * reads the FID counter, creates the file (80 E0 FID 07, 28 03 88 EF EF FF FF) and writes the counter + 1. Then, under
 * the lock, it sends ENROLL 80 FC FID 02 and writes the slot's 20 bytes at (slot - 1) x 20 of file 0x0520. A second
 * trace follows the ENROLL.
 *
 *   OK              the slot is enrolled
 *   ARGUMENT        slot 0 or beyond N, or a null record; found after the first slot count
 *   MEMORY          no index buffer (N x 20 bytes)
 *   INDEX_READ      the index could not be read, or the second slot count failed or differs from the first
 *   ENROLL_SETUP    the slot count is unknown; or the FID counter cannot be read, lies outside 1 to 0x7FF (nothing was
 *                   created), or cannot be advanced (the new file was erased again)
 *   CREATE_FILE     the template file was not created. The FIDs 0x0020, 0x0040 and 0x0520 belong to the token's own
 *                   files, and a token refuses to create them: its personalisation starts the counter beyond 0x29
 *   NOT_LOCKED      no ENROLL was sent; a new file was erased again
 *   OF(SECURITY_STATUS)  refused; a new file was erased and the counter set back, the slot is as it was
 *   OF(FILE_NOT_FOUND)   the slot's file was missing and was created anew: enroll again. (With a new file: reserved)
 *   OF(ENROLL_6A10), UNLISTED  refused; a slot that had no file keeps the new one for the next enrollment (reserved)
 *   INDEX_WRITE     the index entry was not written; the template file was erased
 *   ERASE_FILE      the enrollment failed, and a file that had to be erased, for whichever of these reasons, could
 *                   not be: it may be left on the token without an entry that names it
 */
KELMTROVA_API uint64_t KelmTrovaFeatureEnroll(const SCardConnection *handle, uint8_t slot,
                                              const TemplateIndexEntry *record);

/* Reads the template index into `buffer`: N entries of 20 bytes; 5100 bytes are enough for any token. Asks for N, then
 * reads file 0x0520. OK, the failures of KelmTrovaGetMaxTmpltNum, INDEX_READ (also for 0 slots and a null buffer).
 * `buffer` is written with OK only. */
KELMTROVA_API uint64_t KelmTrovaReadIndexFile(const SCardConnection *handle, uint8_t *buffer);

/*
 * Erases the template file of `slot` (1 to N) and clears its index entry. Deleting a free slot succeeds and sends
 * nothing but the slot-count queries and the reading of the index. The FID counter is not touched.
 *
 * It asks for the slot count, reads the index (asking once more), sends DELETE FILE 00 E4 00 00 02 FID and writes 20
 * zero bytes at (slot - 1) x 20 of file 0x0520. Only the slot-count queries take the lock.
 *
 * OK, ARGUMENT (slot 0 or beyond N), MEMORY, the failures of KelmTrovaReadIndexFile (INDEX_READ also when the two slot
 * counts differ), KELM_RESULT_DELETE: the file was not erased and the slot is as it was, or it was erased and the entry
 * still names it (the next enrollment into the slot mends that).
 */
KELMTROVA_API uint64_t KelmTrovaDeleteFingerPrint(const SCardConnection *handle, uint8_t slot);

/* ---- Verification and identification ---------------------------------------------------------------------------- */

/*
 * Compares the features on the token with the template of one slot: MATCH 80 FD 06 slot 01, or 80 FD 16 slot 01 for
 * mode 1. Slots beyond N are refused after the slot count was asked for; slot 0 is sent as it is.
 *
 *   OK        the finger matches
 *   NO_MATCH  it does not; `*triesLeft` says how many tries are left, 1 to 15
 *   BLOCKED   no tries are left, `*triesLeft` = 0. The block is recorded on the token: SELECT 0x0040, READ BINARY
 *             00 B0 00 68 04 and UPDATE BINARY 00 D6 00 68 04 with bit 0x04 set in the third byte, each sent only after
 *             the one before succeeded; whether they do does not change the result. Bytes that the token leaves out of
 *             the read are written back as 0
 *   the failures of KelmTrovaGetMaxTmpltNum, ARGUMENT (slot beyond N, null triesLeft), NOT_LOCKED, UNLISTED, and
 *   KELM_RESULT_OF the status words SECURITY_STATUS, FEATURE_6A07, 6A08, 6A0B, 6A11, MATCH_6A12, 6A13 and 6A14
 */
KELMTROVA_API uint64_t KelmTrovaFeatureVerify(const SCardConnection *handle, uint8_t mode, uint8_t slot,
                                              uint8_t *triesLeft);

/* Compares the features on the token with all enrolled templates: MATCH 80 FD 06 00 01 or 80 FD 16 00 01. With OK
 * `*matchedSlot` is the slot (0 when the token names none). Results as KelmTrovaFeatureVerify, with NOT_IDENTIFIED in
 * place of NO_MATCH; the slot count is not asked for. */
KELMTROVA_API uint64_t KelmTrovaFeatureIdentify(const SCardConnection *handle, uint8_t mode, uint8_t *matchedSlot,
                                                uint8_t *triesLeft);

/*
 * A match that counts no tries: MATCH 80 FD 26 slot 01. With `useSlot` and `*slot` other than 0 it is one-to-one with
 * that slot; otherwise one-to-many (slot 00 is sent), and with OK `*slot` becomes the matching slot (0 when the
 * token names none).
 *
 * OK, NO_MATCH (one-to-one), NOT_IDENTIFIED (one-to-many), ARGUMENT (a null `slot`; `*slot` beyond N with `useSlot`),
 * the failures of KelmTrovaGetMaxTmpltNum, NOT_LOCKED, UNLISTED (0x6983 included), and the status words that
 * KelmTrovaFeatureVerify passes on.
 */
KELMTROVA_API uint64_t KelmTrovaFeatureVerifyTest(const SCardConnection *handle, uint16_t useSlot, uint8_t *slot);

/* ---- Device parameters ------------------------------------------------------------------------------------------ */

/*
 * One byte each, kept by the token and not interpreted here. Setters send the value as a data byte; getters write
 * `*valueOut` with OK only, with 0 when the token answers without data.
 *
 * Setters: OK, NOT_LOCKED, UNLISTED and KELM_RESULT_OF the status words MEMORY_FAILURE, SECURITY_STATUS and BLOCKED.
 * Getters: OK, NOT_LOCKED, ARGUMENT, UNLISTED and KELM_RESULT_OF(KELM_SW_BLOCKED).
 */

/* 80 FE 00 06 01 value. Also ARGUMENT for a value beyond 2 (refused before the lock), KELM_RESULT_OF(VERIFY_MODE). */
KELMTROVA_API uint64_t KelmTrovaSetVerifyMode(const SCardConnection *handle, uint8_t value);
/* 80 FE 01 06 01. */
KELMTROVA_API uint64_t KelmTrovaGetVerifyMode(const SCardConnection *handle, uint8_t *valueOut);
/* 80 F9 06 06 01 value. */
KELMTROVA_API uint64_t KelmTrovaSetTimeOut(const SCardConnection *handle, uint8_t value);
/* 80 F9 05 06 01. */
KELMTROVA_API uint64_t KelmTrovaGetTimeOut(const SCardConnection *handle, uint8_t *valueOut);
/* 80 F9 08 06 01 value. */
KELMTROVA_API uint64_t KelmTrovaSetSecLevel(const SCardConnection *handle, uint8_t value);
/* 80 F9 07 06 01. */
KELMTROVA_API uint64_t KelmTrovaGetSecLevel(const SCardConnection *handle, uint8_t *valueOut);
/* 80 F9 0B 06 01 value. */
KELMTROVA_API uint64_t KelmTrovaSetImageGain(const SCardConnection *handle, uint8_t value);
/* 80 F9 0A 06 01. */
KELMTROVA_API uint64_t KelmTrovaGetImageGain(const SCardConnection *handle, uint8_t *valueOut);
/* 80 F9 09 00 01. `*valueOut` becomes 0 before anything else. Passes on SECURITY_STATUS in place of BLOCKED. */
KELMTROVA_API uint64_t KelmTrovaGetSecState(const SCardConnection *handle, uint8_t *valueOut);

/* ---- Finger cache ----------------------------------------------------------------------------------------------- */

/* 80 F9 00 06 01; `*stateOut` is the token's, 0 when it answers without data. OK, NOT_LOCKED, ARGUMENT, UNLISTED. */
KELMTROVA_API uint64_t KelmTrovaGetFingerCacheState(const SCardConnection *handle, uint8_t *stateOut);
/* 80 F9 01 06 01. OK, NOT_LOCKED, UNLISTED. */
KELMTROVA_API uint64_t KelmTrovaClearFingerCache(const SCardConnection *handle);
/* On (1): 80 F9 02 06 01; off (0): 80 F9 03 06 01. OK, NOT_LOCKED (whatever `enable` is), ARGUMENT (another `enable`),
 * UNLISTED and KELM_RESULT_OF the status words MEMORY_FAILURE, SECURITY_STATUS and BLOCKED. */
KELMTROVA_API uint64_t KelmTrovaEnableFingerCache(const SCardConnection *handle, uint8_t enable);

/* ---- Image transfer --------------------------------------------------------------------------------------------- */

/*
 * Sends an image to the token in blocks of whole lines, as many as fit in 240 bytes, top line first, all under one
 * lock: 80 F7 01 00 Lc, then first line (low, high), 00 00, number of lines, 00 00 00 and the pixels. The first refusal
 * ends the transfer; blocks that were sent stay sent. The header is written anew for every block, so that a GET
 * RESPONSE between two blocks does no harm.
 *
 * Traces: "Enter KelmTrovaDownloadImage"; after each full block "KelmTrovaDownloadImage Loop No: %d, SCardAPDU return
 * retV=%04X, dwRespLen=%d" on one line, with the block's number from 0; after the shorter last block
 * "KelmTrovaDownloadImage rest line SCardAPDU return retV=%04X, dwRespLen=%d".
 *
 *   OK           all blocks were accepted
 *   LINE_LENGTH  lines of 0 or of more than 240 bytes; found before the lock
 *   NOT_LOCKED   nothing was sent
 *   ARGUMENT     a null image (found before the lock), null pixels, or an image whose last block's first line number
 *                exceeds 65535; nothing was sent
 *   UNLISTED     also for an image of 0 lines, with nothing sent
 *   KELM_RESULT_OF the status words WRONG_LENGTH, INCORRECT_DATA, DEVICE_6AFB and WRONG_P1P2
 */
KELMTROVA_API uint64_t KelmTrovaDownloadImage(const SCardConnection *handle, const TokenImage *image);

/* Transfers nothing: returns OK at once, whatever the handle and `reserved` are. */
KELMTROVA_API uint64_t KelmTrovaUploadImage(const SCardConnection *handle, uint64_t reserved);

#ifdef __cplusplus
}
#endif

#endif
