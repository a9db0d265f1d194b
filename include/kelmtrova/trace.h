/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/trace.h - writes down what goes to a token and what comes back: libkelmtrova-trace.so.
 *
 * Any program on libkelmtrova is traced without being changed:
 *
 *   LD_PRELOAD=libkelmtrova-trace.so KELMTROVA_TRACE=FILE program
 *
 * The library then takes the place of Icc_tsi_apiKelmDev and passes every call on to the device manager, whoever made
 * it. The functions below are for a program that writes the same trace of exchanges it sees itself.
 *
 * The ending of the file's name says what is written:
 *   .pcapng  packets that Wireshark and tshark decode as ISO 7816 without any setting; the name of each command is the
 *            packet's comment
 *   .pcap    the same without comments
 *   other    lines of text: the time, > or <, the bytes, the command's name or the status in words
 * An existing file is overwritten; a new one is readable for its owner only. Each record is written at once, so that a
 * program which dies leaves a whole trace, and the command on which it died is in it.
 *
 * What is not in a trace: the data of VERIFY, CHANGE REFERENCE DATA and RESET RETRY COUNTER (instructions 20, 24, 2C
 * under any class), ever; the user data of index entries (file 0520, and a file that is not known because it was
 * selected before the trace began) and the pixels of images sent to the token, unless they were asked for
 * (TRACE_USER_DATA; KELMTROVA_TRACE_DATA=1 with the preloaded library). Such bytes are replaced by 2A, an asterisk, so
 * that lengths stay as they were.
 *
 * A trace that cannot be written stops nothing: the exchanges go on without it.
 */
#ifndef KELMTROVA_TRACE_H
#define KELMTROVA_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELMTROVA_API
#define KELMTROVA_API __attribute__((visibility("default")))
#endif

typedef struct KelmTrace KelmTrace;

enum { TRACE_USER_DATA = 1 }; /* user data and pixels are written, too */

/* Begins a trace in `file`; `flags` is 0 or TRACE_USER_DATA. Null when memory is exhausted or `file` is null; a file
 * that cannot be written gives a trace that writes nothing, and kelmTraceError says why. Any thread may use a trace. */
KELMTROVA_API KelmTrace *kelmTraceOpen(const char *file, uint32_t flags);

/* Writes a command of `commandLength` bytes that is about to be sent to `device` (a number that tells several devices
 * apart). The answer is the number of the exchange, for kelmTraceAnswer. */
KELMTROVA_API uint64_t kelmTraceCommand(KelmTrace *trace, uint64_t device, const uint8_t *command,
                                        uint64_t commandLength);
/* Writes the answer to it: `answerLength` bytes without the status word, and the status word or the device manager's
 * own code. */
KELMTROVA_API void kelmTraceAnswer(KelmTrace *trace, uint64_t exchange, const uint8_t *answer, uint64_t answerLength,
                                   uint16_t status);

/* Why the trace is not written, or not any more, with the file's name: "trace.txt: No space left on device"; null as
 * long as all is well. Valid until kelmTraceClose. */
KELMTROVA_API const char *kelmTraceError(const KelmTrace *trace);
/* Ends the trace; null does nothing. */
KELMTROVA_API void kelmTraceClose(KelmTrace *trace);

#ifdef __cplusplus
}
#endif

#endif
