#include "util/Message.h"

#include <cstdlib>
#include <deque>
#include <memory>
#include <new>
#include <utility>

#include "util/Boundary.h"
#include "util/Log.h"
#include "util/ThreadAnnotations.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/Message";
constexpr char kThreadName[] = "zel_msgqueue";
constexpr int kRefused = -1;
constexpr int kLogLines = 1;

// The platform's recursive mutex; zeroed before its initialisation.
class ZEL_CAPABILITY("mutex") PraxMutex {
 public:
  PraxMutex() {
    (void)memset_s(&m_native, sizeof(m_native), 0, sizeof(m_native));
    (void)PRAX_MutexInitRecursive(&m_native);  // fails for a null mutex only
  }
  PraxMutex(const PraxMutex&) = delete;
  PraxMutex& operator=(const PraxMutex&) = delete;

  void Lock() ZEL_ACQUIRE() { (void)PRAX_MutexLock(&m_native); }
  void Unlock() ZEL_RELEASE() { (void)PRAX_MutexUnLock(&m_native); }

 private:
  PRAX_MUTEX m_native;
};

class ZEL_SCOPED_CAPABILITY PraxLock {
 public:
  explicit PraxLock(PraxMutex& mutex) ZEL_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~PraxLock() ZEL_RELEASE() { m_mutex.Unlock(); }
  PraxLock(const PraxLock&) = delete;
  PraxLock& operator=(const PraxLock&) = delete;

 private:
  PraxMutex& m_mutex;
};

// One queued message. At most one callback is set.
struct CommonMessageNode {
  void* user = nullptr;
  int type = 0;
  int id = 0;
  std::unique_ptr<MessageObject> message;
  std::unique_ptr<MessageObject> secondMessage;
  MessageCallback callback = nullptr;
  TypedMessageCallback typedCallback = nullptr;
  TwoMessageCallback twoCallback = nullptr;
  int logFlag = kLogLines;

  void Call() const;
};

void CommonMessageNode::Call() const {
  AtBoundary([&] {
    if (callback) {
      (void)callback(message.get(), user);  // nobody waits for the result
    } else if (typedCallback) {
      (void)typedCallback(type, id, message.get(), user);
    } else if (twoCallback) {
      (void)twoCallback(type, id, message.get(), secondMessage.get(), user);
    }
  });
}

std::unique_ptr<MessageObject> Clone(const MessageObject* message) {
  return std::unique_ptr<MessageObject>(message ? message->clone() : nullptr);
}

}  // namespace

MessageObject::~MessageObject() = default;

BuffMessageObject::BuffMessageObject(int first, int second, const void* data, int len)
    : m_first(first), m_second(second) {
  CopyBuffer(data, len);
}

BuffMessageObject::BuffMessageObject(const BuffMessageObject& other)
    : MessageObject(other), m_first(other.m_first), m_second(0) {
  CopyBuffer(other.m_buffer, other.m_length);
}

BuffMessageObject* BuffMessageObject::clone() const {
  return new (std::nothrow) BuffMessageObject(*this);
}

BuffMessageObject::~BuffMessageObject() { std::free(m_buffer); }

void BuffMessageObject::CopyBuffer(const void* data, int len) {
  if (data == nullptr || len < 1) return;
  const auto size = static_cast<std::size_t>(len);
  m_buffer = std::malloc(size);
  if (m_buffer == nullptr) return;
  m_length = len;
  const int error = memcpy_s(m_buffer, size, data, size);
  if (error != 0) ZEL_LOG(kError) << "secure function return err: " << error;
}

struct CommonMessageQueue::State {
  State();
  // Queues a node with a clone of the message, once `complete` has set the rest of it.
  template <class Complete>
  int Post(const MessageObject* message, void* user, Complete complete);
  // The oldest node and how many it leaves; an empty node that logs when there is none.
  std::pair<CommonMessageNode, std::size_t> Take();
  void Dispatch();
  template <class Callback, class... Arguments>
  int Send(Callback callback, Arguments... arguments);

  static void* ThreadMain(void* state);

  PraxMutex m_queueLock;
  std::deque<CommonMessageNode> m_queue ZEL_GUARDED_BY(m_queueLock);  // the oldest at the back
  // Held while a callback runs, so that no two run at once; recursive, since a callback may send.
  PraxMutex m_dispatchLock;
  PRAX_SEM m_queued;  // one post for each node
};

CommonMessageQueue::State::State() {
  (void)memset_s(&m_queued, sizeof(m_queued), 0, sizeof(m_queued));
  (void)PRAX_SemInit(&m_queued, 0);  // fails for a null semaphore or a huge count only
}

template <class Complete>
int CommonMessageQueue::State::Post(const MessageObject* message, void* user, Complete complete) {
  return AtBoundary(kRefused, [&] {
    CommonMessageNode node;
    node.user = user;
    node.message = Clone(message);
    complete(node);
    {
      const PraxLock hold(m_queueLock);
      m_queue.push_front(std::move(node));
    }
    (void)PRAX_SemPost(&m_queued);  // fails at 2^31 nodes, long after the memory
    return 0;
  });
}

std::pair<CommonMessageNode, std::size_t> CommonMessageQueue::State::Take() {
  const PraxLock hold(m_queueLock);
  if (m_queue.empty()) return {};
  CommonMessageNode node = std::move(m_queue.back());
  m_queue.pop_back();
  return {std::move(node), m_queue.size()};
}

void CommonMessageQueue::State::Dispatch() {
  (void)PRAX_SemWait(&m_queued);
  const auto [node, left] = Take();  // its messages end after the lock
  const PraxLock hold(m_dispatchLock);
  if (node.logFlag != 0) {
    ZEL_LOG(kInfo) << "----------------------------- queue size = " << left
                   << " -----------------------------";
  }
  const unsigned long long begin = PRAX_GetSystemTime();
  node.Call();
  const unsigned long long end = PRAX_GetSystemTime();
  if (node.logFlag != 0) {
    ZEL_LOG(kInfo) << "=========================== proc time = "
                   << static_cast<long long>(end - begin) << " ms ===========================";
  }
}

template <class Callback, class... Arguments>
int CommonMessageQueue::State::Send(Callback callback, Arguments... arguments) {
  if (callback == nullptr) return kRefused;
  return AtBoundary(kRefused, [&] {
    const PraxLock hold(m_dispatchLock);
    return callback(arguments...);
  });
}

void* CommonMessageQueue::State::ThreadMain(void* state) {
  (void)PRAX_PthreadSetName(kThreadName);        // a thread without a name works as well
  (void)PRAX_PthreadDetach(PRAX_PthreadSelf());  // nobody joins it
  ZEL_LOG(kInfo) << "msgqueueDispathThread start." << PRAX_PthreadSelf();
  for (;;) static_cast<State*>(state)->Dispatch();
}

CommonMessageQueue& CommonMessageQueue::getInst() {
  static CommonMessageQueue* const instance = new CommonMessageQueue;
  return *instance;
}

CommonMessageQueue::CommonMessageQueue() : m_state(new State) {
  PRAX_THREAD thread = 0;
  const int ret = PRAX_PthreadCreate(&thread, nullptr, State::ThreadMain, m_state);
  ZEL_LOG(kInfo) << "PRAX_PthreadCreate ret = " << ret;
}

int CommonMessageQueue::postMsg(const MessageObject* message, MessageCallback callback, void* user,
                                int logFlag) {
  return m_state->Post(message, user, [&](CommonMessageNode& node) {
    node.callback = callback;
    node.logFlag = logFlag;
  });
}

int CommonMessageQueue::postMsg(int type, int id, const MessageObject* message,
                                TypedMessageCallback callback, void* user) {
  return m_state->Post(message, user, [&](CommonMessageNode& node) {
    node.type = type;
    node.id = id;
    node.typedCallback = callback;
  });
}

int CommonMessageQueue::postMsg(int type, int id, const MessageObject* message,
                                const MessageObject* secondMessage, TwoMessageCallback callback,
                                void* user) {
  return m_state->Post(message, user, [&](CommonMessageNode& node) {
    node.type = type;
    node.id = id;
    node.secondMessage = Clone(secondMessage);
    node.twoCallback = callback;
  });
}

int CommonMessageQueue::sendMsg(MessageObject* message, MessageCallback callback, void* user) {
  return m_state->Send(callback, message, user);
}

int CommonMessageQueue::sendMsg(int type, int id, MessageObject* message,
                                TypedMessageCallback callback, void* user) {
  return m_state->Send(callback, type, id, message, user);
}

int CommonMessageQueue::sendMsg(int type, int id, MessageObject* message,
                                MessageObject* secondMessage, TwoMessageCallback callback,
                                void* user) {
  return m_state->Send(callback, type, id, message, secondMessage, user);
}

}  // namespace commonutil
