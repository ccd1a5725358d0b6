#ifndef JSON_RPC_OBJECT_H
#define JSON_RPC_OBJECT_H

#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"

#include <ace/Bound_Ptr.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <string>

/// One JSON-RPC 2.0 message in memory. Fields are public.
class JSON_RPC_EXPORT JSON_RPC_Object
{
public:
  enum Type
  {
    TYPE_NOTIFICATION = 1,
    TYPE_REQUEST = 2,
    TYPE_RESPONSE = 3,
    TYPE_RESPONSE_ERROR = 4
  };

  explicit JSON_RPC_Object(Type type);
  virtual ~JSON_RPC_Object();

  Type type;
  std::string version;
  json_spirit::Value id;
};

/// A request, or a notification when type is TYPE_NOTIFICATION.
class JSON_RPC_EXPORT JSON_RPC_Request : public JSON_RPC_Object
{
public:
  JSON_RPC_Request();
  ~JSON_RPC_Request() override;

  std::string method;
  json_spirit::Value params;
};

class JSON_RPC_EXPORT JSON_RPC_Response : public JSON_RPC_Object
{
public:
  /// With a request, answers with its version and id.
  explicit JSON_RPC_Response(JSON_RPC_Request const* request);
  ~JSON_RPC_Response() override;

  json_spirit::Value result;
};

class JSON_RPC_EXPORT JSON_RPC_Response_Error : public JSON_RPC_Object
{
public:
  JSON_RPC_Response_Error();
  ~JSON_RPC_Response_Error() override;

  int code;
  std::string message;
  json_spirit::Value data;
};

typedef ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> JSON_RPC_Object_Ptr;

class JSON_RPC_Channel;
typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> JSON_RPC_Channel_Strong_Ptr;
typedef ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> JSON_RPC_Channel_Weak_Ptr;

/// Text of a standard error code; null for a code outside the table.
JSON_RPC_EXPORT char const* json_rpc_error_message(int code);

/// A response, with a result or an error: what answers a request.
inline bool is_response(const JSON_RPC_Object& object)
{
  return object.type == JSON_RPC_Object::TYPE_RESPONSE || object.type == JSON_RPC_Object::TYPE_RESPONSE_ERROR;
}

/// An id that can be a forward id. Forward ids are 32-bit: a wider integer
/// would be cut down to another request's id.
inline bool is_forward_id(const json_spirit::Value& id)
{
  return id.type() == json_spirit::int_type && !id.is_uint64();
}

/// Printable form of a message id, for log lines.
class JSON_RPC_EXPORT JSON_RPC_Id
{
public:
  explicit JSON_RPC_Id(json_spirit::Value const& id);
  ~JSON_RPC_Id();
  char const* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};

/// Printable form of a request (without params), for log lines.
class JSON_RPC_EXPORT JSON_RPC_Request_Dump
{
public:
  explicit JSON_RPC_Request_Dump(JSON_RPC_Request const& request);
  ~JSON_RPC_Request_Dump();
  char const* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};

/// Fresh message ids: UUID texts, unique without a shared counter.
class JSON_RPC_EXPORT JSON_RPC_Id_Generator
{
public:
  JSON_RPC_Id_Generator();
  ~JSON_RPC_Id_Generator();

  static std::string get();
  /// Gives object a fresh string id; nothing else changes.
  static void gen(JSON_RPC_Object& object);
};

#endif
