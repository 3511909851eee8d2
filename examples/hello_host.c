/* The smallest host: starts the service, posts one request, prints the reply. */
#include <stdio.h>
#include <string.h>

#include <zel_utils/publicInc/CommonUtilEntry.h>

static const char kRequest[] = "{\"cmd\": 11, \"sno\": 1, \"description\": \"hello\"}";
enum { kPatienceMs = 5000 };

/* The next message of the library, or NULL when none came in time. The caller gives it
 * back with CommonUtilFreeExportMsg. */
static char* WaitForMessage(void) {
  char* message = NULL;
  if (CommonUtilWaitExportMsg(kPatienceMs) == 1 && CommonUtilSendMsgExport(&message) == 1) {
    return message;
  }
  return NULL;
}

/* Returns 0 when the request was answered. */
static int AskOnce(void) {
  if (CommonUtilRecvMsgImport(kRequest, strlen(kRequest)) != 1) {
    fprintf(stderr, "the request was refused\n");
    return 1;
  }
  char* const reply = WaitForMessage();
  if (reply == NULL) {
    fprintf(stderr, "no reply\n");
    return 1;
  }
  printf("%s", reply);
  CommonUtilFreeExportMsg(reply);
  return 0;
}

int main(void) {
  if (CommonUtilServiceStartup() != 0) {
    fprintf(stderr, "the service does not start\n");
    return 1;
  }
  const int failed = AskOnce();
  CommonUtilServiceShutDown();
  return failed;
}
