#include <errno.h>

#include <utility>

#include "track/TrackSpool.h"

TrackReader::TrackReader(TrackSpool& spool) : m_spool(spool), m_position(spool.AcceptedPosition()) {
  const std::lock_guard<std::mutex> hold(spool.m_lock);
  if (!spool.m_files.empty()) m_end = {spool.m_files.back().number, spool.m_files.back().bytes, 0};
}

bool TrackReader::LoadFile() {
  for (TrackSpool::File file; m_spool.FindFile(&m_position, &file);) {
    if (file.number > m_end.file) return false;
    const std::uint64_t end = file.number == m_end.file ? m_end.offset : file.bytes;
    if (end <= m_position.offset) return false;
    const int error = ReadTrackFile(file.path, m_position.offset, end, &m_bytes);
    m_begin = m_position.offset;
    if (error == 0) return m_cipher.Start(m_spool.m_key, file.number, file.salt);
    if (error != ENOENT) return false;  // it may be readable later
    m_spool.DropMissing(file.number);   // unless it made room meanwhile
    m_position = {file.number + 1, 0, 0};
  }
  return false;
}

bool TrackReader::Next(std::string* record) {
  for (;;) {
    m_loaded = m_loaded || LoadFile();
    if (!m_loaded) return false;
    std::size_t offset = m_position.offset - m_begin;
    const std::size_t size = FindTrackFrame(m_bytes, &offset);
    if (size == 0) {
      if (m_position.file >= m_end.file) return false;  // that file may still grow
      m_position = {m_position.file + 1, 0, 0};
      m_loaded = false;
      continue;
    }
    const std::uint64_t place = m_begin + offset;
    m_position = {m_position.file, place + size, m_position.record + 1};
    if (m_cipher.Unseal(place, std::string_view(m_bytes).substr(offset, size), record)) return true;
    ++m_damaged;
  }
}

std::uint64_t TrackReader::TakeDamaged() { return std::exchange(m_damaged, 0); }
