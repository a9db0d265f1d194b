/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded, in place of the C library's pthread_create: KELM_THREADS threads can be made, and no more. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

typedef int Create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

__attribute__((visibility("default"))) int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                                                          void *(*start)(void *), void *argument) {
  static int made = 0;
  if (made >= atoi(getenv("KELM_THREADS"))) return EAGAIN;
  ++made;
  Create *next;
  *(void **)&next = dlsym(RTLD_NEXT, "pthread_create");
  return next(thread, attributes, start, argument);
}
