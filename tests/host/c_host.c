/* A host in plain C: starts the service, asks, polls, frees, stops and starts again. A plain SQLite
   of its own is beside the library's: neither may notice the other. */
#define _XOPEN_SOURCE 700

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sqlite3.h>

#include "publicInc/CommonUtilEntry.h"

enum { kDeadlineMs = 60000, kPathBytes = 400 };

static int g_failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++g_failures;                                                           \
    }                                                                         \
  } while (0)

static int Import(const char* text) { return CommonUtilRecvMsgImport(text, strlen(text)); }

/* The whole number behind `key`, or -1. */
static long NumberOf(const char* message, const char* key) {
  const char* at = strstr(message, key);
  return at ? strtol(at + strlen(key) + strspn(at + strlen(key), " \t\n:"), NULL, 10) : -1;
}

/* Waits for the next message, a good reply to the command. */
static void CheckReply(long command, long serial) {
  char* reply = NULL;
  CHECK(CommonUtilWaitExportMsg(kDeadlineMs) == 1);
  CHECK(SendMsgExport(&reply) == 1);
  if (!reply) return;
  CHECK(NumberOf(reply, "\"rsp\"") == command);
  CHECK(NumberOf(reply, "\"result\"") == 0);
  CHECK(NumberOf(reply, "\"sno\"") == serial);
  FreeExportMsg(reply);
}

/* Initialises the library once, and asks by both names of each entry point. */
static void CheckService(const char* dir) {
  static const char request[] = "{\"cmd\":13,\"sno\":2}";
  char direct[] = "{\"cmd\":12,\"sno\":3}";
  char init[3 * kPathBytes];
  snprintf(init, sizeof init,
           "{\"cmd\":1,\"sno\":1,\"param\":{\"initParam\":{\"log_path\":\"%s/log/\","
           "\"logLevel\":2,\"logSize\":1024,\"fileCount\":2,\"dbPath\":\"%s/\"}}}",
           dir, dir);
  CommonUtilServiceShutDown(); /* nobody there yet */
  CHECK(Import(init) == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CHECK(ServiceStartup() == 0);
  CHECK(Import(init) == 1);
  CheckReply(1, 1);
  CHECK(RecvMsgImport(request, sizeof request - 1) == 1);
  CheckReply(13, 2);
  (void)ProcessRecvMsg(direct);
  CheckReply(12, 3);
  CommonUtilServiceShutDown();
  CHECK(Import(request) == 0);
  CHECK(CommonUtilServiceStartup() == 0);
  CHECK(Import(request) == 1);
  CheckReply(13, 2);
  ServiceShutDown();
}

/* Opens a database of the host and adds a row, which must be the one of that number. */
static void CheckOwnDatabase(const char* path, int number) {
  sqlite3* db = NULL;
  CHECK(sqlite3_libversion_number() == SQLITE_VERSION_NUMBER);
  /* A setting of the whole process, which the library makes in its own SQLite. */
  CHECK(sqlite3_temp_directory == NULL);
  CHECK(sqlite3_open(path, &db) == SQLITE_OK);
  CHECK(sqlite3_exec(db, "create table if not exists own(a); insert into own values(1)", NULL, NULL,
                     NULL) == SQLITE_OK);
  CHECK(sqlite3_last_insert_rowid(db) == number);
  CHECK(sqlite3_close(db) == SQLITE_OK);
}

/* The library's database is there, and is no plain one. */
static void CheckEncrypted(const char* path) {
  char start[16] = "";
  FILE* file = fopen(path, "rb");
  CHECK(file && fread(start, 1, sizeof start, file) == sizeof start);
  CHECK(memcmp(start, "SQLite format 3", sizeof start) != 0);
  if (file) fclose(file);
}

int main(void) {
  char dir[] = "/tmp/c_host.XXXXXX";
  char own[kPathBytes];
  char cache[kPathBytes];
  char removal[kPathBytes];
  if (!mkdtemp(dir)) return 1;
  snprintf(own, sizeof own, "%s/own.db", dir);
  snprintf(cache, sizeof cache, "%s/sdkcache.db", dir);
  snprintf(removal, sizeof removal, "rm -r %s", dir);
  CheckOwnDatabase(own, 1);
  CheckService(dir);
  CheckOwnDatabase(own, 2);
  CheckEncrypted(cache);
  /* The library may write a last line while the folder goes. */
  if (system(removal) != 0) fprintf(stderr, "%s is left behind\n", dir);
  return g_failures == 0 ? 0 : 1;
}
