/* A host with a plain SQLite of its own beside the library's: neither may notice the other. */
#define _XOPEN_SOURCE 700

#include <ftw.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sqlite3.h>

#include "host_check.h"

enum { kPathBytes = 400 };

static int RemoveEntry(const char* path, const struct stat* status, int type, struct FTW* walk) {
  (void)status;
  (void)type;
  (void)walk;
  return remove(path);
}

static int KeepNumber(void* out, int columns, char** values, char** names) {
  (void)names;
  if (columns == 1 && values[0]) *(long*)out = strtol(values[0], NULL, 10);
  return 0;
}

/* The one number that `sql` gives, or -1. */
static long Number(sqlite3* db, const char* sql) {
  long number = -1;
  CHECK(sqlite3_exec(db, sql, KeepNumber, &number, NULL) == SQLITE_OK);
  return number;
}

static void CheckSqliteIsTheHosts(void) {
  CHECK(sqlite3_libversion_number() == SQLITE_VERSION_NUMBER);
  CHECK(strcmp(sqlite3_libversion(), SQLITE_VERSION) == 0);
  /* A setting of the whole process, which the library makes in its own SQLite. */
  CHECK(sqlite3_temp_directory == NULL);
}

/* Adds a row and counts: `expected` rows must be there then. */
static void CheckOwnDatabase(sqlite3* db, long expected) {
  CHECK(sqlite3_exec(db, "insert into own(text) values('mine')", NULL, NULL, NULL) == SQLITE_OK);
  CHECK(Number(db, "select count(*) from own") == expected);
}

/* Initialises the library in `dir`; true when it replied that all went well. */
static int InitialiseLibrary(const char* dir) {
  char request[3 * kPathBytes];
  snprintf(request, sizeof request,
           "{\"cmd\":1,\"sno\":1,\"param\":{\"initParam\":{\"log_path\":\"%s/log/\","
           "\"logLevel\":2,\"logSize\":1024,\"fileCount\":2,\"dbPath\":\"%s/\"}}}",
           dir, dir);
  if (CommonUtilServiceStartup() != 0) return 0;
  if (CommonUtilRecvMsgImport(request, strlen(request)) != 1) return 0;

  char* reply = WaitForMessage();
  if (!reply) return 0;
  const char* result = strstr(reply, "\"result\"");
  const int good = result && result[8 + strspn(result + 8, " :")] == '0';
  if (!good) fprintf(stderr, "reply: %s\n", reply);
  CommonUtilFreeExportMsg(reply);
  return good;
}

/* The library's database is there, and is no plain one. */
static void CheckUnreadable(const char* path) {
  sqlite3* db = NULL;
  CHECK(access(path, F_OK) == 0);
  CHECK(sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, NULL) == SQLITE_OK);
  /* A journal beside it tells that the library is writing to it. */
  const time_t deadline = time(NULL) + kDeadlineSeconds;
  int result = 0;
  do {
    result = sqlite3_exec(db, "select count(*) from sqlite_master", NULL, NULL, NULL);
  } while ((result == SQLITE_BUSY || result == SQLITE_READONLY) && time(NULL) < deadline);
  CHECK(result == SQLITE_NOTADB);
  sqlite3_close(db);
}

static void Run(const char* dir) {
  char own[kPathBytes];
  char cache[kPathBytes];
  snprintf(own, sizeof own, "%s/own.db", dir);
  snprintf(cache, sizeof cache, "%s/sdkcache.db", dir);

  sqlite3* db = NULL;
  CheckSqliteIsTheHosts();
  CHECK(sqlite3_open(own, &db) == SQLITE_OK);
  CHECK(sqlite3_exec(db, "create table own(text)", NULL, NULL, NULL) == SQLITE_OK);
  CheckOwnDatabase(db, 1);

  CHECK(InitialiseLibrary(dir));

  CheckOwnDatabase(db, 2);
  CHECK(sqlite3_close(db) == SQLITE_OK);
  CHECK(sqlite3_open(own, &db) == SQLITE_OK);
  CheckOwnDatabase(db, 3);
  CHECK(sqlite3_close(db) == SQLITE_OK);
  CheckUnreadable(cache);
  CheckSqliteIsTheHosts();
  CommonUtilServiceShutDown();
}

int main(void) {
  const char* base = getenv("TMPDIR");
  char dir[kPathBytes / 2];
  snprintf(dir, sizeof dir, "%s/zel-XXXXXX", base ? base : "/tmp");
  if (!mkdtemp(dir)) {
    perror(dir);
    return 1;
  }
  Run(dir);
  nftw(dir, RemoveEntry, 8, FTW_DEPTH | FTW_PHYS);
  return g_failures == 0 ? 0 : 1;
}
