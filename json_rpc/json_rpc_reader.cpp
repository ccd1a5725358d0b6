#include "json_rpc/json_rpc_reader.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "json_spirit/json_spirit_writer.h"

#include <ace/Log_Msg.h>
#include <cerrno>
#include <climits>
#include <new>

using json_spirit::Value;

JSON_RPC_Reader::JSON_RPC_Reader()
  : handled_indirectly_(false), mode_(MODE_ASSEMBLE), state_(STATE_IDLE), lock_(nullptr)
{
}

JSON_RPC_Reader::~JSON_RPC_Reader()
{
  release_lock();
  release_delegate();
}

bool JSON_RPC_Reader::open()
{
  release_delegate();
  if (!JSON_RPC_Parser::open())
    return false;
  clear();
  state_ = STATE_READING;
  return true;
}

void JSON_RPC_Reader::close()
{
  release_delegate();
  JSON_RPC_Parser::close();
  clear();
}

void JSON_RPC_Reader::clear()
{
  release_delegate();
  handled_indirectly_ = false;
  state_ = STATE_IDLE;
  id_ = Value::null;
  version_.clear();
  // Resetting an ACE pointer allocates a fresh count even when it holds
  // nothing, and clear() runs twice per message: once after it, once in
  // open() before the next.
  if (object_.get())
    object_.reset();
  json_parser_.result(nullptr);
  if (channel_.unsafe_get())
    channel_.reset();
  release_lock();
  if (!request_channel_.null())
    request_channel_.reset();
  forward_handler_.generate_handle(nullptr);
}

void JSON_RPC_Reader::release_delegate()
{
  // Only a filter is owned; the two member sinks are not.
  if (delegate && delegate != &json_parser_ && delegate != &forward_handler_)
    delete delegate;
  delegate = nullptr;
}

void JSON_RPC_Reader::channel(JSON_RPC_Channel_Weak_Ptr channel) { channel_ = channel; }

JSON_RPC_Object_Ptr JSON_RPC_Reader::refusal() const
{
  JSON_RPC_Response_Error* error = new (std::nothrow) JSON_RPC_Response_Error;
  if (!error)
  {
    errno = ENOMEM;
    return JSON_RPC_Object_Ptr();
  }
  if (syntax_error())
    error->code = -32700;
  else if (err == ERR_STRUCTURE || err == ERR_CODE || err == ERR_MEMBER || err == ERR_EVENT)
    error->code = -32600;
  else
    error->code = -32603;
  error->message = json_rpc_error_message(error->code);
  if (state_ != STATE_FORWARDING)
    error->id = id_;
  return JSON_RPC_Object_Ptr(error);
}

void JSON_RPC_Reader::request_channel(JSON_RPC_Channel_Strong_Ptr channel) { request_channel_ = channel; }

namespace
{
  template <class T>
  T* allocate()
  {
    return new (std::nothrow) T;
  }

  template <>
  JSON_RPC_Response* allocate<JSON_RPC_Response>()
  {
    return new (std::nothrow) JSON_RPC_Response(nullptr);
  }
}

template <class T>
bool JSON_RPC_Reader::prepare(bool with_response_fields)
{
  if (object_.get())
    return true;
  T* object = allocate<T>();
  if (!object)
  {
    errno = ENOMEM;
    return false;
  }
  object->version = version_;
  if (with_response_fields || !id_.is_null())
    object->id = id_;
  else
    object->type = JSON_RPC_Object::TYPE_NOTIFICATION;
  object_.reset(object);
  return true;
}

bool JSON_RPC_Reader::prepare_request() { return prepare<JSON_RPC_Request>(false); }
bool JSON_RPC_Reader::prepare_response() { return prepare<JSON_RPC_Response>(true); }
bool JSON_RPC_Reader::prepare_response_error() { return prepare<JSON_RPC_Response_Error>(true); }

JSON_RPC_Request* JSON_RPC_Reader::request_object()
{
  JSON_RPC_Object* o = object_.get();
  if (o->type == JSON_RPC_Object::TYPE_REQUEST || o->type == JSON_RPC_Object::TYPE_NOTIFICATION)
    return static_cast<JSON_RPC_Request*>(o);
  err = ERR_EVENT;
  return nullptr;
}

bool JSON_RPC_Reader::handle_key_i(unsigned int key, char const* value, unsigned long long length)
{
  switch (key)
  {
  case KEY_JSONRPC: return handle_version_i(value, length);
  case KEY_ID: return handle_id_i(value, length);
  case KEY_PARAMS: return handle_params_i(value, length);
  case KEY_METHOD: return handle_method_i(value, length);
  case KEY_RESULT: return handle_result_i(value, length);
  case KEY_CODE: return handle_code_i(value, length);
  case KEY_MESSAGE: return handle_message_i(value, length);
  case KEY_DATA: return handle_data_i(value, length);
  case KEY_NONE:
    if ((mode_ & MODE_FORWARD_RESPONSE) && !request_channel_.null())
      return finish_forward();
    return true;
  default: return true;
  }
}

bool JSON_RPC_Reader::handle_version_i(char const* value, unsigned long long length)
{
  version_.assign(value, length);
  if (object_.get())
    object_->version = version_;
  return true;
}

bool JSON_RPC_Reader::handle_id_i(char const* value, unsigned long long length)
{
  switch (callback)
  {
  case EVENT_NUMBER:
    if (!json_spirit::number_to_value(value, length, id_) || id_.type() != json_spirit::int_type)
    {
      // A refused id is no id to answer under.
      id_ = Value::null;
      err = ERR_EVENT;
      return false;
    }
    break;
  case EVENT_STRING: id_ = Value(std::string(value, length)); break;
  case EVENT_NULL: id_ = Value::null; break;
  default: err = ERR_EVENT; return false;
  }
  if (JSON_RPC_Object* o = object_.get())
  {
    o->id = id_;
    if (o->type == JSON_RPC_Object::TYPE_NOTIFICATION)
      o->type = JSON_RPC_Object::TYPE_REQUEST;
  }
  return true;
}

bool JSON_RPC_Reader::handle_method_i(char const* value, unsigned long long length)
{
  if (!prepare_request())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  JSON_RPC_Request* request = request_object();
  if (!request)
    return false;
  request->method.assign(value, length);
  return true;
}

bool JSON_RPC_Reader::fill(Value& target, char const* value, unsigned long long length)
{
  switch (callback)
  {
  case EVENT_NULL: target = Value::null; return true;
  case EVENT_BOOLEAN: target = Value(length != 0); return true;
  case EVENT_NUMBER:
    if (json_spirit::number_to_value(value, length, target))
      return true;
    break;
  case EVENT_STRING: target = Value(std::string(value, length)); return true;
  case EVENT_START_MAP:
    target = Value(json_spirit::Object());
    json_parser_.result(&target);
    delegate = &json_parser_;
    return true;
  case EVENT_START_ARRAY:
    target = Value(json_spirit::Array());
    json_parser_.result(&target);
    delegate = &json_parser_;
    return true;
  }
  err = ERR_EVENT;
  return false;
}

bool JSON_RPC_Reader::handle_params_i(char const* value, unsigned long long length)
{
  if (callback == EVENT_END_MAP || callback == EVENT_END_ARRAY)
  {
    release_delegate();
    return true;
  }
  if (callback == EVENT_NONE)
  {
    err = ERR_EVENT;
    return false;
  }
  if (mode_ & MODE_FORWARD_REQUEST)
  {
    int r = forward_request(value, length);
    if (r != 0)
      return r == 1;
  }
  if (mode_ & MODE_FILTER_REQUEST)
  {
    int r = filter_request(value, length);
    if (r != 0)
      return r == 1;
  }
  if (!prepare_request())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  JSON_RPC_Request* request = request_object();
  return request && fill(request->params, value, length);
}

bool JSON_RPC_Reader::handle_result_i(char const* value, unsigned long long length)
{
  if (callback == EVENT_END_MAP || callback == EVENT_END_ARRAY)
  {
    // A forward goes on to the end of the message.
    if (delegate != &forward_handler_)
      release_delegate();
    return true;
  }
  if (callback == EVENT_NONE)
  {
    err = ERR_EVENT;
    return false;
  }
  if (mode_ & MODE_FORWARD_RESPONSE)
  {
    int r = forward_response(value, length);
    if (r != 0)
      return r == 1;
  }
  if (mode_ & MODE_FILTER_RESPONSE)
  {
    int r = filter_response(value, length);
    if (r != 0)
      return r == 1;
  }
  if (!prepare_response())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  if (object_->type != JSON_RPC_Object::TYPE_RESPONSE)
  {
    err = ERR_EVENT;
    return false;
  }
  return fill(static_cast<JSON_RPC_Response*>(object_.get())->result, value, length);
}

namespace
{
  JSON_RPC_Response_Error* as_error(JSON_RPC_Object* o)
  {
    return o->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR ? static_cast<JSON_RPC_Response_Error*>(o) : nullptr;
  }
}

bool JSON_RPC_Reader::handle_code_i(char const* value, unsigned long long length)
{
  Value code;
  // A code must be an integer that fits the 32-bit field.
  if (!json_spirit::number_to_value(value, length, code) || code.type() != json_spirit::int_type ||
      code.is_uint64())
  {
    err = ERR_CODE;
    return false;
  }
  if (!prepare_response_error())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  JSON_RPC_Response_Error* error = as_error(object_.get());
  if (!error)
  {
    err = ERR_EVENT;
    return false;
  }
  error->code = code.get_int();
  return true;
}

bool JSON_RPC_Reader::handle_message_i(char const* value, unsigned long long length)
{
  if (!prepare_response_error())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  JSON_RPC_Response_Error* error = as_error(object_.get());
  if (!error)
  {
    err = ERR_EVENT;
    return false;
  }
  error->message.assign(value, length);
  return true;
}

bool JSON_RPC_Reader::handle_data_i(char const* value, unsigned long long length)
{
  if (callback == EVENT_END_MAP || callback == EVENT_END_ARRAY)
  {
    delegate = nullptr;
    return true;
  }
  if (callback == EVENT_NONE)
  {
    err = ERR_EVENT;
    return false;
  }
  if (!prepare_response_error())
  {
    err = ERR_NO_MEMORY;
    return false;
  }
  JSON_RPC_Response_Error* error = as_error(object_.get());
  if (!error)
  {
    err = ERR_EVENT;
    return false;
  }
  return fill(error->data, value, length);
}

int JSON_RPC_Reader::forward_request(char const*, unsigned long long)
{
  // Requests are forwarded by handlers through JSON_RPC_Channel::forward.
  return 0;
}

int JSON_RPC_Reader::forward_response(char const* value, unsigned long long length)
{
  unsigned int seen = static_cast<unsigned int>(levels.back().seen);
  if (!(seen & KEY_ID) || !is_forward_id(id_))
    return 0;
  JSON_RPC_Channel_Strong_Ptr channel(channel_);
  if (channel.null())
    return 0;
  JSON_RPC_Channel_Weak_Ptr requester;
  if (channel->get_forward_entry(id_.get_int(), requester, id_) == -1)
    return 0;

  forward_handler_.generate_handle(nullptr);
  delegate = &forward_handler_;
  state_ = STATE_FORWARDING;
  request_channel_ = JSON_RPC_Channel_Strong_Ptr(requester);
  if (request_channel_.null())
  {
    ACE_ERROR((LM_ERROR, "Abort forwarding JSON-RPC response, requester is gone.\n"));
    return 1;
  }
  if (ACE_Lock* lock = request_channel_->io_mutex())
  {
    if (lock->acquire() == -1)
    {
      ACE_ERROR((LM_ERROR, "Failed to lock request channel, errno=%d, %m.\n", errno));
      return -1;
    }
    lock_ = lock;
  }
  yajl_gen_t* gen = request_channel_->send_begin();
  if (!gen)
  {
    release_lock();
    request_channel_.reset();
    return -1;
  }
  forward_handler_.generate_handle(gen);
  return forward_response_cached_attributes(seen, value, length) ? 1 : -1;
}

bool JSON_RPC_Reader::forward_response_cached_attributes(unsigned int seen, char const* value,
                                                         unsigned long long length)
{
  if (!forward_handler_.handle_start_map_i())
    return false;
  if ((seen & KEY_JSONRPC) &&
      (!forward_handler_.handle_map_key_i("jsonrpc", 7) ||
       !forward_handler_.handle_string_i(version_.data(), version_.size())))
    return false;
  if (!forward_handler_.handle_map_key_i("id", 2))
    return false;
  if (yajl_gen_t* gen = forward_handler_.generate_handle())
    if (yajl_gen_value(gen, id_) != 0)
      return false;
  if (!forward_handler_.handle_map_key_i("result", 6))
    return false;
  return handle_indirectly(value, length);
}

bool JSON_RPC_Reader::finish_forward()
{
  bool ok = request_channel_->send_end() != -1 || request_channel_->io_state() == JSON_RPC_Channel::IO_STATE_CLOSED;
  if (!ok)
    ACE_ERROR((LM_ERROR, "Failed to forward response: failed to send end to channel.\n"));
  release_lock();
  request_channel_.reset();
  delegate = nullptr;
  return ok;
}

int JSON_RPC_Reader::filter_request(char const* value, unsigned long long length)
{
  // With params ahead of method no filter can be found: assemble them.
  if (!(levels.back().seen & KEY_METHOD))
    return 0;
  JSON_RPC_Object* o = object_.get();
  if (!o || (o->type != JSON_RPC_Object::TYPE_NOTIFICATION && o->type != JSON_RPC_Object::TYPE_REQUEST))
    return -1;
  JSON_RPC_Params_Handler_Creator* creator =
    JSON_RPC_Params_Handler_Map::instance()->find(static_cast<JSON_RPC_Request*>(o)->method);
  if (!creator)
    return 0;
  delegate = creator->create(JSON_RPC_Channel_Weak_Ptr(request_channel_), object_);
  if (!delegate)
    return -1;
  handled_indirectly_ = true;
  bool ok = handle_indirectly(value, length);
  // A scalar has no closing event: the filter has seen the whole value.
  if (callback != EVENT_START_MAP && callback != EVENT_START_ARRAY)
    release_delegate();
  return ok ? 1 : -1;
}

int JSON_RPC_Reader::filter_response(char const* value, unsigned long long length)
{
  unsigned int seen = static_cast<unsigned int>(levels.back().seen);
  if (!(seen & KEY_ID) || !is_forward_id(id_))
    return 0;
  JSON_RPC_Object* o = object_.get();
  if (!o || (o->type != JSON_RPC_Object::TYPE_RESPONSE && o->type != JSON_RPC_Object::TYPE_RESPONSE_ERROR))
    return -1;
  if (!delegate)
    return -1;
  return handle_indirectly(value, length) ? 1 : -1;
}

bool JSON_RPC_Reader::handle_indirectly(char const* value, unsigned long long length)
{
  delegate->callback = callback;
  switch (callback)
  {
  case EVENT_NULL: return delegate->handle_null_i();
  case EVENT_BOOLEAN: return delegate->handle_boolean_i(length != 0);
  case EVENT_NUMBER: return delegate->handle_number_i(value, length);
  case EVENT_STRING: return delegate->handle_string_i(value, length);
  case EVENT_START_MAP: return delegate->handle_start_map_i();
  case EVENT_START_ARRAY: return delegate->handle_start_array_i();
  }
  err = ERR_EVENT;
  return false;
}

void JSON_RPC_Reader::release_lock()
{
  if (lock_ && lock_->release() == -1)
    ACE_ERROR((LM_ERROR, "Failed to release request channel, errno=%d, %m.\n", errno));
  lock_ = nullptr;
}
