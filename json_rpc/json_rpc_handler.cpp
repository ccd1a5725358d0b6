#include "json_rpc/json_rpc_handler.h"

#include <ace/Guard_T.h>
#include "tessel/singleton.h"
#include "tessel/spin_wait.h"

JSON_RPC_Handler::JSON_RPC_Handler() : silent_(false) {}
JSON_RPC_Handler::~JSON_RPC_Handler() {}
int JSON_RPC_Handler::init(int, char**) { return 0; }
int JSON_RPC_Handler::fini() { return 0; }

JSON_RPC_Request_Map::JSON_RPC_Request_Map() {}
JSON_RPC_Request_Map::~JSON_RPC_Request_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Request_Map)

JSON_RPC_Response_Map::JSON_RPC_Response_Map() {}
JSON_RPC_Response_Map::~JSON_RPC_Response_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Response_Map)

namespace
{
  // pthread's read-write lock puts a thread that finds it taken to sleep at
  // once, and the holder then pays for the wake-up. Every call enters and
  // leaves the map, each time for well under a microsecond, so a few tries
  // first save most of those sleeps when callers crowd in.
  const int lock_tries = 32;

  template <class Guard>
  bool take(Guard& guard, int (Guard::*try_take)(), int (Guard::*block)())
  {
    for (int i = 0; i < lock_tries && !guard.locked(); ++i)
    {
      Spin_Wait::pause();
      (guard.*try_take)();
    }
    return guard.locked() || (guard.*block)() != -1;
  }

  typedef ACE_Read_Guard<ACE_RW_Thread_Mutex> Read_Guard;
  typedef ACE_Write_Guard<ACE_RW_Thread_Mutex> Write_Guard;
  bool take(Read_Guard& g) { return take(g, &Read_Guard::tryacquire_read, &Read_Guard::acquire_read); }
  bool take(Write_Guard& g) { return take(g, &Write_Guard::tryacquire_write, &Write_Guard::acquire_write); }
}

JSON_RPC_Handler_Ptr JSON_RPC_Response_Map::find(const json_spirit::Value& id) const
{
  Read_Guard guard(lock_, false);
  if (!take(guard))
    return JSON_RPC_Handler_Ptr();
  auto i = map_.find(id);
  return i == map_.end() ? JSON_RPC_Handler_Ptr() : i->second;
}

int JSON_RPC_Response_Map::insert(const json_spirit::Value& id, JSON_RPC_Handler_Ptr handler)
{
  // The entry is made, and a refused one dropped, outside the lock: callers
  // on many threads enter and leave here on every call.
  decltype(map_) made;
  made.emplace(id, std::move(handler));
  decltype(map_)::insert_return_type result;
  {
    Write_Guard guard(lock_, false);
    if (!take(guard))
      return -1;
    result = map_.insert(made.extract(made.begin()));
  }
  return result.inserted ? 0 : -1;
}

int JSON_RPC_Response_Map::remove(const json_spirit::Value& id)
{
  // The handler may be the last reference; let it go outside the lock.
  decltype(map_)::node_type entry;
  {
    Write_Guard guard(lock_, false);
    if (!take(guard))
      return -1;
    auto i = map_.find(id);
    if (i == map_.end())
      return -1;
    entry = map_.extract(i);
  }
  return 0;
}

void JSON_RPC_Response_Map::clear()
{
  std::map<json_spirit::Value, JSON_RPC_Handler_Ptr, json_spirit::value_lesser> old;
  {
    ACE_WRITE_GUARD(ACE_RW_Thread_Mutex, guard, lock_);
    old.swap(map_);
  }
}

size_t JSON_RPC_Response_Map::size() const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, 0);
  return map_.size();
}
