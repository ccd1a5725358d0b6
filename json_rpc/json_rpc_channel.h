#ifndef JSON_RPC_CHANNEL_H
#define JSON_RPC_CHANNEL_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"

#include <ace/Addr.h>
#include <ace/Lock.h>
#include <ace/Thread_Mutex.h>

#include <map>
#include <string>
#include <vector>

class ACE_Time_Value;
class JSON_Generator;
typedef struct yajl_gen_t yajl_gen_t;

/// A thread that waits for the response to its request, as it offers
/// itself to the channel the request went out on (see
/// JSON_RPC_Channel::wait_response).
class JSON_RPC_EXPORT JSON_RPC_Response_Wait
{
public:
  /// True once the response is in.
  virtual bool done() const = 0;
  /// Sleeps until the response is in (true) or deadline, absolute and null
  /// for none, has passed (false, errno ETIME), or the wait has failed
  /// (false, with the errno that fail() gave).
  virtual bool wait(const ACE_Time_Value* deadline) = 0;
  /// Ends the wait without a response unless the response is in already;
  /// wakes the waiter. For a transport whose connection is gone.
  virtual void fail(int error) = 0;

protected:
  ~JSON_RPC_Response_Wait() {}
};

/// The calls that wait for their responses over one connection. A
/// transport enters each wait for as long as wait_response runs, and ends
/// them all when its connection ends, so that callers fail at once with an
/// errno that says so instead of waiting out their time limits.
class JSON_RPC_EXPORT JSON_RPC_Wait_List
{
public:
  JSON_RPC_Wait_List();
  JSON_RPC_Wait_List(const JSON_RPC_Wait_List&) = delete;
  JSON_RPC_Wait_List& operator=(const JSON_RPC_Wait_List&) = delete;

  /// False, with errno set, if the connection has ended and the response
  /// is not in: the wait is not entered then.
  bool enter(JSON_RPC_Response_Wait& wait);
  void leave(JSON_RPC_Response_Wait& wait);
  /// The connection has ended with error (ECONNRESET, ECONNABORTED...):
  /// fails the waits entered, and every later enter().
  void end(int error);

private:
  ACE_Thread_Mutex lock_;
  std::vector<JSON_RPC_Response_Wait*> waits_;
  int error_;
};

/// The library's view of one connected peer. Transports derive from it and
/// supply the output operations; the library remembers channels only by
/// weak pointer.
class JSON_RPC_EXPORT JSON_RPC_Channel
{
public:
  /// What io_state() reports after a failed send_end.
  enum IO_State
  {
    IO_STATE_OK = 0,
    /// send_end without send_begin.
    IO_STATE_NO_MESSAGE = 1,
    /// The connection is gone or closing: the transport's own affair, which
    /// it logs if it needs a line; nothing for the caller to report.
    IO_STATE_CLOSED = 7
  };

  JSON_RPC_Channel();
  virtual ~JSON_RPC_Channel();
  JSON_RPC_Channel(const JSON_RPC_Channel&) = delete;
  JSON_RPC_Channel& operator=(const JSON_RPC_Channel&) = delete;

  int type() const;
  void type(int type);
  std::string id() const;
  void id(const std::string& id);
  std::string session_id() const;
  void session_id(const std::string& session_id);
  std::map<std::string, json_spirit::Value> version() const;
  void version(const std::map<std::string, json_spirit::Value>& version);

  /// Builds an error response and sends it with send_object. A null message
  /// takes the standard text of code, if there is one; null data is left out.
  int send_error(int code, const json_spirit::Value& id, const char* message, const json_spirit::Value& data);

  /// Writes one whole message. Called from any thread; must not change object.
  virtual int send_object(JSON_RPC_Object_Ptr object) = 0;
  /// Writes one whole message produced by generator while it is sent.
  virtual int send_generator(JSON_Generator& generator) = 0;
  /// Opens a message for token-by-token writing; null if it can't.
  virtual yajl_gen_t* send_begin() = 0;
  /// Closes the message of send_begin; on -1, io_state() tells whether it matters.
  virtual int send_end() = 0;
  /// Forwarding: the base forms do nothing and return -1.
  virtual int put_forward_entry(JSON_RPC_Channel_Weak_Ptr requester, const json_spirit::Value& id);
  virtual int get_forward_entry(int forward_id, JSON_RPC_Channel_Weak_Ptr& requester, json_spirit::Value& id);
  virtual int forward(JSON_RPC_Channel_Weak_Ptr requester, JSON_RPC_Object_Ptr object);
  virtual int get_local_addr(ACE_Addr& addr) const = 0;
  virtual int get_remote_addr(ACE_Addr& addr) const = 0;
  /// State of the output after a failed send_end; 7 means nothing to report.
  virtual int io_state() = 0;
  /// The address to publish for this peer; base: -1.
  virtual int get_original_addr(ACE_Addr& addr) const;
  /// The lock that orders writers of the output; null if none is needed.
  virtual ACE_Lock* io_mutex();
  /// Waits for the response to a request sent over this channel, as
  /// wait.wait does. A transport may read the channel on the waiting thread
  /// meanwhile, dispatching the responses it meets: the TCP transport does
  /// when the waiter is the thread that reads the channel (a direct handler
  /// calling its peer back). The base only waits.
  virtual bool wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline);

private:
  int type_;
  std::string id_;
  std::string session_id_;
  std::map<std::string, json_spirit::Value> version_;
  mutable ACE_Thread_Mutex lock_;
};

/// Sends object if the channel still lives; the result is not reported, as
/// registers that publish to many channels ignore it.
JSON_RPC_EXPORT void send_if_alive(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object);

/// A response to a forwarded request that a reader assembled instead of
/// streaming it (an error, or a result ahead of its id) goes to its
/// requester under the requester's id, found (and removed) with
/// forwarder's get_forward_entry. False if object answers no forward of
/// forwarder: it is then an ordinary response. The object is changed: the
/// reader must be done with it, and nobody else have it.
JSON_RPC_EXPORT bool pass_back_response(JSON_RPC_Channel& forwarder, const JSON_RPC_Object_Ptr& object);

#endif
