#include "cacheDB/IdleStatements.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace commonutil {
namespace {

constexpr std::size_t kMostIdle = 8;  // more than the library has texts

}  // namespace

StatementHandle IdleStatements::Take(const std::string& sql) {
  MutexLock lock(m_lock);
  const auto found =
      std::find_if(m_idle.begin(), m_idle.end(), [&](const Idle& idle) { return idle.sql == sql; });
  if (found == m_idle.end()) return nullptr;
  StatementHandle statement = std::move(found->statement);
  m_idle.erase(found);
  return statement;
}

void IdleStatements::Give(const std::string& sql, StatementHandle statement) {
  (void)sqlite3_clear_bindings(statement.get());  // always succeeds
  Idle surplus{sql, std::move(statement)};
  MutexLock lock(m_lock);
  if (m_closed) return;
  m_idle.push_back(std::move(surplus));
  if (m_idle.size() <= kMostIdle) return;
  surplus = std::move(m_idle.front());
  m_idle.erase(m_idle.begin());
}

void IdleStatements::Close() {
  std::vector<Idle> closed;
  MutexLock lock(m_lock);
  m_closed = true;
  closed.swap(m_idle);
}

}  // namespace commonutil
