#ifndef JSON_RPC_CHANNEL_MAP_H
#define JSON_RPC_CHANNEL_MAP_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"

#include <ace/INET_Addr.h>
#include <ace/RW_Thread_Mutex.h>

#include <map>
#include <string>
#include <vector>

/// Register of connected peers by type and id, announcing each
/// registration and deregistration as "channel.registered" and
/// "channel.unregistered". Holds weak pointers only.
class JSON_RPC_EXPORT JSON_RPC_Channel_Map
{
public:
  struct Channel_Info
  {
    Channel_Info() : type(0) {}
    std::string id;
    int type;
    ACE_INET_Addr addr;
  };

  JSON_RPC_Channel_Map();
  ~JSON_RPC_Channel_Map();
  static JSON_RPC_Channel_Map* instance();
  static void close_instance();

  JSON_RPC_Channel_Weak_Ptr find(const std::string& id) const;
  JSON_RPC_Channel_Weak_Ptr find(int type, const std::string& id) const;
  int insert(JSON_RPC_Channel_Strong_Ptr channel);
  int remove(int type, const std::string& id);
  int remove(JSON_RPC_Channel_Strong_Ptr channel);
  int remove(const Channel_Info& info);
  int channel_infos(std::vector<Channel_Info>& infos, int type);
  int notify(JSON_RPC_Object_Ptr object);
  int notify(int type, const std::string& id, JSON_RPC_Object_Ptr object);
  int notify(int type, const std::vector<json_spirit::Value>& ids, JSON_RPC_Object_Ptr object);
  void notify_channel_state(const std::string& id, int type, const ACE_INET_Addr* addr);

private:
  std::map<int, std::map<std::string, JSON_RPC_Channel_Weak_Ptr>> map_;
  mutable ACE_RW_Thread_Mutex lock_;
};

/// Interchangeable channels; channel() picks one, spreading callers over time.
class JSON_RPC_EXPORT JSON_RPC_Channel_Pool
{
public:
  JSON_RPC_Channel_Pool();
  ~JSON_RPC_Channel_Pool();
  static JSON_RPC_Channel_Pool* instance();
  static void close_instance();

  int insert(JSON_RPC_Channel_Weak_Ptr channel);
  /// With a dead or empty channel, sweeps every dead element.
  int remove(JSON_RPC_Channel_Weak_Ptr channel);
  JSON_RPC_Channel_Weak_Ptr channel();
  size_t size() const;

private:
  std::vector<JSON_RPC_Channel_Weak_Ptr> channels_;
  mutable ACE_RW_Thread_Mutex lock_;
};

/// The process's default channel: global_json_rpc calls through it, and it
/// receives every published notification. Set it while no other thread uses it.
class JSON_RPC_EXPORT Global_JSON_RPC_Channel
{
public:
  static JSON_RPC_Channel_Strong_Ptr instance();
  static void instance(JSON_RPC_Channel_Weak_Ptr channel);

  static JSON_RPC_Channel_Weak_Ptr channel_;

private:
  Global_JSON_RPC_Channel() = delete;
};

#endif
