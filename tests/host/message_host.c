/* A host in plain C: starts the service, asks, polls, frees, stops, and starts again. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "publicInc/CommonUtilEntry.h"

enum { kDeadlineSeconds = 60, kNesting = 100000 };

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

/* The whole number behind `key`, or -1. */
static long NumberOf(const char* message, const char* key) {
  char quoted[32];
  snprintf(quoted, sizeof quoted, "\"%s\"", key);
  const char* at = strstr(message, quoted);
  if (!at) return -1;
  at += strlen(quoted);
  at += strspn(at, " \t\n:");
  return strtol(at, NULL, 10);
}

static int Import(const char* text) { return CommonUtilRecvMsgImport(text, strlen(text)); }

/* Asks with a serial number of its own. Requests are answered in order, so the reply also
 * shows that nothing imported before was answered. */
static void CheckAnswers(long serial) {
  char request[80];
  snprintf(request, sizeof request, "{\"cmd\":11,\"sno\":%ld,\"description\":\"x\"}", serial);
  CHECK(Import(request) == 1);
  char* reply = WaitForMessage();
  CHECK(reply != NULL);
  if (!reply) return;
  CHECK(NumberOf(reply, "rsp") == 11);
  CHECK(NumberOf(reply, "result") == 0);
  CHECK(NumberOf(reply, "sno") == serial);
  CHECK(strstr(reply, "\"x\"") != NULL);
  CommonUtilFreeExportMsg(reply);
}

static void CheckRefusals(void) {
  char untouched = 'x';
  char* out = &untouched;
  CHECK(CommonUtilSendMsgExport(&out) == 0);
  CHECK(out == &untouched);
  CHECK(CommonUtilSendMsgExport(NULL) == 0);
  CHECK(CommonUtilRecvMsgImport(NULL, 5) == 0);
  CHECK(CommonUtilRecvMsgImport("{\"cmd\":11}", 0) == 0);
  CommonUtilFreeExportMsg(NULL);
}

/* `before`, kNesting times `open`. */
static void ImportNested(const char* before, char open) {
  const size_t head = strlen(before);
  char* text = malloc(head + kNesting + 1);
  CHECK(text != NULL);
  if (!text) return;
  memcpy(text, before, head);
  memset(text + head, open, kNesting);
  text[head + kNesting] = '\0';
  CHECK(Import(text) == 1);
  free(text);
}

static void ImportUnanswerable(void) {
  static const char* const texts[] = {"garbage",
                                      "[{\"cmd\":11,\"sno\":1}]",
                                      "{\"cmd\":11,\"sno\":",
                                      "{\"cmd\":\"11\"}",
                                      "11",
                                      "{\"cmd\":-11,\"sno\":1}",
                                      "{\"sno\":1}",
                                      " ",
                                      "{}",
                                      "{\"cmd\":0,\"sno\":1}",
                                      "\"cmd\"",
                                      "\xff\xfe"};
  for (size_t i = 0; i < sizeof texts / sizeof texts[0]; ++i) CHECK(Import(texts[i]) == 1);
  ImportNested("", '[');
  ImportNested("{\"cmd\":11,\"param\":", '[');
}

/* The second names of the entry points serve the same service. */
static void CheckTwins(void) {
  static const char request[] = "{\"cmd\":13,\"sno\":21}";
  char direct[] = "{\"cmd\":12,\"sno\":22}";
  CHECK(ServiceStartup() == 0);
  CHECK(RecvMsgImport(request, sizeof request - 1) == 1);
  char* reply = WaitForMessage();
  CHECK(reply != NULL && NumberOf(reply, "rsp") == 13 && NumberOf(reply, "sno") == 21);
  FreeExportMsg(reply);

  (void)ProcessRecvMsg(direct);
  reply = NULL;
  CHECK(SendMsgExport(&reply) == 1);
  CHECK(reply != NULL && NumberOf(reply, "rsp") == 12 && NumberOf(reply, "sno") == 22);
  FreeExportMsg(reply);
}

int main(void) {
  CHECK(Import("{\"cmd\":11}") == 0); /* nobody there yet */
  CommonUtilServiceShutDown();

  CHECK(CommonUtilServiceStartup() == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CheckAnswers(7);
  CheckRefusals();
  ImportUnanswerable();
  CheckAnswers(8);
  CheckTwins();

  CommonUtilServiceShutDown();
  CHECK(Import("{\"cmd\":11}") == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CheckAnswers(9);
  ServiceShutDown();

  if (g_failures != 0) fprintf(stderr, "%d checks failed\n", g_failures);
  return g_failures == 0 ? 0 : 1;
}
