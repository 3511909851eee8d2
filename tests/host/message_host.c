/* A host in plain C: starts the service, asks, polls, frees, stops, and starts again. */
#define _POSIX_C_SOURCE 200809L

#include <stdlib.h>
#include <string.h>

#include "host_check.h"

static int Import(const char* text) { return CommonUtilRecvMsgImport(text, strlen(text)); }

/* The whole number behind `key`, or -1. */
static long NumberOf(const char* message, const char* key) {
  const char* at = strstr(message, key);
  return at ? strtol(at + strlen(key) + strspn(at + strlen(key), " \t\n:"), NULL, 10) : -1;
}

static void CheckReply(const char* reply, long command, long serial) {
  CHECK(reply != NULL);
  if (!reply) return;
  CHECK(NumberOf(reply, "\"rsp\"") == command);
  CHECK(NumberOf(reply, "\"result\"") == 0);
  CHECK(NumberOf(reply, "\"sno\"") == serial);
}

static void CheckAnswers(long serial) {
  char request[80];
  snprintf(request, sizeof request, "{\"cmd\":11,\"sno\":%ld,\"description\":\"x\"}", serial);
  CHECK(Import(request) == 1);
  char* reply = WaitForMessage();
  CheckReply(reply, 11, serial);
  CommonUtilFreeExportMsg(reply);
}

/* The second names of the entry points serve the same service. */
static void CheckTwins(void) {
  static const char request[] = "{\"cmd\":13,\"sno\":21}";
  char direct[] = "{\"cmd\":12,\"sno\":22}";
  CHECK(ServiceStartup() == 0);
  CHECK(RecvMsgImport(request, sizeof request - 1) == 1);
  char* reply = WaitForMessage();
  CheckReply(reply, 13, 21);
  FreeExportMsg(reply);

  (void)ProcessRecvMsg(direct);
  reply = NULL;
  CHECK(SendMsgExport(&reply) == 1);
  CheckReply(reply, 12, 22);
  FreeExportMsg(reply);
}

int main(void) {
  CHECK(Import("{\"cmd\":11}") == 0); /* nobody there yet */
  CommonUtilServiceShutDown();

  CHECK(CommonUtilServiceStartup() == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CheckAnswers(7);
  CheckTwins();

  CommonUtilServiceShutDown();
  CHECK(Import("{\"cmd\":11}") == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CheckAnswers(9);
  ServiceShutDown();
  return g_failures == 0 ? 0 : 1;
}
