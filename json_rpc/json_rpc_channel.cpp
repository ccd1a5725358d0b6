#include "json_rpc/json_rpc_channel.h"

#include <ace/Log_Msg.h>
#include <ace/Guard_T.h>
#include <algorithm>
#include <cerrno>
#include <new>

JSON_RPC_Channel::JSON_RPC_Channel() : type_(0) {}
JSON_RPC_Channel::~JSON_RPC_Channel() {}

// The accessors copy one field under the lock; if it can't be taken they
// give the default and change nothing.
#define CHANNEL_GET(field, fallback)                                   \
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);                             \
  if (!guard.locked())                                                  \
    return fallback;                                                    \
  return field;
#define CHANNEL_SET(field, value)                                      \
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);                             \
  if (guard.locked())                                                   \
    field = value;

int JSON_RPC_Channel::type() const { CHANNEL_GET(type_, 0) }
void JSON_RPC_Channel::type(int type) { CHANNEL_SET(type_, type) }
std::string JSON_RPC_Channel::id() const { CHANNEL_GET(id_, std::string()) }
void JSON_RPC_Channel::id(const std::string& id) { CHANNEL_SET(id_, id) }
std::string JSON_RPC_Channel::session_id() const { CHANNEL_GET(session_id_, std::string()) }
void JSON_RPC_Channel::session_id(const std::string& session_id) { CHANNEL_SET(session_id_, session_id) }

std::map<std::string, json_spirit::Value> JSON_RPC_Channel::version() const
{
  CHANNEL_GET(version_, (std::map<std::string, json_spirit::Value>()))
}

void JSON_RPC_Channel::version(const std::map<std::string, json_spirit::Value>& version)
{
  CHANNEL_SET(version_, version)
}

#undef CHANNEL_GET
#undef CHANNEL_SET

int JSON_RPC_Channel::send_error(int code, const json_spirit::Value& id, const char* message,
                                 const json_spirit::Value& data)
{
  JSON_RPC_Response_Error* error = new (std::nothrow) JSON_RPC_Response_Error;
  if (!error)
  {
    errno = ENOMEM;
    return -1;
  }
  error->code = code;
  error->id = id;
  if (!message)
    message = json_rpc_error_message(code);
  if (message)
    error->message = message;
  if (!data.is_null())
    error->data = data;
  return send_object(JSON_RPC_Object_Ptr(error));
}

int JSON_RPC_Channel::put_forward_entry(JSON_RPC_Channel_Weak_Ptr, const json_spirit::Value&) { return -1; }

int JSON_RPC_Channel::get_forward_entry(int, JSON_RPC_Channel_Weak_Ptr&, json_spirit::Value&) { return -1; }

int JSON_RPC_Channel::forward(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) { return -1; }

int JSON_RPC_Channel::get_original_addr(ACE_Addr&) const { return -1; }

ACE_Lock* JSON_RPC_Channel::io_mutex() { return nullptr; }

bool JSON_RPC_Channel::wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  return wait.wait(deadline);
}

void send_if_alive(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object)
{
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  if (!peer.null())
    peer->send_object(object);
}

JSON_RPC_Wait_List::JSON_RPC_Wait_List() : error_(0) {}

bool JSON_RPC_Wait_List::enter(JSON_RPC_Response_Wait& wait)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (error_ && !wait.done())
  {
    errno = error_;
    return false;
  }
  waits_.push_back(&wait);
  return true;
}

void JSON_RPC_Wait_List::leave(JSON_RPC_Response_Wait& wait)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  waits_.erase(std::find(waits_.begin(), waits_.end(), &wait));
}

void JSON_RPC_Wait_List::end(int error)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  error_ = error;
  // Each wait stays valid while it is entered, and leave() takes the lock.
  for (JSON_RPC_Response_Wait* wait : waits_)
    wait->fail(error);
}

bool pass_back_response(JSON_RPC_Channel& forwarder, const JSON_RPC_Object_Ptr& object)
{
  if (!object.get() || !is_response(*object) || !is_forward_id(object->id))
    return false;
  JSON_RPC_Channel_Weak_Ptr requester;
  json_spirit::Value id;
  if (forwarder.get_forward_entry(object->id.get_int(), requester, id) == -1)
    return false;
  JSON_RPC_Channel_Strong_Ptr to(requester);
  if (to.null())
  {
    ACE_ERROR((LM_ERROR, "Abort forwarding JSON-RPC response, requester is gone.\n"));
    return true;
  }
  object->id = id;
  to->send_object(object);
  return true;
}
