#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "tessel/peer_addr_string_t.h"
#include "tessel/utils.h"

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_time.h>
#include "tessel/singleton.h"

#include <cerrno>
#include <new>

typedef Peer_Addr_String_T<JSON_RPC_Channel> Peer_Addr_String;

JSON_RPC_Channel_Map::JSON_RPC_Channel_Map() {}
JSON_RPC_Channel_Map::~JSON_RPC_Channel_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Channel_Map)

JSON_RPC_Channel_Weak_Ptr JSON_RPC_Channel_Map::find(const std::string& id) const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, JSON_RPC_Channel_Weak_Ptr());
  for (const auto& type : map_)
  {
    auto i = type.second.find(id);
    if (i != type.second.end())
      return i->second;
  }
  return JSON_RPC_Channel_Weak_Ptr();
}

JSON_RPC_Channel_Weak_Ptr JSON_RPC_Channel_Map::find(int type, const std::string& id) const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, JSON_RPC_Channel_Weak_Ptr());
  auto t = map_.find(type);
  if (t == map_.end())
    return JSON_RPC_Channel_Weak_Ptr();
  auto i = t->second.find(id);
  return i == t->second.end() ? JSON_RPC_Channel_Weak_Ptr() : i->second;
}

int JSON_RPC_Channel_Map::insert(JSON_RPC_Channel_Strong_Ptr channel)
{
  if (channel.null())
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, channel.get() is NULL:\n%?\n"));
    return -1;
  }
  std::string id = channel->id();
  int type = channel->type();
  {
    ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
    map_[type][id] = JSON_RPC_Channel_Weak_Ptr(channel);
  }
  ACE_DEBUG((LM_INFO, "Channel(type: %d) %C(%C) is registered.\n", type, id.c_str(), Peer_Addr_String(*channel).c_str()));
  ACE_INET_Addr addr;
  if (channel->get_original_addr(addr) != 0)
    ACE_DEBUG((LM_WARNING, "Failed to get address of peer.\n"));
  notify_channel_state(id, type, &addr);
  return 0;
}

int JSON_RPC_Channel_Map::remove(int type, const std::string& id)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  map_[type].erase(id);
  ACE_DEBUG((LM_INFO, "Channel(type: %d) %C is unregistered.\n", type, id.c_str()));
  notify_channel_state(id, type, nullptr);
  return 0;
}

int JSON_RPC_Channel_Map::remove(JSON_RPC_Channel_Strong_Ptr channel)
{
  if (channel.null())
    return 0;
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  int type = channel->type();
  std::string id = channel->id();
  auto t = map_.find(type);
  if (t == map_.end())
    return 0;
  auto i = t->second.find(id);
  if (i == t->second.end() || !(i->second == channel))
    return 0;
  t->second.erase(i);
  ACE_DEBUG((LM_INFO, "Channel(type: %d) %C is unregistered.\n", type, id.c_str()));
  notify_channel_state(id, type, nullptr);
  return 0;
}

int JSON_RPC_Channel_Map::remove(const Channel_Info& info) { return remove(info.type, info.id); }

int JSON_RPC_Channel_Map::channel_infos(std::vector<Channel_Info>& infos, int type)
{
  std::vector<Channel_Info> gone;
  {
    ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
    for (const auto& t : map_)
    {
      if (type != 0 && t.first != type)
        continue;
      for (const auto& entry : t.second)
      {
        Channel_Info info;
        info.type = t.first;
        info.id = entry.first;
        JSON_RPC_Channel_Strong_Ptr peer(entry.second);
        if (peer.null())
        {
          ACE_DEBUG((LM_WARNING, "JSON-RPC channel %C is gone.\n", entry.first.c_str()));
          gone.push_back(info);
          continue;
        }
        peer->get_remote_addr(info.addr);
        infos.push_back(info);
      }
    }
  }
  for (const Channel_Info& info : gone)
    remove(info);
  return 0;
}


int JSON_RPC_Channel_Map::notify(JSON_RPC_Object_Ptr object)
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  for (const auto& t : map_)
    for (const auto& entry : t.second)
      send_if_alive(entry.second, object);
  return 0;
}

int JSON_RPC_Channel_Map::notify(int type, const std::string& id, JSON_RPC_Object_Ptr object)
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  auto t = map_.find(type);
  if (t == map_.end())
    return 0;
  auto i = t->second.find(id);
  if (i != t->second.end())
    send_if_alive(i->second, object);
  return 0;
}

int JSON_RPC_Channel_Map::notify(int type, const std::vector<json_spirit::Value>& ids, JSON_RPC_Object_Ptr object)
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  auto t = map_.find(type);
  if (t == map_.end())
    return 0;
  for (const json_spirit::Value& id : ids)
  {
    if (id.type() != json_spirit::str_type)
      continue;
    auto i = t->second.find(id.get_str());
    if (i != t->second.end())
      send_if_alive(i->second, object);
  }
  return 0;
}

void JSON_RPC_Channel_Map::notify_channel_state(const std::string& id, int type, const ACE_INET_Addr* addr)
{
  JSON_RPC_Request* request = new (std::nothrow) JSON_RPC_Request;
  if (!request)
  {
    errno = ENOMEM;
    return;
  }
  JSON_RPC_Object_Ptr object(request);
  request->type = JSON_RPC_Object::TYPE_NOTIFICATION;
  request->method = addr ? "channel.registered" : "channel.unregistered";
  json_spirit::Object params;
  params["channel_id"] = json_spirit::Value(id);
  params["channel_type"] = json_spirit::Value(type);
  params["ts"] = json_spirit::Value(static_cast<long long>(ACE_OS::time(nullptr)));
  if (addr)
    params["channel_address"] = json_spirit::Value(ACE_Addr_String(*addr, false).c_str());
  request->params = json_spirit::Value(std::move(params));
  JSON_RPC_Notify_Manager::instance()->notify(request->method, object);
}

JSON_RPC_Channel_Pool::JSON_RPC_Channel_Pool() {}
JSON_RPC_Channel_Pool::~JSON_RPC_Channel_Pool() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Channel_Pool)

int JSON_RPC_Channel_Pool::insert(JSON_RPC_Channel_Weak_Ptr channel)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  if (peer.null())
    return -1;
  for (const JSON_RPC_Channel_Weak_Ptr& c : channels_)
    if (JSON_RPC_Channel_Strong_Ptr(c).get() == peer.get())
      return -1;
  channels_.push_back(channel);
  return 0;
}

int JSON_RPC_Channel_Pool::remove(JSON_RPC_Channel_Weak_Ptr channel)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  for (size_t i = 0; i < channels_.size();)
  {
    if (JSON_RPC_Channel_Strong_Ptr(channels_[i]).get() == peer.get())
      channels_.erase(channels_.begin() + i);
    else
      ++i;
  }
  return 0;
}

JSON_RPC_Channel_Weak_Ptr JSON_RPC_Channel_Pool::channel()
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, JSON_RPC_Channel_Weak_Ptr());
  if (channels_.empty())
    return JSON_RPC_Channel_Weak_Ptr();
  if (channels_.size() == 1)
    return channels_[0];
  // Seeded by the second: callers spread over time, not call by call.
  unsigned int seed = static_cast<unsigned int>(ACE_OS::time(nullptr));
  unsigned long long r = static_cast<unsigned long long>(ACE_OS::rand_r(&seed));
  return channels_[r % channels_.size()];
}

size_t JSON_RPC_Channel_Pool::size() const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, 0);
  return channels_.size();
}

JSON_RPC_Channel_Weak_Ptr Global_JSON_RPC_Channel::channel_;

JSON_RPC_Channel_Strong_Ptr Global_JSON_RPC_Channel::instance() { return JSON_RPC_Channel_Strong_Ptr(channel_); }

void Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr channel) { channel_ = channel; }
