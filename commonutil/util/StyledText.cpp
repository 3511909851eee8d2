#include "util/StyledText.h"

#include <algorithm>
#include <ostream>
#include <streambuf>
#include <utility>

#include <json/writer.h>

#include "util/SecureWipe.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr std::size_t kUsualTextBytes = 512;
// After a larger text the writer goes, and with it the memory that it took.
constexpr std::size_t kLargestTextOfKeptWriter = std::size_t{64} * 1024;

// Appends to one text. What it outgrows is wiped.
class TextBuffer : public std::streambuf {
 public:
  TextBuffer() { m_text.reserve(kUsualTextBytes); }
  ~TextBuffer() override { WipeString(m_text); }
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;

  const std::string& Text() const { return m_text; }
  void Wipe() {
    (void)memset_s(m_text.data(), m_text.size(), 0, m_text.size());  // fails when there is none
    m_text.clear();
  }

 protected:
  std::streamsize xsputn(const char* piece, std::streamsize size) override {
    const auto length = static_cast<std::size_t>(size);
    MakeRoom(length);
    m_text.append(piece, length);
    return size;
  }
  int_type overflow(int_type character) override {
    if (traits_type::eq_int_type(character, traits_type::eof())) return 0;
    MakeRoom(1);
    m_text.push_back(traits_type::to_char_type(character));
    return character;
  }

 private:
  void MakeRoom(std::size_t length) {
    if (m_text.capacity() - m_text.size() >= length) return;
    std::string larger;
    larger.reserve(std::max(m_text.capacity() * 2, m_text.size() + length));
    larger = m_text;
    m_text.swap(larger);
    WipeString(larger);
  }

  std::string m_text;
};

}  // namespace

class StyledWriter {
 public:
  StyledWriter() : m_writer(Json::StreamWriterBuilder().newStreamWriter()), m_stream(&m_buffer) {
    m_stream.exceptions(std::ios_base::badbit);  // else a text without memory would just end
  }

  void Write(const Json::Value& value) {
    if (value.hasComment(Json::commentBefore)) m_stream.put('\n');
    m_writer->write(value, &m_stream);
    m_stream.put('\n');
  }
  const std::string& Text() const { return m_buffer.Text(); }
  void Wipe() { m_buffer.Wipe(); }

 private:
  const std::unique_ptr<Json::StreamWriter> m_writer;
  TextBuffer m_buffer;
  std::ostream m_stream;
};

namespace {

// Code that runs while the thread's objects are being destroyed does without.
thread_local bool t_threadEnds = false;

struct KeptWriter {
  ~KeptWriter() { t_threadEnds = true; }
  std::unique_ptr<StyledWriter> writer;
};
thread_local KeptWriter t_kept;

std::unique_ptr<StyledWriter> TakeWriter() {
  if (!t_threadEnds && t_kept.writer) return std::move(t_kept.writer);
  return std::make_unique<StyledWriter>();
}

// jsoncpp's writer keeps the items of the last array that it wrote.
bool MayBeKept(const std::string& text) {
  return text.size() <= kLargestTextOfKeptWriter && text.find('[') == std::string::npos;
}

}  // namespace

StyledText::StyledText(const Json::Value& value) : m_writer(TakeWriter()) {
  m_writer->Write(value);
}

StyledText::~StyledText() {
  if (t_threadEnds || !MayBeKept(m_writer->Text())) return;
  m_writer->Wipe();
  t_kept.writer = std::move(m_writer);
}

const std::string& StyledText::Text() const { return m_writer->Text(); }

}  // namespace commonutil
