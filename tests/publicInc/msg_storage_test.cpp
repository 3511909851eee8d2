#include "publicInc/msg_storage.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "publicInc/ExportSignal.h"

namespace {

constexpr int kRingSlots = 2048;
constexpr std::uint32_t kLastCount = std::numeric_limits<std::uint32_t>::max();

int Import(msg_storage& storage, const std::string& text) {
  return storage.RecvMsgImport(text.data(), text.size());
}

// The oldest inbound message, or "(none)".
std::string TakeInbound(msg_storage& storage) {
  char* message = nullptr;
  if (storage.RecvMsgExport(&message) == 0) return "(none)";
  const std::string text = message;
  storage.ReleaseRequest(message);
  return text;
}

TEST(MsgStorageTest, RefusesWhenEverySlotIsTakenAndAcceptsAgainAfterOneTake) {
  msg_storage storage(kLastCount - 3);  // the counts wrap on the way
  for (int i = 0; i < kRingSlots; ++i) ASSERT_EQ(Import(storage, std::to_string(i)), 1);
  EXPECT_EQ(Import(storage, "x"), 0);
  EXPECT_EQ(TakeInbound(storage), "0");
  EXPECT_EQ(Import(storage, "2048"), 1);
  EXPECT_EQ(Import(storage, "y"), 0);
  for (int i = 1; i <= kRingSlots; ++i) ASSERT_EQ(TakeInbound(storage), std::to_string(i));
  EXPECT_EQ(TakeInbound(storage), "(none)");
}

TEST(MsgStorageTest, StoresACopyThatEndsWhereTheLengthSaysAndNothingThatHasNone) {
  msg_storage storage;
  char text[] = "abcdef";
  ASSERT_EQ(storage.RecvMsgImport(text, 3), 1);
  text[0] = 'z';
  EXPECT_EQ(TakeInbound(storage), "abc");
  EXPECT_EQ(storage.RecvMsgImport(nullptr, 3), 0);
  EXPECT_EQ(storage.RecvMsgImport("x", 0), 0);
  EXPECT_EQ(storage.RecvMsgImport("x", std::numeric_limits<unsigned long>::max()), 0);
  EXPECT_EQ(storage.SendMsgImport(nullptr, 3), 0);
  EXPECT_EQ(storage.SendMsgImport("x", 0), 0);
  char* out = text;
  EXPECT_EQ(storage.SendMsgExport(&out), 0);
  EXPECT_EQ(out, text);
  EXPECT_EQ(storage.SendMsgExport(nullptr), 0);
}

// The next request takes the memory of the one before, in which nothing of it is left.
TEST(MsgStorageTest, AReleasedRequestIsWipedAlsoBehindItsNul) {
  msg_storage storage;
  const std::string secret = std::string("begin\0", 6) + std::string(240, 's');
  const std::string wiped = "x" + std::string(secret.size() - 1, '\0');
  char* memory = nullptr;
  for (int round = 0; round < 3000; ++round) {  // more than a ring holds
    for (const std::string& text : {secret, std::string("x")}) {
      char* const before = memory;
      ASSERT_EQ(Import(storage, text), 1);
      ASSERT_EQ(storage.RecvMsgExport(&memory), 1);
      ASSERT_EQ(std::string(memory, secret.size()), text == secret ? secret : wiped);
      ASSERT_TRUE(memory == before || before == nullptr);
      storage.ReleaseRequest(memory);
    }
  }
}

// Memory of short ones goes round, that of long ones does not, some the taker deletes itself.
TEST(MsgStorageTest, TwoThreadsHandOverEveryMessageInOrder) {
  constexpr int kMessages = 20000;
  const auto text = [](int i) {
    constexpr std::size_t kLengths[] = {1, 200, 251, 252, 256, 4000};
    return std::to_string(i) + std::string(kLengths[i % 6], 'x');
  };
  msg_storage storage(kLastCount - kMessages / 2);
  std::thread producer([&] {
    for (int i = 0; i < kMessages; ++i) {
      while (Import(storage, text(i)) == 0) std::this_thread::yield();
    }
  });
  for (int i = 0; i < kMessages; ++i) {
    char* message = nullptr;
    while (storage.RecvMsgExport(&message) == 0) std::this_thread::yield();
    EXPECT_EQ(message, text(i));
    i % 7 == 0 ? delete[] message : storage.ReleaseRequest(message);
  }
  producer.join();
  EXPECT_EQ(storage.Inbound().ReadFigures().stored, static_cast<std::uint64_t>(kMessages));
}

// Each message is stored as soon as the one before is taken, just when the taker lowers the signal,
// and nothing comes after it that could tell of it.
TEST(MsgStorageTest, AMessageStoredWhileTheSignalIsLoweredRaisesItAgain) {
  constexpr int kMessages = 20000;
  commonutil::ExportSignal signal;
  msg_storage storage;
  storage.SetExportSignal(&signal);
  ASSERT_GE(signal.ShowDescriptor(), 0);
  std::atomic<bool> done{false};
  std::thread sender([&] {
    for (int i = 0; i < kMessages; ++i) {
      for (int looks = 1; !storage.Outbound().IsEmpty() && !done; ++looks) {
        if (looks % 1000 == 0) std::this_thread::yield();
      }
      ASSERT_EQ(storage.SendMsgImport("x", 1), 1);
    }
  });
  int taken = 0;
  char* message = nullptr;
  while (taken < kMessages && signal.Wait(60000)) {
    if (storage.SendMsgExport(&message) == 0) continue;
    delete[] message;
    ++taken;
  }
  EXPECT_EQ(taken, kMessages);
  done = true;
  sender.join();
}

}  // namespace
