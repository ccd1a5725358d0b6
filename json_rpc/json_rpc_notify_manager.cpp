#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_channel_map.h"

#include <ace/Guard_T.h>
#include "tessel/singleton.h"

#include <cerrno>
#include <new>
#include <utility>

JSON_RPC_Notify_Manager::JSON_RPC_Notify_Manager() {}
JSON_RPC_Notify_Manager::~JSON_RPC_Notify_Manager() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Notify_Manager)

int JSON_RPC_Notify_Manager::subscribe(JSON_RPC_Channel_Weak_Ptr channel, const std::vector<std::string>& subjects)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  for (const std::string& subject : subjects)
    subscriptions_.emplace(subject, channel);
  return 0;
}

int JSON_RPC_Notify_Manager::unsubscribe(JSON_RPC_Channel_Weak_Ptr channel)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  if (peer.null())
    unsubscribe_closed_channels();
  else
    unsubscribe_channel(subscriptions_.begin(), subscriptions_.end(), channel);
  return 0;
}

int JSON_RPC_Notify_Manager::unsubscribe(JSON_RPC_Channel_Weak_Ptr channel, const std::vector<std::string>& subjects)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  if (peer.null())
  {
    unsubscribe_closed_channels();
    return 0;
  }
  for (const std::string& subject : subjects)
  {
    auto range = subscriptions_.equal_range(subject);
    unsubscribe_channel(range.first, range.second, channel);
  }
  return 0;
}

int JSON_RPC_Notify_Manager::unsubscribe(const std::string& subject)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  return unsubscribe_subject(subject);
}

int JSON_RPC_Notify_Manager::unsubscribe(const std::vector<std::string>& subjects)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  for (const std::string& subject : subjects)
    unsubscribe_subject(subject);
  return 0;
}

void JSON_RPC_Notify_Manager::unsubscribe_closed_channels()
{
  for (auto i = subscriptions_.begin(); i != subscriptions_.end();)
  {
    auto current = i++;
    if (JSON_RPC_Channel_Strong_Ptr(current->second).null())
      subscriptions_.erase(current);
  }
}

void JSON_RPC_Notify_Manager::unsubscribe_channel(Subscriptions::iterator first, Subscriptions::iterator last,
                                                  JSON_RPC_Channel_Weak_Ptr channel)
{
  while (first != last)
  {
    auto current = first++;
    if (current->second == channel)
      subscriptions_.erase(current);
  }
}

int JSON_RPC_Notify_Manager::unsubscribe_subject(const std::string& subject)
{
  subscriptions_.erase(subject);
  return 0;
}


int JSON_RPC_Notify_Manager::notify(std::string subject, JSON_RPC_Object_Ptr object)
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  auto range = subscriptions_.equal_range(subject);
  for (auto i = range.first; i != range.second; ++i)
    send_if_alive(i->second, object);
  range = subscriptions_.equal_range("*");
  for (auto i = range.first; i != range.second; ++i)
    send_if_alive(i->second, object);
  send_if_alive(Global_JSON_RPC_Channel::channel_, object);
  return 0;
}

int JSON_RPC_Notify_Manager::publish(const std::string& subject, json_spirit::Value params)
{
  JSON_RPC_Request* notification = new (std::nothrow) JSON_RPC_Request;
  if (!notification)
  {
    errno = ENOMEM;
    return -1;
  }
  notification->type = JSON_RPC_Object::TYPE_NOTIFICATION;
  notification->method = subject;
  notification->params = std::move(params);
  return notify(subject, JSON_RPC_Object_Ptr(notification));
}

size_t JSON_RPC_Notify_Manager::size() const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, 0);
  return subscriptions_.size();
}
