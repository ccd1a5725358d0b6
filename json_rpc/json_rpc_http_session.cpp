#include "json_rpc/json_rpc_http_session.h"
#include "json_rpc/json_http_body.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_reader.h"
#include "tessel/retry.h"

#include <ace/Log_Msg.h>

#include <cerrno>

using json_spirit::Value;

JSON_RPC_HTTP_Session::JSON_RPC_HTTP_Session(HTTP_Session_Ptr session, const char* uri, int retries, int retry_timeout)
  : session_(session), request_(HTTP_Request::METHOD_GET, "/", false), uri_(uri), retries_(retries),
    retry_timeout_(retry_timeout)
{
  request_.method(HTTP_Request::METHOD_POST);
  request_.uri(uri_.c_str(), true);
}

JSON_RPC_HTTP_Session::~JSON_RPC_HTTP_Session() {}

void JSON_RPC_HTTP_Session::reset(HTTP_Session_Ptr session, const char* uri)
{
  session_ = session;
  if (uri && *uri)
    uri_ = uri;
}

HTTP_Connection_Ptr JSON_RPC_HTTP_Session::send_request(JSON_RPC_Object_Ptr object)
{
  if (object->type != JSON_RPC_Object::TYPE_NOTIFICATION && object->type != JSON_RPC_Object::TYPE_REQUEST)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, obj is neither JSON-RPC request nor notify!\n"));
    return HTTP_Connection_Ptr();
  }
  if (!session_.get())
    return HTTP_Connection_Ptr();
  HTTP_Request request(HTTP_Request::METHOD_POST, uri_.c_str(), false);
  request.keep_alive(true);
  request.content_type("application/json");
  request.chunked(true);
  HTTP_Connection_Ptr connection = session_->begin_request(request, 0);
  if (!connection.get())
  {
    ACE_ERROR((LM_ERROR, "Failed to send JSON-RPC request to HTTP connection %C.\n",
               HTTP_Session_URL(session_, request).c_str()));
    return connection;
  }
  YAJL_HTTP_SOCK_Stream_T_Printer<HTTP_Connection> printer(connection.get());
  JSON_RPC_Writer writer;
  if (!writer.write(*object, printer))
  {
    ACE_ERROR((LM_ERROR, "Failed to serialize JSON-RPC body to HTTP connection %C.\n",
               HTTP_Session_URL(session_, request).c_str()));
    return HTTP_Connection_Ptr();
  }
  if (!printer.good())
  {
    errno = connection->error();
    ACE_ERROR((LM_ERROR, "Failed to POST JSON-RPC body to %C, errno=%d, %m\n",
               HTTP_Session_URL(session_, request).c_str(), connection->error()));
    return HTTP_Connection_Ptr();
  }
  return connection;
}

namespace
{
  void log_head_failure(const HTTP_Connection& connection)
  {
    errno = connection.error();
    ACE_ERROR((LM_ERROR, "Failed to receive HTTP response, errno=%d, %m\n", connection.error()));
  }
}

bool JSON_RPC_HTTP_Session::notify(JSON_RPC_Object_Ptr object)
{
  HTTP_Connection_Ptr connection = send_request(object);
  if (!connection.get())
    return false;
  HTTP_Response response;
  if (connection->read_response(response) == -1)
  {
    log_head_failure(*connection);
    return false;
  }
  return response.status() == 200;
}

std::map<std::string, Value> JSON_RPC_HTTP_Session::make_json_rpc_body(const char* method, const Value* params)
{
  std::map<std::string, Value> body;
  body["id"] = Value(JSON_RPC_Id_Generator::get());
  body["jsonrpc"] = Value("2.0");
  body["method"] = Value(method);
  if (params)
    body["params"] = *params;
  return body;
}

JSON_RPC_Object_Ptr JSON_RPC_HTTP_Session::request(JSON_RPC_Object_Ptr object)
{
  HTTP_Connection_Ptr connection = send_request(object);
  if (!connection.get())
    return JSON_RPC_Object_Ptr();
  return receive_response(connection);
}

bool JSON_RPC_HTTP_Session::call(const char* method, const Value* params, Value* result)
{
  if (!method || !*method)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method is NULL or \"\":\n%?\n"));
    return false;
  }
  HTTP_Response response;
  // One id for all the attempts of this call.
  Value body(make_json_rpc_body(method, params));
  HTTP_Connection_Ptr connection = send_body_with_retry(session_, request_, &body, retries_, retry_timeout_);
  return parse_body(connection, request_, response, result) && response.status() == 200;
}

bool JSON_RPC_HTTP_Session::request(const char* method, Value* result) { return call(method, nullptr, result); }

bool JSON_RPC_HTTP_Session::request(const char* method, const Value& params, Value* result)
{
  return call(method, &params, result);
}

bool JSON_RPC_HTTP_Session::request(HTTP_Request& request, const Value* body, HTTP_Response& response, Value* result)
{
  HTTP_Connection_Ptr connection = send_body_with_retry(session_, request, body, retries_, retry_timeout_);
  return parse_body(connection, request, response, result);
}

bool JSON_RPC_HTTP_Session::request(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response,
                                    Value* result)
{
  HTTP_Connection_Ptr connection = send_body_with_retry(session_, request, &body, retries_, retry_timeout_);
  return parse_body(connection, request, response, result);
}

template <class Body>
HTTP_Connection_Ptr JSON_RPC_HTTP_Session::send_body(HTTP_Session_Ptr session, HTTP_Request& request, Body* body)
{
  if (body)
    request.content_type("application/json");
  request.chunked(true);
  HTTP_Connection_Ptr connection = session->begin_form_request(request);
  if (!connection.get() || !body)
    return connection;
  if (write_json_body(*connection, *body, session.get(), request) != 0)
    return HTTP_Connection_Ptr();
  return connection;
}

template <class Body>
HTTP_Connection_Ptr JSON_RPC_HTTP_Session::send_body_with_retry(HTTP_Session_Ptr session, HTTP_Request& request,
                                                                Body* body, int retries, int retry_timeout)
{
  HTTP_Connection_Ptr connection;
  retry_with_backoff(retries, retry_timeout, [&]() {
    connection = send_body(session, request, body);
    return connection.get() ? 1 : 0;
  });
  return connection;
}

JSON_RPC_Object_Ptr JSON_RPC_HTTP_Session::receive_response(HTTP_Connection_Ptr connection)
{
  HTTP_Response response;
  if (connection->read_response(response) == -1)
  {
    log_head_failure(*connection);
    return JSON_RPC_Object_Ptr();
  }
  if (response.status() != 200)
  {
    ACE_ERROR((LM_ERROR, "JSON_RPC response status (%d) is not OK.\n", response.status()));
    return JSON_RPC_Object_Ptr();
  }
  if (!response.has_body())
  {
    ACE_ERROR((LM_ERROR, "No body data for JSON-RPC request.\n"));
    return JSON_RPC_Object_Ptr();
  }
  char const* type = response.content_type();
  if (!http_header_value_match(type, "application/json", ';'))
  {
    ACE_ERROR((LM_ERROR, "Invalid Content-Type (%C) of JSON-RPC response.\n", type ? type : ""));
    return JSON_RPC_Object_Ptr();
  }
  JSON_RPC_Reader reader;
  if (!reader.open())
  {
    ACE_ERROR((LM_ERROR, "Failed to open JSON-RPC reader.\n"));
    return JSON_RPC_Object_Ptr();
  }
  int read = http_read_body(*connection, [&reader](char const* data, size_t length) {
    return reader.read(data, length);
  });
  if (read == -1)
  {
    errno = connection->error();
    ACE_ERROR((LM_ERROR, "Failed to read JSON-RPC response data errno=%d, %m.\n", connection->error()));
    return JSON_RPC_Object_Ptr();
  }
  if (read == -2)
  {
    ACE_ERROR((LM_ERROR, "Failed to parse JSON-RPC response.\n"));
    return JSON_RPC_Object_Ptr();
  }
  if (!reader.read(nullptr, 0))
  {
    ACE_ERROR((LM_ERROR, "Failed to finish JSON-RPC response.\n"));
    return JSON_RPC_Object_Ptr();
  }
  return reader.object();
}

bool JSON_RPC_HTTP_Session::parse_body(HTTP_Connection_Ptr connection, const HTTP_Request& request,
                                       HTTP_Response& response, Value* result)
{
  if (!connection.get())
    return false;
  response.reset();
  if (connection->read_response(response) == -1)
  {
    log_receive_failure(*connection, session_.get(), request);
    return false;
  }
  if (!result)
    return true;
  return parse_body_i(connection, request, response, *result);
}

bool JSON_RPC_HTTP_Session::parse_body_i(HTTP_Connection_Ptr connection, const HTTP_Request& request,
                                         HTTP_Response& response, Value& result)
{
  if (!connection.get())
    return false;
  if (!response.has_body())
  {
    ACE_ERROR((LM_ERROR, "No body data of JSON %C.\n", HTTP_Session_URL(session_, request).c_str()));
    return false;
  }
  return read_json_body(*connection, session_.get(), request, response, result, true, false,
                        "Failed to finish parsing JOSN %C response.\n") == JSON_BODY_OK;
}
