#ifndef JSON_RPC_HANDLER_H
#define JSON_RPC_HANDLER_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/dll_object_manager_t.h"

#include <ace/Null_Mutex.h>
#include <ace/RW_Thread_Mutex.h>

#include <map>
#include <string>

/// Receives messages for a method or a pending call. handle_object may run
/// on many threads at once.
class JSON_RPC_EXPORT JSON_RPC_Handler
{
public:
  JSON_RPC_Handler();
  virtual ~JSON_RPC_Handler();

  /// Called once, before the handler is entered in the request map; -1 fails it.
  virtual int init(int argc, char** argv);
  virtual int fini();
  /// One message; channel may be dead already. 0 accepted, -1 failed.
  virtual int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) = 0;

  /// True suppresses the dispatcher's debug line for each call.
  bool silent() const { return silent_; }

protected:
  bool silent_;
};

typedef ACE_Refcounted_Auto_Ptr<JSON_RPC_Handler, ACE_Recursive_Thread_Mutex> JSON_RPC_Handler_Ptr;

/// Method name to handler; filled at start, read-only while messages flow.
class JSON_RPC_EXPORT JSON_RPC_Request_Map
  : public DLL_Object_Manager_T<JSON_RPC_Handler, void (*)(void*), ACE_Null_Mutex, DLL_Object_Manager_Default_Tag>
{
public:
  JSON_RPC_Request_Map();
  ~JSON_RPC_Request_Map() override;
  static JSON_RPC_Request_Map* instance();
  static void close_instance();
};

/// Ids of calls in flight to the handlers that wait for their responses.
class JSON_RPC_EXPORT JSON_RPC_Response_Map
{
public:
  JSON_RPC_Response_Map();
  ~JSON_RPC_Response_Map();
  static JSON_RPC_Response_Map* instance();
  static void close_instance();

  JSON_RPC_Handler_Ptr find(const json_spirit::Value& id) const;
  int insert(const json_spirit::Value& id, JSON_RPC_Handler_Ptr handler);
  int remove(const json_spirit::Value& id);
  void clear();
  size_t size() const;

private:
  std::map<json_spirit::Value, JSON_RPC_Handler_Ptr, json_spirit::value_lesser> map_;
  mutable ACE_RW_Thread_Mutex lock_;
};

#endif
