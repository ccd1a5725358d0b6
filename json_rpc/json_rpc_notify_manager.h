#ifndef JSON_RPC_NOTIFY_MANAGER_H
#define JSON_RPC_NOTIFY_MANAGER_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"

#include <ace/RW_Thread_Mutex.h>

#include <map>
#include <string>
#include <vector>

/// Publish and subscribe over channels. "*" subscribes to every subject, and
/// the global channel receives every notification.
class JSON_RPC_EXPORT JSON_RPC_Notify_Manager
{
public:
  typedef std::multimap<std::string, JSON_RPC_Channel_Weak_Ptr> Subscriptions;

  JSON_RPC_Notify_Manager();
  ~JSON_RPC_Notify_Manager();
  static JSON_RPC_Notify_Manager* instance();
  static void close_instance();

  int subscribe(JSON_RPC_Channel_Weak_Ptr channel, const std::vector<std::string>& subjects);
  int unsubscribe(JSON_RPC_Channel_Weak_Ptr channel);
  int unsubscribe(JSON_RPC_Channel_Weak_Ptr channel, const std::vector<std::string>& subjects);
  int unsubscribe(const std::string& subject);
  int unsubscribe(const std::vector<std::string>& subjects);
  int notify(std::string subject, JSON_RPC_Object_Ptr object);
  /// notify() with a new notification whose method is subject. -1 with
  /// errno 12 when out of memory.
  int publish(const std::string& subject, json_spirit::Value params);

  // With the write lock held.
  void unsubscribe_closed_channels();
  void unsubscribe_channel(Subscriptions::iterator first, Subscriptions::iterator last,
                           JSON_RPC_Channel_Weak_Ptr channel);
  int unsubscribe_subject(const std::string& subject);

  size_t size() const;

private:
  Subscriptions subscriptions_;
  mutable ACE_RW_Thread_Mutex lock_;
};

#endif
