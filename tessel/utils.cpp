#include "tessel/utils.h"
#include "tessel/spin_wait.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_string.h>
#include <ace/Thread_Mutex.h>
#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace
{
  // Ids are random (version 4) UUIDs. libuuid's generator makes six system
  // calls an id; a reserve of kernel randomness per thread makes one per
  // 64 ids. A forked child must not hand out its parent's reserve again:
  // each fork starts a new generation, and a reserve of an older one is
  // dropped.
  std::atomic<unsigned> fork_generation{0};

  void next_generation() { fork_generation.fetch_add(1, std::memory_order_relaxed); }

  struct Random_Reserve
  {
    unsigned char bytes[1024];
    size_t used = sizeof bytes;
    unsigned generation = 0;

    bool take(unsigned char* out, size_t n)
    {
      static std::once_flag registered;
      std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, next_generation); });
      unsigned now = fork_generation.load(std::memory_order_relaxed);
      if (generation != now || used + n > sizeof bytes)
      {
        for (size_t got = 0; got < sizeof bytes;)
        {
          ssize_t r = getrandom(bytes + got, sizeof bytes - got, 0);
          if (r < 0 && errno != EINTR)
            return false;
          if (r > 0)
            got += static_cast<size_t>(r);
        }
        used = 0;
        generation = now;
      }
      std::memcpy(out, bytes + used, n);
      // Bytes handed out are not kept.
      std::memset(bytes + used, 0, n);
      used += n;
      return true;
    }
  };

  thread_local Random_Reserve reserve;
}

const std::string& uuid_string(std::string& out, bool upper)
{
  uuid_t id;
  if (reserve.take(id, sizeof id))
  {
    id[6] = static_cast<unsigned char>((id[6] & 0x0f) | 0x40); // version 4
    id[8] = static_cast<unsigned char>((id[8] & 0x3f) | 0x80); // RFC 4122 variant
  }
  else
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

std::atomic<int>& Spin_Wait::callers()
{
  static std::atomic<int> count(0);
  return count;
}
