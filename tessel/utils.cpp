#include "tessel/utils.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_string.h>
#include <ace/Thread_Mutex.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <mutex>

const std::string& uuid_string(std::string& out, bool upper)
{
  uuid_t id;
  uuid_generate(id);
  char text[37];
  if (upper)
    uuid_unparse_upper(id, text);
  else
    uuid_unparse_lower(id, text);
  out.assign(text, 36);
  return out;
}

namespace
{
  std::mutex& env_mutex()
  {
    static std::mutex m;
    return m;
  }
}

std::string get_env_r(const char* name)
{
  if (!name)
    return std::string();
  std::lock_guard<std::mutex> guard(env_mutex());
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

ACE_Addr_String::ACE_Addr_String(const ACE_Addr& addr, bool resolve)
{
  text_[0] = '\0';
  if (addr.get_type() != AF_INET
#if defined(ACE_HAS_IPV6)
      && addr.get_type() != AF_INET6
#endif
  )
    return;
  const ACE_INET_Addr& inet = static_cast<const ACE_INET_Addr&>(addr);
  if (inet.addr_to_string(text_, sizeof text_, resolve ? 0 : 1) == -1)
    text_[0] = '\0';
}

IO_Base::~IO_Base() {}

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator()
  : wait_(0), ceiling_(0), left_(0), doubling_(false), cumulation_(0)
{
}

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator(unsigned int initial, unsigned int steps,
                                                           unsigned int ceiling, bool doubling)
  : wait_(initial < ceiling ? initial : ceiling), ceiling_(ceiling), left_(steps), doubling_(doubling),
    cumulation_(0)
{
}

Exponential_Backoff_Iterator& Exponential_Backoff_Iterator::operator++()
{
  if (at_end())
    return *this;
  cumulation_ += wait_;
  if (--left_ == 0)
    return *this;
  if (doubling_)
  {
    unsigned long long next = wait_ ? 2ULL * wait_ : 1;
    wait_ = next > ceiling_ ? ceiling_ : static_cast<unsigned int>(next);
  }
  return *this;
}

bool Exponential_Backoff_Iterator::operator==(const Exponential_Backoff_Iterator& other) const
{
  // Every iterator at its end equals every other at its end.
  if (at_end() || other.at_end())
    return at_end() == other.at_end();
  return wait_ == other.wait_ && left_ == other.left_ && cumulation_ == other.cumulation_;
}
