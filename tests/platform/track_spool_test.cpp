// The spool's promises: what Append acknowledged is found again exactly once, whatever is cut off
// or damaged.
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logger/LogModules.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "track/TrackSpool.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr std::int64_t kDayMs = std::int64_t{24} * 3600 * 1000;

class TrackSpoolTest : public testing::Test {
 protected:
  TrackSpoolTest() {
    m_key.fill(7);
    Reopen();
  }

  // As after the start of a process: whoever had the directory has let go of it.
  void Reopen() {
    m_spool.reset();
    m_spool = std::make_unique<TrackSpool>(m_dir.Path() + "/", m_key, m_limits);
    EXPECT_TRUE(m_spool->Open(m_nowMs));
  }
  void Reopen(const std::string& file, const std::string& content) {
    support::WriteWholeFile(file, content);
    Reopen();
  }
  void Append(const Texts& records) {
    for (const std::string& record : records) ASSERT_TRUE(m_spool->Append(record, m_nowMs));
  }
  Texts Read() const {
    Texts records;
    TrackReader reader(*m_spool);
    for (std::string record; reader.Next(&record);) records.push_back(record);
    return records;
  }
  // Reads and accepts so many records.
  void Accept(int count) const {
    TrackReader reader(*m_spool);
    std::string record;
    for (int i = 0; i < count; ++i) ASSERT_TRUE(reader.Next(&record));
    ASSERT_TRUE(m_spool->Accept(reader.Position(), reader.TakeDamaged()));
  }
  Texts Files() const {
    Texts files;
    for (const auto& entry : fs::directory_iterator(m_dir.Path())) {
      if (entry.path().extension() == ".spool") files.push_back(entry.path());
    }
    return files;
  }

  const std::int64_t m_nowMs = LogClockMs();
  const Texts m_three = {"first", std::string(300, 'x'), std::string("\0\xff third", 8)};
  support::TempDir m_dir;
  TrackKey m_key;
  TrackLimits m_limits;
  std::unique_ptr<TrackSpool> m_spool;
};

TEST_F(TrackSpoolTest, FindsItsRecordsAgainInOrderAndShowsNoneOfThemOnDisk) {
  Append(m_three);
  Reopen();
  Append({"fourth"});
  TrackSpool other(m_dir.Path() + "/", m_key, m_limits);
  EXPECT_FALSE(other.Open(m_nowMs)) << "the directory is taken";
  EXPECT_EQ(m_spool->Pending(), 4U);
  EXPECT_EQ(Read(), (Texts{m_three[0], m_three[1], m_three[2], "fourth"}));
  ASSERT_EQ(Files().size(), 2U);  // the file of another process is never appended to
  for (const std::string& file : Files()) {
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string content = support::ReadWholeFile(file);
    for (const char* text : {"first", "xxxx", "third", "fourth"}) {
      EXPECT_EQ(content.find(text), std::string::npos);
    }
  }
  m_key.fill(8);
  Reopen();
  EXPECT_TRUE(Read().empty());
}

TEST_F(TrackSpoolTest, LosesOnlyTheRecordsThatACutOrADamagedByteHits) {
  Append(m_three);
  const std::string file = Files().at(0), whole = support::ReadWholeFile(file);
  std::size_t end = 0;
  std::vector<std::size_t> ends;
  for (const std::string& record : m_three) {
    ends.push_back(end += record.size() + kTrackFrameOverhead);
  }
  ASSERT_EQ(end, whole.size());
  for (std::size_t i = 0; i < whole.size(); ++i) {
    Texts untouched;
    Texts others = m_three;
    for (std::size_t n = 0; ends[n] <= i; ++n) untouched.push_back(m_three[n]);
    others.erase(others.begin() + static_cast<std::ptrdiff_t>(untouched.size()));
    std::string damaged = whole;
    damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
    Reopen(file, damaged);
    ASSERT_EQ(Read(), others) << i;
    Reopen(file, whole.substr(0, i));
    ASSERT_EQ(m_spool->Pending(), untouched.size()) << i;
    Append({"after"});
    untouched.push_back("after");
    ASSERT_EQ(Read(), untouched) << i;
    m_spool->Purge();
  }
  // A damaged record is given up with those around it, and counted.
  std::string damaged = whole;
  damaged[ends[0] + 20] = static_cast<char>(~damaged[ends[0] + 20]);
  Reopen(file, damaged);
  Accept(2);
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_EQ(m_spool->TakeDropped(), 1U);
}

TEST_F(TrackSpoolTest, RemovesOnlyWhatWasAcceptedAlsoAcrossAStart) {
  m_limits.fileBytes = 100;  // two records a file
  Reopen();
  Append({"1", "2", "3", "4", "5"});
  Accept(3);
  EXPECT_EQ(Read(), (Texts{"4", "5"}));
  EXPECT_EQ(m_spool->Pending(), 2U);
  Reopen();
  EXPECT_EQ(m_spool->Pending(), 2U);
  Accept(2);
  Append({"6"});
  EXPECT_EQ(Read(), (Texts{"6"}));
  Accept(1);
  Reopen();
  EXPECT_TRUE(Files().empty());
  // A position that was lost costs repetitions, never records.
  Append({"7", "8"});
  Accept(1);
  Reopen(m_dir.File("position"), "nonsense");
  EXPECT_EQ(Read(), (Texts{"7", "8"}));
}

TEST_F(TrackSpoolTest, DropsTheOldestFilesForItsLimitsAndTheirAgeAndCountsThem) {
  for (const bool byBytes : {true, false}) {
    m_limits = TrackLimits();
    m_limits.fileBytes = 500;
    (byBytes ? m_limits.bytes : m_limits.records) = byBytes ? 5000 : 100;
    Reopen();
    for (int i = 0; i < 500; ++i) Append({std::to_string(i)});
    EXPECT_LE(m_spool->Pending(), byBytes ? 5000 / 25 : 100U);
    EXPECT_GT(m_spool->Pending(), byBytes ? 4000 / 28 : 50U);
    EXPECT_EQ(m_spool->TakeDropped() + m_spool->Pending(), 500U);
    EXPECT_EQ(Read().back(), "499");
    m_spool->Purge();
    EXPECT_EQ(m_spool->TakeDropped(), 0U) << "purging is no loss";
    EXPECT_TRUE(Files().empty());
    EXPECT_FALSE(m_spool->Append(std::string(m_limits.bytes, 'x'), m_nowMs));
  }
  m_limits = TrackLimits();
  Reopen();
  Append({"old"});
  ASSERT_TRUE(m_spool->Append("of the next day", m_nowMs + kDayMs + 1));  // begins another file
  ASSERT_TRUE(m_spool->Append("new", m_nowMs + 7 * kDayMs + 2));
  EXPECT_EQ(Read(), (Texts{"of the next day", "new"}));
  EXPECT_EQ(m_spool->TakeDropped(), 1U);
}

TEST_F(TrackSpoolTest, PurgesWhileItIsReadAndGoesOn) {
  m_limits.fileBytes = 1;  // a file a record
  Reopen();
  Append({"1", "2"});
  TrackReader reader(*m_spool);
  std::string record;
  ASSERT_TRUE(reader.Next(&record));
  const std::uint64_t purges = m_spool->Purges();
  m_spool->Purge();
  EXPECT_NE(m_spool->Purges(), purges);
  EXPECT_FALSE(reader.Next(&record));
  Append({"3"});
  ASSERT_TRUE(m_spool->Accept(reader.Position(), 0));
  EXPECT_EQ(Read(), (Texts{"3"}));
  EXPECT_EQ(m_spool->Pending(), 1U);
}

TEST_F(TrackSpoolTest, GoesOnInAnotherFileWhenSomebodyRemovesTheLast) {
  Append({"lost"});
  fs::remove(Files().at(0));
  ASSERT_TRUE(m_spool->Append("kept", m_nowMs + 1));
  EXPECT_EQ(Read(), Texts{"kept"});
  EXPECT_EQ(m_spool->TakeDropped(), 1U);
  EXPECT_EQ(m_spool->Pending(), 1U);
}

// A full disk: the record that did not fit is refused, those before and after it are whole.
TEST_F(TrackSpoolTest, LosesNothingToADiskThatIsFullForAWhile) {
  EXPECT_TRUE(support::InChild([&] {
    (void)::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{100, RLIM_INFINITY}, free{RLIM_INFINITY, RLIM_INFINITY};
    return m_spool->Append("before", m_nowMs) && ::setrlimit(RLIMIT_FSIZE, &full) == 0 &&
           !m_spool->Append(std::string(200, 'x'), m_nowMs) &&
           !m_spool->Append(std::string(200, 'x'), m_nowMs) &&
           ::setrlimit(RLIMIT_FSIZE, &free) == 0 && m_spool->Append("after", m_nowMs);
  }));
  Reopen();
  EXPECT_EQ(Read(), (Texts{"before", "after"}));
  EXPECT_EQ(Files().size(), 2U);
}

TEST_F(TrackSpoolTest, ServesAppendersAndAReaderAtOnce) {
  m_limits.fileBytes = 2000;
  Reopen();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 400; ++i) Append({std::to_string(t * 400 + i)});
    });
  }
  std::set<std::string> seen;
  for (int count = 0; count < 1200;) {
    TrackReader reader(*m_spool);
    for (std::string record; reader.Next(&record); ++count) seen.insert(record);
    EXPECT_TRUE(m_spool->Accept(reader.Position(), reader.TakeDamaged()));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen.size(), 1200U);
  EXPECT_EQ(m_spool->Pending(), 0U);
}

}  // namespace
