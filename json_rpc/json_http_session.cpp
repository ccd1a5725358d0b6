#include "json_rpc/json_http_session.h"
#include "json_rpc/json_http_body.h"
#include "json_spirit/json_spirit_reader.h"
#include "tessel/retry.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <sstream>
#include <string>

using json_spirit::Value;

bool check_json_content_type(const HTTP_Session* session, const HTTP_Request& request, const HTTP_Response& response)
{
  char const* type = response.content_type();
  if (http_header_value_match(type, "application/json", ';'))
    return true;
  ACE_ERROR((LM_ERROR, "HTTP response Content-Type (%C) of JSON %C must be application/json\n", type ? type : "",
             HTTP_Session_URL(session, request).c_str()));
  return false;
}

void log_body_read_failure(const HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request)
{
  errno = connection.error();
  ACE_ERROR((LM_ERROR, "Failed to GET data from JSON %C, errno=%d, %m\n", HTTP_Session_URL(session, request).c_str(),
             connection.error()));
}

void log_receive_failure(const HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request)
{
  errno = connection.error();
  ACE_ERROR((LM_ERROR, "Failed to receive response from %C, errno=%d, %m\n", HTTP_Session_URL(session, request).c_str(),
             connection.error()));
}

int read_json_body(HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request,
                   const HTTP_Response& response, Value& out, bool check_type, bool clear, char const* finish_format)
{
  if (check_type && !check_json_content_type(session, request, response))
    return JSON_BODY_TYPE;
  JSON_Reader reader;
  if (!reader.open())
  {
    ACE_ERROR((LM_ERROR, "Failed to open JSON %C reader.\n", HTTP_Session_URL(session, request).c_str()));
    return JSON_BODY_OPEN;
  }
  if (clear)
    out = Value::null;
  reader.result(&out);
  int read = http_read_body(connection, [&reader](char const* data, size_t length) {
    return reader.read(data, length, 1);
  });
  if (read == -1)
  {
    log_body_read_failure(connection, session, request);
    return JSON_BODY_READ;
  }
  if (read == -2)
  {
    ACE_ERROR((LM_ERROR, "Failed to parse JSON %C response.\n", HTTP_Session_URL(session, request).c_str()));
    return JSON_BODY_PARSE;
  }
  if (!reader.read(nullptr, 0, 1))
  {
    ACE_ERROR((LM_ERROR, finish_format, HTTP_Session_URL(session, request).c_str()));
    return JSON_BODY_FINISH;
  }
  return JSON_BODY_OK;
}

namespace
{
  typedef JSON_HTTP_Session::Exchange_Status Status;

  int as_attempt(int status)
  {
    return status == JSON_HTTP_Session::EXCHANGE_OK ? 1 : status == JSON_HTTP_Session::EXCHANGE_FAILED ? -1 : 0;
  }

  // Up to the response head, in the form that streaming selects.
  template <class Body>
  Status send_step(HTTP_Session* session, HTTP_Request& request, Body* body, HTTP_Response& response,
                   HTTP_Connection_Ptr& connection, bool streaming)
  {
    if (streaming)
    {
      if (body)
        request.content_type("application/json");
      if (request.method() == HTTP_Request::METHOD_POST || request.method() == HTTP_Request::METHOD_PUT)
        request.chunked(true);
      connection = session->begin_request(request, 0);
      if (!connection.get())
        return JSON_HTTP_Session::EXCHANGE_RETRY;
      if (body && write_json_body(*connection, *body, session, request) != 0)
        return JSON_HTTP_Session::EXCHANGE_RETRY;
    }
    else
    {
      std::string text;
      if (body)
      {
        std::ostringstream stream;
        YAJL_OStream_Printer printer(&stream);
        if (!JSON_Writer().write(*body, printer, false))
        {
          ACE_ERROR((LM_ERROR, "Failed to serialize JSON body to HTTP connection %C.\n",
                     HTTP_Session_URL(session, request).c_str()));
          return JSON_HTTP_Session::EXCHANGE_RETRY;
        }
        text = stream.str();
        request.headers().put(HTTP_Headers::CONTENT_LENGTH, std::to_string(text.size()).c_str(), true);
        request.content_type("application/json");
      }
      connection = session->begin_request(request, 0);
      if (!connection.get())
        return JSON_HTTP_Session::EXCHANGE_RETRY;
      if (body && connection->write(text.data(), text.size()) <= 0)
      {
        errno = connection->error();
        ACE_ERROR((LM_ERROR, "Failed to POST/PUT data to %C, errno=%d, %m\n",
                   HTTP_Session_URL(session, request).c_str(), connection->error()));
        return JSON_HTTP_Session::EXCHANGE_RETRY;
      }
    }
    response.reset();
    if (connection->read_response(response) == -1)
    {
      log_receive_failure(*connection, session, request);
      return JSON_HTTP_Session::EXCHANGE_RETRY;
    }
    return JSON_HTTP_Session::EXCHANGE_OK;
  }

  template <class Body>
  Status exchange_once(HTTP_Session* session, HTTP_Request& request, Body* body, HTTP_Response& response, Value* out,
                       bool skip_content_type, bool streaming)
  {
    HTTP_Connection_Ptr connection;
    Status status = send_step(session, request, body, response, connection, streaming);
    if (status != JSON_HTTP_Session::EXCHANGE_OK || !out)
      return status;
    if (!response.has_body())
    {
      *out = Value::null;
      return JSON_HTTP_Session::EXCHANGE_OK;
    }
    switch (read_json_body(*connection, session, request, response, *out, !skip_content_type, true,
                           "Failed to finish parsing JSON %C response.\n"))
    {
    case JSON_BODY_OK: return JSON_HTTP_Session::EXCHANGE_OK;
    case JSON_BODY_READ: return JSON_HTTP_Session::EXCHANGE_RETRY;
    default: return JSON_HTTP_Session::EXCHANGE_FAILED;
    }
  }
}

JSON_HTTP_Session::JSON_HTTP_Session(HTTP_Session_Ptr session, int retries, int retry_timeout)
  : session_(session), skip_content_type_(false), streaming_(true), retries_(retries), retry_timeout_(retry_timeout)
{
}

JSON_HTTP_Session::~JSON_HTTP_Session() {}

bool JSON_HTTP_Session::clear_cookie()
{
  if (!session_.get())
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, session_ is NULL:\n%?\n"));
    return false;
  }
  session_->clear_cookie();
  return true;
}

template <class Body>
bool JSON_HTTP_Session::exchange(int method, HTTP_Request& request, Body* body, HTTP_Response& response, Value* out)
{
  request.method(method);
  HTTP_Session_Ptr session = session_;
  bool skip = skip_content_type_;
  bool streaming = streaming_;
  return retry_with_backoff(retries_, retry_timeout_, [&]() {
           HTTP_Session_Ptr attempt = session;
           return as_attempt(exchange_once(attempt.get(), request, body, response, out, skip, streaming));
         }) == 1;
}

bool JSON_HTTP_Session::get(HTTP_Request& request, HTTP_Response& response, Value* out)
{
  return exchange<const Value>(HTTP_Request::METHOD_GET, request, nullptr, response, out);
}

bool JSON_HTTP_Session::get(HTTP_Request& request, HTTP_Response& response, Value& out)
{
  return get(request, response, &out);
}

bool JSON_HTTP_Session::post(HTTP_Request& request, Value const* body, HTTP_Response& response, Value* out)
{
  return exchange(HTTP_Request::METHOD_POST, request, body, response, out);
}

bool JSON_HTTP_Session::post(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response, Value* out)
{
  return exchange(HTTP_Request::METHOD_POST, request, &body, response, out);
}

bool JSON_HTTP_Session::put(HTTP_Request& request, Value const* body, HTTP_Response& response, Value* out)
{
  return exchange(HTTP_Request::METHOD_PUT, request, body, response, out);
}

bool JSON_HTTP_Session::put(HTTP_Request& request, JSON_Generator& body, HTTP_Response& response, Value* out)
{
  return exchange(HTTP_Request::METHOD_PUT, request, &body, response, out);
}

bool JSON_HTTP_Session::delete_(HTTP_Request& request, HTTP_Response& response, Value* out)
{
  return exchange<const Value>(HTTP_Request::METHOD_DELETE, request, nullptr, response, out);
}

HTTP_Connection_Ptr JSON_HTTP_Session::get(HTTP_Request& request, HTTP_Response& response)
{
  request.method(HTTP_Request::METHOD_GET);
  HTTP_Session_Ptr session = session_;
  HTTP_Connection_Ptr last;
  retry_with_backoff(retries_, retry_timeout_, [&]() {
    HTTP_Session_Ptr attempt = session;
    HTTP_Connection_Ptr connection;
    Status status = send_step<const Value>(attempt.get(), request, nullptr, response, connection, true);
    last = connection;
    return as_attempt(status);
  });
  return last;
}

bool JSON_HTTP_Session::get(HTTP_Request& request, HTTP_Response& response, HTTP_Connection_Ptr connection,
                            IO_Base& sink)
{
  if (!connection.get())
    return false;
  if (!response.has_body())
    return true;
  HTTP_Session_Ptr session = session_;
  if (!skip_content_type_ && !check_json_content_type(session.get(), request, response))
    return false;
  int read = http_read_body(*connection, [&sink](char const* data, size_t length) {
    sink.write(data, length);
    return true;
  });
  if (read == -1)
  {
    log_body_read_failure(*connection, session.get(), request);
    return false;
  }
  return true;
}
