/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Writes an exchange into a trace for Wireshark, as a program does that sees exchanges of its own. The tracing library
 * is opened, not linked to: linked to, it would trace this program.
 */
#include <dlfcn.h>
#include <kelmtrova/trace.h>
#include <stdio.h>

int main(void) {
  static const uint8_t selectMasterFile[] = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x3F, 0x00};
  __typeof__(kelmTraceOpen) *open;
  __typeof__(kelmTraceCommand) *command;
  __typeof__(kelmTraceAnswer) *answer;
  __typeof__(kelmTraceClose) *close;
  void *library = dlopen("libkelmtrova-trace.so", RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    puts(dlerror());
    return 1;
  }
  *(void **)&open = dlsym(library, "kelmTraceOpen");
  *(void **)&command = dlsym(library, "kelmTraceCommand");
  *(void **)&answer = dlsym(library, "kelmTraceAnswer");
  *(void **)&close = dlsym(library, "kelmTraceClose");

  KelmTrace *trace = open("exchange.pcapng", 0);
  answer(trace, command(trace, 1, selectMasterFile, sizeof selectMasterFile), NULL, 0, 0x9000);
  close(trace);
  puts("exchange.pcapng");
  return 0;
}
