#ifndef JSON_RESTFUL_CLIENT_H
#define JSON_RESTFUL_CLIENT_H

#include "json_rpc/json_http_session.h"
#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/http_client.h"

/// A client for JSON REST services: GET, POST, PUT and DELETE on a URI,
/// with a Value or a JSON_Generator as the body and the response parsed
/// into a Value. It starts with 5 retries, at most 300 seconds of waits,
/// streaming bodies, the Content-Type checked and error logging on.
///
/// Every request form ends in one core: the session test, fill_request,
/// the exchange, and the status test (2xx is success when check_status is
/// true). A response body is parsed before its status is judged, so the
/// server's error document of a 404 still reaches *out.
class JSON_RPC_EXPORT JSON_RESTful_Client
{
public:
  explicit JSON_RESTful_Client(bool check_status);
  JSON_RESTful_Client(HTTP_Session_Ptr session, bool check_status);
  JSON_RESTful_Client(const char* host, unsigned short port, bool ssl, bool check_status);
  virtual ~JSON_RESTful_Client();

  /// Always true.
  virtual bool reset(HTTP_Session_Ptr session);
  /// A new session with connect and read limits of 120 seconds.
  virtual bool reset(const char* host, unsigned short port, bool ssl);
  /// The same with the session's limits given (connect_timeout,
  /// read_timeout, idle_timeout, max_requests of HTTP_Session_Factory) and
  /// the retries; the retry timeout stays.
  bool reset(const char* host, unsigned short port, bool ssl, int connect_timeout, int read_timeout,
             int idle_timeout, int retries, int max_requests);

  virtual bool get(HTTP_Request& request, HTTP_Response& response, json_spirit::Value* out);
  virtual bool post(HTTP_Request& request, JSON_Generator& body, json_spirit::Value* out);
  virtual bool post(HTTP_Request& request, json_spirit::Value const* body, HTTP_Response& response,
                    json_spirit::Value* out);
  virtual bool put(HTTP_Request& request, json_spirit::Value const* body, HTTP_Response& response,
                   json_spirit::Value* out);
  virtual bool put(HTTP_Request& request, JSON_Generator& body, json_spirit::Value* out);
  virtual bool del(HTTP_Request& request, HTTP_Response& response);
  /// Called once for each request before it is sent; a derived class adds
  /// what its requests need. False stops the request.
  virtual bool fill_request(HTTP_Request& request) const;

  bool get(HTTP_Request& request, json_spirit::Value* out);
  bool get(const char* uri, HTTP_Response& response, json_spirit::Value* out);
  bool get(const char* uri, json_spirit::Value* out);
  bool post(HTTP_Request& request, json_spirit::Value const* body, json_spirit::Value* out);
  bool post(const char* uri, json_spirit::Value const* body, HTTP_Response& response, json_spirit::Value* out);
  bool post(const char* uri, json_spirit::Value const* body, json_spirit::Value* out);
  bool post(const char* uri, JSON_Generator& body, json_spirit::Value* out);
  bool put(HTTP_Request& request, json_spirit::Value const* body, json_spirit::Value* out);
  bool put(const char* uri, json_spirit::Value const* body, HTTP_Response& response, json_spirit::Value* out);
  bool put(const char* uri, json_spirit::Value const* body, json_spirit::Value* out);
  bool del(HTTP_Request& request, HTTP_Response& response, json_spirit::Value* out);
  bool del(const char* uri, HTTP_Response& response);
  bool del(HTTP_Request& request);
  bool del(const char* uri);

  void skip_content_type(bool skip) { session_.skip_content_type(skip); }
  bool skip_content_type() const { return session_.skip_content_type(); }
  void streaming(bool on) { session_.streaming(on); }
  bool streaming() const { return session_.streaming(); }
  void retries(int retries) { session_.retries(retries); }
  void retry_timeout(int seconds) { session_.retry_timeout(seconds); }
  bool clear_cookie() { return session_.clear_cookie(); }
  void logging_error(bool on) { logging_error_ = on; }
  explicit operator bool() const { return static_cast<bool>(session_); }

  bool is_status_ok(int status) const { return !check_status_ || (status >= 200 && status <= 299); }
  /// A field for every request of the session.
  bool set_header(int id, const char* value);
  bool set_header(const char* name, const char* value);

private:
  struct Verb;
  template <class Call>
  bool core(const Verb& verb, HTTP_Request& request, HTTP_Response& response, Call call);
  bool has_session() const;

  bool check_status_;
  JSON_HTTP_Session session_;
  bool logging_error_;
};

#endif
