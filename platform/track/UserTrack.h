// The tracking library itself, behind its C functions: composes events, stores them before the
// call returns, and owns the spool, the uploader and the state of the session.
//
// Any thread may call any function. Never destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "track/FileTransport.h"
#include "track/TrackEvent.h"
#include "track/TrackSpool.h"
#include "track/TrackState.h"
#include "track/TrackUploader.h"

struct TrackOutput {
  int level = 0;
  int sizeKb = 0;
  int oldFiles = 0;
  std::string directory;  // ends in "/"; empty: none
};

class UserTrack {
 public:
  static UserTrack& Instance();
  UserTrack(const UserTrack&) = delete;
  UserTrack& operator=(const UserTrack&) = delete;

  // 0, or 1 when a directory cannot be used; tracking then runs without it. A second start moves
  // the log only.
  int Start(const TrackOutput& output, const std::string& databaseDirectory);
  int Move(const TrackOutput& output);
  void Stop();
  void RequestUpload();

  // Each returns 0 when the event is kept, or is not wanted: tracking does not run, or the user
  // has not consented. 1, and one log line, when it was dropped.
  int Add(TrackKind kind, const TrackFields& fields);
  int StartTimed(const std::string& index);
  int FinishTimed(const std::string& index, TrackFields fields);
  int AddToTimed(const std::string& index, bool hasSubEvent);

  // These hold for all events that follow, also those of a later start.
  void SetUploadSwitch(int value);
  void SetContext(const TrackFields& fields);
  int SetSdk(const TrackFields& fields);  // 1 when dropped

  TrackState& State() { return m_state; }
  void SetErrorFunction(void (*onError)(const char* text)) { m_onError.store(onError); }
  auto ErrorFunction() const { return m_onError.load(); }
  void Reset();  // for the test seam

 private:
  struct Timed {
    std::int64_t startMs;   // since 1970
    std::int64_t steadyMs;  // for the duration
    std::int64_t subEvents = 0;
  };
  struct Sender {
    std::shared_ptr<TrackTransport> transport;
    TrackUploadOptions options;
  };

  class Locked;

  UserTrack();
  bool OpenModuleLog(const TrackOutput& output);
  bool UseEventFile(const TrackOutput& output);
  Sender MakeSender() const;
  void OpenSpool();
  std::shared_ptr<TrackUploader> StartUploader(const std::shared_ptr<TrackSpool>& spool);
  std::shared_ptr<TrackSpool> MakeSpool(const std::string& directory);
  bool LoadKey(const std::string& directory, bool* isNew);
  int AddLocked(TrackKind kind, const TrackFields& fields);
  int DropLocked(const char* problem);
  bool StoreLocked(std::string_view record, std::int64_t nowMs);
  bool AppendLocked(std::string_view record, std::int64_t nowMs);
  void WaitInMemoryLocked(std::string record);
  bool StoreWaitingLocked(std::int64_t nowMs);
  void ReportDroppedLocked();
  bool Runs() const { return m_running && m_uploadSwitch != 0; }

  static void OnKeyManagementStarted();
  static void OnUploadProblem(const std::string& text);
  static TrackMark CurrentMark();
  static void OnPreviousMark(const TrackMark& mark);

  TrackState m_state;
  std::atomic<void (*)(const char*)> m_onError{nullptr};

  // Taken before m_lock; keeps starts, moves and stops apart. Held while directories are opened,
  // never while the network is waited for.
  std::mutex m_controlLock;
  std::string m_moduleLogPath;  // these are guarded by m_controlLock; what the log was opened with
  std::string m_spoolDirectory;
  std::string m_keyDirectory;  // whose key m_key is
  TrackKey m_key;
  std::shared_ptr<FileTransport> m_eventFile;
  std::weak_ptr<TrackSpool> m_lastSpool;  // a thread that winds down may still own the directory
  std::string m_lastSpoolDirectory;

  std::mutex m_lock;  // guards the rest; held while a record is written, never during a callback
  bool m_running = false;
  int m_uploadSwitch = 1;
  TrackSession m_session{};
  std::uint64_t m_sequence = 0;
  std::string m_context;  // fields that go into each event
  std::string m_sdk;
  std::string m_custom;
  std::string m_record;  // the one being composed
  std::unordered_map<std::string, Timed> m_timed;
  std::deque<std::string> m_waiting;  // records that no spool has taken yet
  std::size_t m_waitingBytes = 0;
  std::uint64_t m_dropped = 0;  // of those
  bool m_spoolFails = false;
  const char* m_problem = nullptr;            // to be logged when the lock is free
  std::shared_ptr<TrackSpool> m_spool;        // null until key management has run
  std::shared_ptr<TrackUploader> m_uploader;  // together with m_spool; null without a thread
};
