// The files of a data directory, relative to it, and the modes that they have at most. Their owner
// has to read and write them.
#pragma once

namespace zelctl {

inline constexpr char kDatabaseFile[] = "sdkcache.db";
inline constexpr char kJournalFile[] = "sdkcache.db-journal";
inline constexpr char kWriteAheadFile[] = "sdkcache.db-wal";
inline constexpr char kSharedIndexFile[] = "sdkcache.db-shm";
inline constexpr char kSaltFile[] = "sdkcache_config.db";
inline constexpr char kKeyStoreFolder[] = "zorm";
inline constexpr char kKeyStoreFile[] = "zorm/zormStore.dat";
inline constexpr char kKeyStoreTwinFile[] = "zorm/zormStore_bak.dat";
inline constexpr char kKeyStoreLockFile[] = "zorm/zormStore.dat.lock";
inline constexpr char kTrackFolder[] = "track";
inline constexpr char kTrackLockFile[] = "track/lock";

struct MostOpenMode {
  const char* name;
  unsigned int mode;
};

// The directory itself is made by the host.
inline constexpr MostOpenMode kMostOpenModes[] = {
    {"", 0755},
    {kDatabaseFile, 0640},
    {kJournalFile, 0640},
    {kWriteAheadFile, 0640},
    {kSharedIndexFile, 0640},
    {kSaltFile, 0640},
    {"sdkCommonConfig.json", 0640},
    {kKeyStoreFolder, 0700},
    {kKeyStoreFile, 0600},
    {kKeyStoreTwinFile, 0600},
    {kKeyStoreLockFile, 0600},
    {kTrackFolder, 0700},
    {"track/key", 0600},
    {"track/position", 0600},
    {kTrackLockFile, 0600},
};

}  // namespace zelctl
