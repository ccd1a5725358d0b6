#ifndef JSON_RPC_HTTP_SESSION_H
#define JSON_RPC_HTTP_SESSION_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/http_client.h"

#include <map>
#include <string>

/// JSON-RPC over HTTP POST: one call is one exchange on the calling thread,
/// and the response is the body of the HTTP response.
///
/// Two paths. The message path (request(object), notify) writes a message
/// object with JSON_RPC_Writer, makes one attempt and wants status 200. The
/// raw body path (the other request forms) writes a Value or a generator
/// with JSON_Writer, repeats the sending with back-off as far as retries
/// and retry_timeout allow, and gives the whole response document; a
/// JSON-RPC error inside a 200 is success there, for the caller to open.
///
/// The raw body path needs a session: test the object first.
class JSON_RPC_EXPORT JSON_RPC_HTTP_Session
{
public:
  /// uri must not be null.
  JSON_RPC_HTTP_Session(HTTP_Session_Ptr session, const char* uri, int retries, int retry_timeout);
  ~JSON_RPC_HTTP_Session();

  /// uri null or empty keeps the one there is.
  void reset(HTTP_Session_Ptr session, const char* uri);
  void retries(int retries) { retries_ = retries; }
  void retry_timeout(int seconds) { retry_timeout_ = seconds; }
  explicit operator bool() const { return session_.get() != nullptr; }

  /// The sending half of the message path: a connection ready for the
  /// response, or null. object must hold a request or a notification.
  HTTP_Connection_Ptr send_request(JSON_RPC_Object_Ptr object);
  /// One exchange without reading a body: true for status 200.
  bool notify(JSON_RPC_Object_Ptr object);
  /// The members of a request with a new id; params may be null.
  std::map<std::string, json_spirit::Value> make_json_rpc_body(const char* method, const json_spirit::Value* params);

  /// The response message, or an empty pointer.
  JSON_RPC_Object_Ptr request(JSON_RPC_Object_Ptr object);
  /// True when the exchange ended with status 200; result may be null.
  bool request(const char* method, json_spirit::Value* result);
  bool request(const char* method, const json_spirit::Value& params, json_spirit::Value* result);
  /// The caller's own request and body (may be null): true when the
  /// exchange went through, whatever the status in response.
  bool request(HTTP_Request& request, const json_spirit::Value* body, HTTP_Response& response,
               json_spirit::Value* result);
  bool request(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response, json_spirit::Value* result);

  /// Reads a response message; status 200 and application/json only.
  JSON_RPC_Object_Ptr receive_response(HTTP_Connection_Ptr connection);
  /// Reads the head into response and, unless result is null, the body into
  /// *result. A null connection gives false.
  bool parse_body(HTTP_Connection_Ptr connection, const HTTP_Request& request, HTTP_Response& response,
                  json_spirit::Value* result);
  bool parse_body_i(HTTP_Connection_Ptr connection, const HTTP_Request& request, HTTP_Response& response,
                    json_spirit::Value& result);

private:
  bool call(const char* method, const json_spirit::Value* params, json_spirit::Value* result);
  template <class Body>
  HTTP_Connection_Ptr send_body(HTTP_Session_Ptr session, HTTP_Request& request, Body* body);
  template <class Body>
  HTTP_Connection_Ptr send_body_with_retry(HTTP_Session_Ptr session, HTTP_Request& request, Body* body, int retries,
                                           int retry_timeout);

  HTTP_Session_Ptr session_;
  HTTP_Request request_;
  std::string uri_;
  int retries_;
  int retry_timeout_;
};

#endif
