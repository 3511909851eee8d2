// What docs/messages/messages.yaml tells about requests, replies and notifications, for help,
// completion and the hiding of passwords.
#pragma once

#include <cstddef>
#include <string>

namespace zelctl {

struct KeyText {
  const char* path;    // "param.initParam.dbPath"; what is in a list has "[]" behind the list's key
  const char* type;    // "text, 511 bytes"
  const char* values;  // all that are allowed, as JSON, parted by blanks; "" for any
  bool isRequired;
  bool isSecret;
  const char* meaning;  // with the unit
};

// The keys of one message, depth first.
class KeyTexts {
 public:
  template <std::size_t Count>
  constexpr KeyTexts(const KeyText (&keys)[Count]) : m_begin(keys), m_end(keys + Count) {}
  constexpr const KeyText* begin() const { return m_begin; }
  constexpr const KeyText* end() const { return m_end; }

 private:
  const KeyText* m_begin;
  const KeyText* m_end;
};

struct RequestText {
  unsigned number;
  const char* name;
  const char* title;
  const char* reply;    // whether and when one comes
  const char* about;    // whole sentences, or ""
  const char* example;  // a request on one line
  KeyTexts keys;
  KeyTexts replyKeys;
};

struct EventText {
  unsigned number;
  const char* name;
  const char* about;
  KeyTexts keys;
};

// Something to iterate over.
template <class Text>
struct Texts {
  const Text* first;
  const Text* last;
  const Text* begin() const { return first; }
  const Text* end() const { return last; }
};

Texts<RequestText> AllRequests();
Texts<EventText> AllEvents();

// Null without one. The high bits of `sent` that select no command do not matter.
const RequestText* FindRequest(unsigned sent);
// By name, whatever the case of its letters, or by number.
const RequestText* FindRequest(const std::string& nameOrNumber);
const EventText* FindEvent(unsigned number);

}  // namespace zelctl
