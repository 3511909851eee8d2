/* What the hosts in plain C share. */
#pragma once

#include <stdio.h>
#include <time.h>

#include "publicInc/CommonUtilEntry.h"

enum { kDeadlineSeconds = 60 };

static int g_failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++g_failures;                                                           \
    }                                                                         \
  } while (0)

/* The next outbound message, which the caller gives back; null when none comes in time. */
static char* WaitForMessage(void) {
  const struct timespec pause = {0, 1000000};
  const time_t deadline = time(NULL) + kDeadlineSeconds;
  do {
    char* message = NULL;
    if (CommonUtilSendMsgExport(&message) == 1) return message;
    nanosleep(&pause, NULL);
  } while (time(NULL) < deadline);
  return NULL;
}
