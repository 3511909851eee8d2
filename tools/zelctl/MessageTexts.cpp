#include "MessageTexts.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

#include "Request.h"

namespace zelctl {
namespace {

#include "MessageCatalogue.inc"

template <class Text, class Matches>
const Text* Find(Texts<Text> texts, Matches matches) {
  const Text* const found = std::find_if(texts.begin(), texts.end(), matches);
  return found == texts.end() ? nullptr : found;
}

}  // namespace

Texts<RequestText> AllRequests() { return {std::begin(kRequestTexts), std::end(kRequestTexts)}; }

Texts<EventText> AllEvents() { return {std::begin(kEventTexts), std::end(kEventTexts)}; }

const RequestText* FindRequest(unsigned sent) {
  return Find(AllRequests(),
              [sent](const RequestText& one) { return one.number == (sent & kCommandMask); });
}

const RequestText* FindRequest(const std::string& nameOrNumber) {
  return Find(AllRequests(), [&](const RequestText& one) {
    return nameOrNumber == std::to_string(one.number) ||
           ::strcasecmp(nameOrNumber.c_str(), one.name) == 0;
  });
}

const EventText* FindEvent(unsigned number) {
  return Find(AllEvents(), [number](const EventText& one) { return one.number == number; });
}

}  // namespace zelctl
