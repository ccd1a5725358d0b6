#ifndef JSON_RPC_READER_H
#define JSON_RPC_READER_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_rpc/json_rpc_parser.h"
#include "json_spirit/json_spirit_reader.h"
#include "tessel/yajl_gen.h"

#include <ace/Lock.h>

#include <string>

/// Assembles JSON-RPC messages fed in pieces into JSON_RPC_Objects.
///
/// Per message: open(), set the channels if needed, read() each piece,
/// read(nullptr, 0), then object(). An empty object() after a successful
/// read means the message carried nothing to build (such as {"id":1}).
///
/// A message whose members belong to two kinds (method after result, or
/// code after params) is refused with err 9: the first kind-fixing member
/// decides the class, and a member of another class makes no sense for it.
///
/// Params filters: with MODE_FILTER_REQUEST and a creator for the method,
/// the events of params go to a filter instead of the object. The reader
/// owns the filter: it is deleted after the value's closing event, at once
/// after a scalar params value (which has no closing event, so the rest of
/// the message is read as usual), and on open(), close(), clear() or
/// destruction when a message is given up in the middle of the value.
class JSON_RPC_EXPORT JSON_RPC_Reader : public JSON_RPC_Parser
{
public:
  enum Mode
  {
    MODE_ASSEMBLE = 1,
    MODE_FORWARD_REQUEST = 2,
    MODE_FORWARD_RESPONSE = 4,
    MODE_FILTER_REQUEST = 8,
    MODE_FILTER_RESPONSE = 16
  };

  enum State
  {
    STATE_IDLE = 0,
    STATE_READING = 1,
    STATE_FORWARDING = 2
  };

  JSON_RPC_Reader();
  ~JSON_RPC_Reader() override;

  bool open();
  void close();
  void clear();

  JSON_RPC_Object_Ptr object() { return object_; }
  unsigned int mode() const { return mode_; }
  void mode(unsigned int mode) { mode_ = mode; }
  int state() const { return state_; }
  bool handled_indirectly() const { return handled_indirectly_; }
  /// True while what is fed goes to a params filter or to a forwarded
  /// response's requester instead of into the object being assembled.
  bool streaming() const { return state_ == STATE_FORWARDING || (delegate && delegate != &json_parser_); }
  /// The id read so far; once a response is forwarded, the requester's.
  const json_spirit::Value& id() const { return id_; }
  /// The answer to the message that read() just refused: -32700 "Parse
  /// error" for text that is no JSON, -32600 "Invalid Request" for JSON
  /// that is no acceptable message (an unknown member, a batch, a wrong
  /// type), -32603 when the reader itself failed; under the message's id if
  /// it was read before the refusal, else null (also for a response that
  /// was being forwarded: its id is not the peer's). Call it before the
  /// reader is opened, closed or cleared again.
  JSON_RPC_Object_Ptr refusal() const;
  void channel(JSON_RPC_Channel_Weak_Ptr channel);
  JSON_RPC_Channel_Strong_Ptr request_channel() { return request_channel_; }
  void request_channel(JSON_RPC_Channel_Strong_Ptr channel);

  bool prepare_request();
  bool prepare_response();
  bool prepare_response_error();

  bool handle_key_i(unsigned int key, char const* value, unsigned long long length) override;

  bool handle_version_i(char const* value, unsigned long long length);
  bool handle_id_i(char const* value, unsigned long long length);
  bool handle_method_i(char const* value, unsigned long long length);
  bool handle_params_i(char const* value, unsigned long long length);
  bool handle_result_i(char const* value, unsigned long long length);
  bool handle_code_i(char const* value, unsigned long long length);
  bool handle_message_i(char const* value, unsigned long long length);
  bool handle_data_i(char const* value, unsigned long long length);

  // Forwarding and filtering steps: 0 not taken, 1 taken, -1 failure.
  int forward_request(char const* value, unsigned long long length);
  int forward_response(char const* value, unsigned long long length);
  int filter_request(char const* value, unsigned long long length);
  int filter_response(char const* value, unsigned long long length);
  bool forward_response_cached_attributes(unsigned int seen, char const* value, unsigned long long length);
  /// Hands the current event to the delegate.
  bool handle_indirectly(char const* value, unsigned long long length);
  void release_lock();

private:
  template <class T>
  bool prepare(bool with_response_fields);
  // The object as the class its member needs; null (err 9) if it is another.
  JSON_RPC_Request* request_object();
  bool fill(json_spirit::Value& target, char const* value, unsigned long long length);
  // Drops a delegate that the reader owns (a filter), before it is lost.
  void release_delegate();
  bool finish_forward();

  bool handled_indirectly_;
  unsigned int mode_;
  int state_;
  json_spirit::Value id_;
  std::string version_;
  JSON_Parser json_parser_;
  JSON_RPC_Object_Ptr object_;
  JSON_RPC_Channel_Weak_Ptr channel_;
  JSON_RPC_Channel_Strong_Ptr request_channel_;
  YAJL_Forward_Handler forward_handler_;
  ACE_Lock* lock_;
};

#endif
