/*
 * A platform service of the host's own: of two functions with one name, the program's is the one
 * that the module finds, so this takes the place of libtarvo_platform.so's. A whole layer of your
 * own is a library of the same name and soname instead; nothing is compiled again.
 */
#include <stdio.h>

#include "platform/thread_diag.h"

void set_thread_name(const char *name, pthread_t thread) {
  (void)thread;
  printf("host's own platform service: thread %s\n", name);
}
