#ifndef JSON_HTTP_SESSION_H
#define JSON_HTTP_SESSION_H

#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/http_client.h"
#include "tessel/utils.h"

/// JSON documents over HTTP: a Value or a JSON_Generator as the request
/// body, the response body parsed into a Value piece by piece, and an
/// exchange that failed on the connection repeated with exponentially
/// spaced waits. A status outside 2xx is no failure here: the caller reads
/// it from the HTTP_Response.
///
/// Every operation but clear_cookie and operator bool needs a session: test
/// the object first. One object serves one caller at a time.
class JSON_RPC_EXPORT JSON_HTTP_Session
{
public:
  enum Exchange_Status
  {
    EXCHANGE_OK = 0,
    EXCHANGE_FAILED = 1,  ///< another attempt would not mend it
    EXCHANGE_RETRY = 2    ///< failed on the connection
  };

  /// retries: repeats after the first attempt (-1: no limit); retry_timeout:
  /// seconds of waiting in all (-1: no limit).
  JSON_HTTP_Session(HTTP_Session_Ptr session, int retries, int retry_timeout);
  ~JSON_HTTP_Session();

  void skip_content_type(bool skip) { skip_content_type_ = skip; }
  bool skip_content_type() const { return skip_content_type_; }
  /// True: a body is generated onto the connection in chunks. False: it is
  /// built in memory first and sent with a Content-Length.
  void streaming(bool on) { streaming_ = on; }
  bool streaming() const { return streaming_; }
  void retries(int retries) { retries_ = retries; }
  void retry_timeout(int seconds) { retry_timeout_ = seconds; }

  HTTP_Session_Ptr get() const { return session_; }
  void reset(HTTP_Session_Ptr session) { session_ = session; }
  explicit operator bool() const { return session_.get() != nullptr; }
  bool clear_cookie();

  /// The exchanges: true when the last attempt went through. out may be
  /// null, and then the response body is not read.
  bool get(HTTP_Request& request, HTTP_Response& response, json_spirit::Value* out);
  bool get(HTTP_Request& request, HTTP_Response& response, json_spirit::Value& out);
  bool post(HTTP_Request& request, json_spirit::Value const* body, HTTP_Response& response,
            json_spirit::Value* out);
  bool post(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response, json_spirit::Value* out);
  bool put(HTTP_Request& request, json_spirit::Value const* body, HTTP_Response& response, json_spirit::Value* out);
  bool put(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response, json_spirit::Value* out);
  bool delete_(HTTP_Request& request, HTTP_Response& response, json_spirit::Value* out);

  /// GET up to the response head, with repeats; the body stays on the
  /// connection, which is null when none could be had.
  HTTP_Connection_Ptr get(HTTP_Request& request, HTTP_Response& response);
  /// Then the body of that connection to sink. No repeats.
  bool get(HTTP_Request& request, HTTP_Response& response, HTTP_Connection_Ptr connection, IO_Base& sink);

private:
  template <class Body>
  bool exchange(int method, HTTP_Request& request, Body* body, HTTP_Response& response, json_spirit::Value* out);

  HTTP_Session_Ptr session_;
  bool skip_content_type_;
  bool streaming_;
  int retries_;
  int retry_timeout_;
};

#endif
