// A queue of messages with one dispatch thread, for the SDK's other libraries.
//
// Producers post a message and a callback; the dispatch thread runs the callbacks one at a time,
// in the order posted. A callback that is sent runs on its caller's thread instead, and never
// beside one that is dispatched.
#pragma once

#include "publicInc/ZelExport.h"

namespace commonutil {

// What a callback gets. The order of the virtual functions is part of the interface.
class ZEL_API MessageObject {
 public:
  MessageObject() = default;
  MessageObject& operator=(const MessageObject&) = delete;

  // A new copy that the caller deletes, or null when there is no memory. Must not throw. Posting
  // runs it on the posting thread.
  virtual MessageObject* clone() const = 0;
  virtual ~MessageObject();

 protected:
  MessageObject(const MessageObject&) = default;  // for a derived clone
};

// Two integers and a copy of some bytes.
class ZEL_API BuffMessageObject : public MessageObject {
 public:
  // Copies `len` bytes of `data`. Null data, a length below 1 or no memory leave it without a
  // buffer and with length 0.
  BuffMessageObject(int first, int second, const void* data, int len);
  // Copies the first integer and the bytes. The second integer of a copy, and so of every
  // posted message, is 0; hosts rely on the first alone.
  BuffMessageObject(const BuffMessageObject& other);
  BuffMessageObject* clone() const override;
  ~BuffMessageObject() override;

  int First() const { return m_first; }    // as given
  int Second() const { return m_second; }  // 0 in a copy
  // Valid while the object lives; null without a buffer.
  const void* Buffer() const { return m_buffer; }
  int Length() const { return m_length; }  // in bytes

 private:
  ZEL_LOCAL void CopyBuffer(const void* data, int len);

  const int m_first;
  const int m_second;
  void* m_buffer = nullptr;  // of malloc
  int m_length = 0;
};

// The callbacks. A message is null when none was posted, or when its clone failed. A dispatched
// one belongs to the queue, which deletes it once the callback has returned. What a callback
// throws is dropped; its result counts as -1 then.
using MessageCallback = int (*)(MessageObject* message, void* user);
// The same with a type and an id.
using TypedMessageCallback = int (*)(int type, int id, MessageObject* message, void* user);
// The same with two messages.
using TwoMessageCallback = int (*)(int type, int id, MessageObject* message,
                                   MessageObject* secondMessage, void* user);

// Any thread may call any function, a callback too. Nothing is ever taken back or stopped: `user`
// must live until the callback has run.
class ZEL_API CommonMessageQueue {
 public:
  // The queue of the process; the first call starts its thread, and throws std::bad_alloc when it
  // finds no memory: the next one tries again. Never destroyed.
  static CommonMessageQueue& getInst();

  CommonMessageQueue(const CommonMessageQueue&) = delete;
  CommonMessageQueue& operator=(const CommonMessageQueue&) = delete;

  // Queues a clone of each message with the callback and returns 0, or -1 with nothing queued when
  // there is no memory. The caller keeps its messages. Null messages and a null callback are
  // allowed. Does not wait for the dispatch thread. With `logFlag` 0 no lines about the queue's
  // length and the callback's duration are written; the other forms write them.
  int postMsg(const MessageObject* message, MessageCallback callback, void* user, int logFlag);
  // With a type and an id, which the callback gets.
  int postMsg(int type, int id, const MessageObject* message, TypedMessageCallback callback,
              void* user);
  // With two messages.
  int postMsg(int type, int id, const MessageObject* message, const MessageObject* secondMessage,
              TwoMessageCallback callback, void* user);

  // Runs the callback on this thread with the messages themselves and returns its result; -1
  // for a null callback. Waits for a callback that runs on another thread.
  int sendMsg(MessageObject* message, MessageCallback callback, void* user);
  // With a type and an id, which the callback gets.
  int sendMsg(int type, int id, MessageObject* message, TypedMessageCallback callback, void* user);
  // With two messages.
  int sendMsg(int type, int id, MessageObject* message, MessageObject* secondMessage,
              TwoMessageCallback callback, void* user);

 private:
  struct ZEL_LOCAL State;

  ZEL_LOCAL CommonMessageQueue();
  ~CommonMessageQueue() = delete;

  State* const m_state;
};

}  // namespace commonutil
