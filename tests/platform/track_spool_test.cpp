// The spool's promises: what Append acknowledged is found again exactly once, whatever is cut off,
// damaged or killed.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Child.h"
#include "support/TempDir.h"
#include "track/TrackSpool.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr std::int64_t kNowMs = 1700000000000;
constexpr std::int64_t kDayMs = std::int64_t{24} * 3600 * 1000;

std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

class TrackSpoolTest : public testing::Test {
 protected:
  TrackSpoolTest() { m_key.fill(7); }

  // As after the start of a process: whoever had the directory has let go of it.
  TrackSpool& Reopen() {
    m_spool.reset();
    m_spool = std::make_unique<TrackSpool>(m_dir.Path() + "/", m_key, m_limits);
    EXPECT_TRUE(m_spool->Open(NowMs()));
    return *m_spool;
  }
  void Append(const Texts& records) {
    for (const std::string& record : records) ASSERT_TRUE(m_spool->Append(record, NowMs()));
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
  std::vector<std::string> Files() const {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(m_dir.Path())) {
      if (entry.path().extension() == ".spool") files.push_back(entry.path().string());
    }
    return files;
  }

  support::TempDir m_dir;
  TrackKey m_key;
  TrackLimits m_limits;
  std::unique_ptr<TrackSpool> m_spool;
};

const Texts kThree = {"first", std::string(300, 'x'), std::string("\0\xff third", 8)};

TEST_F(TrackSpoolTest, FindsItsRecordsAgainInOrderAndShowsNoneOfThemOnDisk) {
  Reopen();
  Append(kThree);
  EXPECT_EQ(Read(), kThree);
  Reopen();
  Append({"fourth"});
  EXPECT_EQ(m_spool->Pending(), 4U);
  TrackSpool other(m_dir.Path() + "/", m_key, m_limits);
  EXPECT_FALSE(other.Open(NowMs())) << "the directory is taken";
  EXPECT_EQ(Read(), (Texts{kThree[0], kThree[1], kThree[2], "fourth"}));
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

TEST_F(TrackSpoolTest, KeepsEveryWholeRecordOfAFileThatIsCutAtAnyByte) {
  Reopen();
  Append(kThree);
  m_spool.reset();
  const std::string file = Files().at(0);
  const std::string whole = support::ReadWholeFile(file);
  std::vector<std::size_t> ends;
  for (const std::string& record : kThree) {
    ends.push_back((ends.empty() ? 0 : ends.back()) + record.size() + kTrackFrameOverhead);
  }
  ASSERT_EQ(ends.back(), whole.size());
  for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
    support::WriteWholeFile(file, whole.substr(0, cut));
    Reopen();
    Texts expected;
    for (std::size_t i = 0; i < ends.size() && ends[i] <= cut; ++i) expected.push_back(kThree[i]);
    ASSERT_EQ(m_spool->Pending(), expected.size()) << cut;
    ASSERT_EQ(Read(), expected) << cut;
    Append({"after"});
    expected.push_back("after");
    ASSERT_EQ(Read(), expected) << cut;
    m_spool->Purge();
  }
}

TEST_F(TrackSpoolTest, LosesOneRecordAtMostToADamagedByte) {
  Reopen();
  Append(kThree);
  m_spool.reset();
  const std::string file = Files().at(0);
  const std::string whole = support::ReadWholeFile(file);
  const std::size_t firstEnd = kThree[0].size() + kTrackFrameOverhead;
  const std::size_t secondEnd = firstEnd + kThree[1].size() + kTrackFrameOverhead;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string damaged = whole;
    damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
    support::WriteWholeFile(file, damaged);
    Reopen();
    Texts expected = kThree;
    expected.erase(expected.begin() + (i < firstEnd ? 0 : i < secondEnd ? 1 : 2));
    ASSERT_EQ(Read(), expected) << i;
  }
  // A damaged record is given up with those around it, and counted.
  std::string damaged = whole;
  damaged[firstEnd + 20] = static_cast<char>(~damaged[firstEnd + 20]);
  support::WriteWholeFile(file, damaged);
  Reopen();
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
  EXPECT_EQ(Read(), (Texts{"4", "5"}));
  Accept(2);
  Append({"6"});
  EXPECT_EQ(Read(), (Texts{"6"}));
  Accept(1);
  Reopen();
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_TRUE(Files().empty());
  // A position that was lost costs repetitions, never records.
  Append({"7", "8"});
  Accept(1);
  support::WriteWholeFile(m_dir.File("position"), "nonsense");
  Reopen();
  EXPECT_EQ(Read(), (Texts{"7", "8"}));
}

TEST_F(TrackSpoolTest, DropsTheOldestFilesForItsLimitsAndTheirAgeAndCountsThem) {
  for (const bool byBytes : {true, false}) {
    m_limits = TrackLimits();
    m_limits.fileBytes = 500;
    (byBytes ? m_limits.bytes : m_limits.records) = byBytes ? 5000 : 100;
    Reopen();
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(m_spool->Append(std::to_string(i), kNowMs));
    EXPECT_LE(m_spool->Pending(), byBytes ? 5000 / 25 : 100U);
    EXPECT_GT(m_spool->Pending(), byBytes ? 4000 / 28 : 50U);
    EXPECT_EQ(m_spool->TakeDropped() + m_spool->Pending(), 500U);
    EXPECT_EQ(Read().back(), "499");
    std::uintmax_t bytes = 0;
    for (const std::string& file : Files()) bytes += fs::file_size(file);
    EXPECT_LE(bytes, m_limits.bytes);
    m_spool->Purge();
    EXPECT_EQ(m_spool->TakeDropped(), 0U);  // purging is no loss
    EXPECT_TRUE(Files().empty());
    EXPECT_FALSE(m_spool->Append(std::string(m_limits.bytes, 'x'), kNowMs));
  }
  m_limits = TrackLimits();
  Reopen();
  ASSERT_TRUE(m_spool->Append("old", kNowMs));
  ASSERT_TRUE(m_spool->Append("of the next day", kNowMs + kDayMs + 1));  // begins another file
  ASSERT_TRUE(m_spool->Append("new", kNowMs + 7 * kDayMs + 2));
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

// A full disk: the record that did not fit is refused, those before and after it are whole.
TEST_F(TrackSpoolTest, LosesNothingToADiskThatIsFullForAWhile) {
  EXPECT_TRUE(support::InChild([&] {
    TrackSpool spool(m_dir.Path() + "/", m_key, m_limits);
    if (!spool.Open(NowMs()) || !spool.Append("before", NowMs())) return false;
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small = {100, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    for (int i = 0; i < 3; ++i) {
      if (spool.Append(std::string(200, 'x'), NowMs())) return false;
    }
    setrlimit(RLIMIT_FSIZE, &limit);
    return spool.Append("after", NowMs());
  }));
  Reopen();
  EXPECT_EQ(Read(), (Texts{"before", "after"}));
  EXPECT_EQ(Files().size(), 2U);
}

// A child appends numbered records from `next` on and tells the number of each acknowledged one; it
// is killed some time after so many. Returns the last number acknowledged.
int AppendUntilKilled(const std::string& directory, const TrackKey& key, int next,
                      std::uint_fast32_t acknowledgements, std::uint_fast32_t laterUs) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    TrackLimits limits;
    limits.fileBytes = 4096;
    TrackSpool spool(directory, key, limits);
    bool works = spool.Open(NowMs());
    for (; works; ++next) {
      const std::string dots(static_cast<std::size_t>(next % 200), '.');
      works = spool.Append(std::to_string(next) + dots, NowMs()) &&
              write(ends[1], &next, sizeof(next)) == sizeof(next);
    }
    _exit(1);
  }
  close(ends[1]);
  int acknowledged = next - 1;
  const auto takeOne = [&] {
    return read(ends[0], &acknowledged, sizeof(acknowledged)) == sizeof(acknowledged);
  };
  for (; acknowledgements > 0; --acknowledgements) EXPECT_TRUE(takeOne());
  std::this_thread::sleep_for(std::chrono::microseconds(laterUs));
  kill(child, SIGKILL);
  EXPECT_EQ(support::WaitFor(child), -SIGKILL);
  while (takeOne()) {
  }
  close(ends[0]);
  return acknowledged;
}

constexpr int kKillRounds = 100;

TEST_F(TrackSpoolTest, FindsEachAcknowledgedRecordOnceHoweverOftenItIsKilled) {
  std::minstd_rand random(20240611);
  int next = 1;
  for (int round = 0; round < kKillRounds; ++round) {
    const int acknowledged =
        AppendUntilKilled(m_dir.Path() + "/", m_key, next, random() % 30, random() % 500);
    Reopen();
    // One more may be there: stored, but killed before it could be acknowledged.
    Texts records = Read();
    const int stored = static_cast<int>(records.size());
    ASSERT_TRUE(stored == acknowledged - next + 1 || stored == acknowledged - next + 2) << round;
    for (int i = 0; i < stored; ++i) {
      ASSERT_EQ(std::stoi(records[static_cast<std::size_t>(i)]), next + i) << round;
    }
    next += stored;
    if (stored > 0) Accept(stored);
    m_spool.reset();
  }
  EXPECT_GT(next, kKillRounds);
}

TEST_F(TrackSpoolTest, ServesAppendersAndAReaderAtOnce) {
  m_limits.fileBytes = 2000;
  Reopen();
  constexpr int kThreads = 3;
  constexpr int kEach = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kEach; ++i) {
        EXPECT_TRUE(m_spool->Append(std::to_string(t * kEach + i), kNowMs));
      }
    });
  }
  std::map<std::string, int> seen;
  for (std::size_t count = 0; count < kThreads * kEach;) {
    TrackReader reader(*m_spool);
    std::string record;
    while (reader.Next(&record)) {
      ++seen[record];
      ++count;
    }
    EXPECT_TRUE(m_spool->Accept(reader.Position(), reader.TakeDamaged()));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen.size(), std::size_t{kThreads} * kEach);
  EXPECT_EQ(m_spool->Pending(), 0U);
}

}  // namespace
