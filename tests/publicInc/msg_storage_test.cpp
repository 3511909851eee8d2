#include "publicInc/msg_storage.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/PlatformDouble.h"

namespace {

constexpr int kRingSlots = 2048;

// The oldest inbound message, or "(none)".
std::string TakeInbound(msg_storage& storage) {
  char* message = nullptr;
  if (storage.RecvMsgExport(&message) == 0) return "(none)";
  const std::unique_ptr<char[]> owner(message);
  return message;
}

int Import(msg_storage& storage, const std::string& text) {
  return storage.RecvMsgImport(text.data(), text.size());
}

class MsgStorageTest : public testing::Test {
 protected:
  MsgStorageTest() { support::ResetPlatformDouble(); }

  msg_storage m_storage{std::numeric_limits<std::uint32_t>::max() - 3};
};

TEST_F(MsgStorageTest, RefusesWhenEverySlotIsTakenAndAcceptsAgainAfterOneTake) {
  for (int i = 0; i < kRingSlots; ++i) {  // the counts wrap on the way
    ASSERT_EQ(Import(m_storage, "message " + std::to_string(i)), 1);
  }
  EXPECT_EQ(Import(m_storage, "x"), 0);
  EXPECT_EQ(TakeInbound(m_storage), "message 0");
  EXPECT_EQ(Import(m_storage, "message 2048"), 1);
  EXPECT_EQ(Import(m_storage, "y"), 0);
  for (int i = 1; i <= kRingSlots; ++i) {
    ASSERT_EQ(TakeInbound(m_storage), "message " + std::to_string(i));
  }
  EXPECT_EQ(TakeInbound(m_storage), "(none)");
}

TEST_F(MsgStorageTest, StoresACopyThatEndsWhereTheLengthSaysAndNothingThatHasNone) {
  char text[] = "abcdef";
  ASSERT_EQ(m_storage.RecvMsgImport(text, 3), 1);
  text[0] = 'z';
  EXPECT_EQ(TakeInbound(m_storage), "abc");
  EXPECT_EQ(m_storage.RecvMsgImport(nullptr, 3), 0);
  EXPECT_EQ(m_storage.RecvMsgImport("x", 0), 0);
  EXPECT_EQ(m_storage.RecvMsgImport("x", std::numeric_limits<unsigned long>::max()), 0);
  EXPECT_EQ(m_storage.SendMsgImport(nullptr, 3), 0);
  EXPECT_EQ(m_storage.SendMsgImport("x", 0), 0);
  char* out = text;
  EXPECT_EQ(m_storage.RecvMsgExport(&out), 0);
  EXPECT_EQ(m_storage.SendMsgExport(&out), 0);
  EXPECT_EQ(out, text);
  EXPECT_EQ(m_storage.SendMsgExport(nullptr), 0);
}

// The next request takes the memory of the one before, in which nothing of it is left.
TEST_F(MsgStorageTest, AReleasedRequestIsWipedAlsoBehindItsNul) {
  const std::string secret = std::string("begin\0", 6) + std::string(240, 's');
  for (int round = 0; round < 3000; ++round) {  // more than a ring holds
    char* first = nullptr;
    char* second = nullptr;
    ASSERT_EQ(Import(m_storage, secret), 1);
    ASSERT_EQ(m_storage.RecvMsgExport(&first), 1);
    ASSERT_EQ(std::string(first, secret.size()), secret);
    m_storage.ReleaseRequest(first);
    ASSERT_EQ(Import(m_storage, "x"), 1);
    ASSERT_EQ(m_storage.RecvMsgExport(&second), 1);
    ASSERT_EQ(second, first);
    ASSERT_EQ(std::string(second, secret.size()), "x" + std::string(secret.size() - 1, '\0'));
    m_storage.ReleaseRequest(second);
  }
}

// Memory of short ones goes round, that of long ones does not, some the taker deletes itself.
TEST_F(MsgStorageTest, TwoThreadsHandOverEveryMessageInOrder) {
  constexpr int kMessages = 20000;
  const auto text = [](int i) {
    constexpr std::size_t kLengths[] = {1, 200, 251, 252, 256, 4000};
    return std::to_string(i) + std::string(kLengths[i % 6], 'x');
  };
  msg_storage storage(std::numeric_limits<std::uint32_t>::max() - kMessages / 2);
  std::thread producer([&] {
    for (int i = 0; i < kMessages; ++i) {
      while (Import(storage, text(i)) == 0) std::this_thread::yield();
    }
  });
  char* message = nullptr;
  for (int expected = 0; expected < kMessages;) {
    if (storage.RecvMsgExport(&message) == 0) {
      std::this_thread::yield();
      continue;
    }
    EXPECT_EQ(message, text(expected));
    if (expected % 7 == 0) {
      delete[] message;
    } else {
      storage.ReleaseRequest(message);
    }
    ++expected;
  }
  producer.join();
  EXPECT_EQ(storage.Inbound().ReadFigures().stored, static_cast<std::uint64_t>(kMessages));
}

}  // namespace
