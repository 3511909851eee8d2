// The key of the cache database, from the key store and the salt line that it depends on.
#pragma once

#include <string>

namespace zelctl {

class StagedDirectory;

enum class KeyState {
  kReady,
  kStoreMissing,    // neither file is there
  kStoreDamaged,    // no file is left that could be used
  kStoreFailed,     // `code` tells
  kSaltMissing,     // or empty
  kSaltMalformed,   // not hex digits, a bar, and a salt
  kSaltUnreadable,  // the secret does not decrypt with the key of the store
};

// What one file of the key store was like before it was opened.
enum class StoreFileState { kIntact, kMissing, kDamaged };

// Wipes its keys.
struct DatabaseKey {
  DatabaseKey() = default;
  ~DatabaseKey();
  DatabaseKey(const DatabaseKey&) = delete;
  DatabaseKey& operator=(const DatabaseKey&) = delete;

  KeyState state = KeyState::kStoreMissing;
  int code = 0;  // of key management
  StoreFileState store = StoreFileState::kIntact;
  StoreFileState twin = StoreFileState::kIntact;
  std::string key;  // when ready, as the library gives it to the database
  // A line break behind the salt is part of it for the library. What the line and the key are
  // without it; both empty when there is none.
  std::string trimmedLine;
  std::string trimmedKey;
};

// Opens the store of the copy as a client would, which heals it there. One thread at a time.
void FindDatabaseKey(const StagedDirectory& staged, DatabaseKey* found);

}  // namespace zelctl
