#include "json_rpc/json_restful_client.h"

#include <ace/Log_Msg.h>

using json_spirit::Value;

/// What tells the verbs apart in the core: their log lines.
struct JSON_RESTful_Client::Verb
{
  const char* fill_failed;
  const char* status_failed;
};

namespace
{
  bool has_uri(const char* uri)
  {
    if (uri && *uri)
      return true;
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, uri is NULL or \"\":\n%?\n"));
    return false;
  }

  const int default_retries = 5;
  const int default_retry_timeout = 300;
}

JSON_RESTful_Client::JSON_RESTful_Client(bool check_status)
  : check_status_(check_status), session_(HTTP_Session_Ptr(), default_retries, default_retry_timeout),
    logging_error_(true)
{
}

JSON_RESTful_Client::JSON_RESTful_Client(HTTP_Session_Ptr session, bool check_status)
  : JSON_RESTful_Client(check_status)
{
  reset(session);
}

JSON_RESTful_Client::JSON_RESTful_Client(const char* host, unsigned short port, bool ssl, bool check_status)
  : JSON_RESTful_Client(check_status)
{
  reset(host, port, ssl);
}

JSON_RESTful_Client::~JSON_RESTful_Client() {}

bool JSON_RESTful_Client::reset(HTTP_Session_Ptr session)
{
  session_.reset(session);
  return true;
}

bool JSON_RESTful_Client::reset(const char* host, unsigned short port, bool ssl)
{
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(host, port, ssl, nullptr, 3, nullptr, false, 120, 120, 0, 0);
  if (!session.get())
    return false;
  return reset(session);
}

bool JSON_RESTful_Client::reset(const char* host, unsigned short port, bool ssl, int connect_timeout,
                                int read_timeout, int idle_timeout, int retries, int max_requests)
{
  HTTP_Session_Ptr session =
    HTTP_Session_Factory::create(host, port, ssl, nullptr, 3, nullptr, false, connect_timeout, read_timeout,
                                 idle_timeout, static_cast<unsigned int>(max_requests));
  if (!session.get())
    return false;
  session_.reset(session);
  session_.retries(retries);
  return true;
}

bool JSON_RESTful_Client::fill_request(HTTP_Request&) const { return true; }

bool JSON_RESTful_Client::has_session() const
{
  if (session_)
    return true;
  ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, session_ is false:\n%?\n"));
  return false;
}

bool JSON_RESTful_Client::set_header(int id, const char* value)
{
  return has_session() && session_.get()->headers().put(id, value, true) == 0;
}

bool JSON_RESTful_Client::set_header(const char* name, const char* value)
{
  return has_session() && session_.get()->headers().put(name, value, true) == 0;
}

template <class Call>
bool JSON_RESTful_Client::core(const Verb& verb, HTTP_Request& request, HTTP_Response& response, Call call)
{
  if (!has_session())
    return false;
  if (!fill_request(request))
  {
    if (logging_error_)
      ACE_ERROR((LM_ERROR, verb.fill_failed, HTTP_Session_URL(session_.get(), request).c_str()));
    return false;
  }
  // The exchange has logged its own failure.
  if (!call())
    return false;
  if (!is_status_ok(response.status()))
  {
    if (logging_error_)
      ACE_ERROR((LM_ERROR, verb.status_failed, HTTP_Session_URL(session_.get(), request).c_str(), response.status()));
    return false;
  }
  return true;
}

namespace
{
  const char get_fill[] = "Failed to fill request of GET '%C'.\n";
  const char get_status[] = "Failed to GET data from '%C', status=%d\n";
  const char post_fill[] = "Failed to fill request of POST '%C'\n";
  const char post_status[] = "Failed to POST data to '%C', status=%d\n";
  const char put_fill[] = "Failed to fill request of PUT '%C'\n";
  const char put_status[] = "Failed to PUT data to '%C', status=%d\n";
  const char del_fill[] = "Failed to fill request of DELETE '%C'\n";
  const char del_status[] = "Failed to DELETE data to '%C', status=%d\n";
}

// GET

bool JSON_RESTful_Client::get(HTTP_Request& request, HTTP_Response& response, Value* out)
{
  return core({get_fill, get_status}, request, response, [&] { return session_.get(request, response, out); });
}

bool JSON_RESTful_Client::get(HTTP_Request& request, Value* out)
{
  if (!has_session())
    return false;
  HTTP_Response response;
  return get(request, response, out);
}

bool JSON_RESTful_Client::get(const char* uri, HTTP_Response& response, Value* out)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_GET, uri, false);
  return get(request, response, out);
}

bool JSON_RESTful_Client::get(const char* uri, Value* out)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_GET, uri, false);
  return get(request, out);
}

// POST

bool JSON_RESTful_Client::post(HTTP_Request& request, Value const* body, HTTP_Response& response, Value* out)
{
  return core({post_fill, post_status}, request, response,
              [&] { return session_.post(request, body, response, out); });
}

bool JSON_RESTful_Client::post(HTTP_Request& request, JSON_Generator& body, Value* out)
{
  HTTP_Response response;
  return core({post_fill, post_status}, request, response,
              [&] { return session_.post(request, body, response, out); });
}

bool JSON_RESTful_Client::post(HTTP_Request& request, Value const* body, Value* out)
{
  HTTP_Response response;
  return post(request, body, response, out);
}

bool JSON_RESTful_Client::post(const char* uri, Value const* body, HTTP_Response& response, Value* out)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_POST, uri, false);
  return post(request, body, response, out);
}

bool JSON_RESTful_Client::post(const char* uri, Value const* body, Value* out)
{
  HTTP_Response response;
  return post(uri, body, response, out);
}

bool JSON_RESTful_Client::post(const char* uri, JSON_Generator& body, Value* out)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_POST, uri, false);
  return post(request, body, out);
}

// PUT

bool JSON_RESTful_Client::put(HTTP_Request& request, Value const* body, HTTP_Response& response, Value* out)
{
  return core({put_fill, put_status}, request, response, [&] { return session_.put(request, body, response, out); });
}

bool JSON_RESTful_Client::put(HTTP_Request& request, JSON_Generator& body, Value* out)
{
  HTTP_Response response;
  return core({put_fill, put_status}, request, response, [&] { return session_.put(request, body, response, out); });
}

bool JSON_RESTful_Client::put(HTTP_Request& request, Value const* body, Value* out)
{
  HTTP_Response response;
  return put(request, body, response, out);
}

bool JSON_RESTful_Client::put(const char* uri, Value const* body, HTTP_Response& response, Value* out)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_PUT, uri, false);
  return put(request, body, response, out);
}

bool JSON_RESTful_Client::put(const char* uri, Value const* body, Value* out)
{
  HTTP_Response response;
  return put(uri, body, response, out);
}

// DELETE

bool JSON_RESTful_Client::del(HTTP_Request& request, HTTP_Response& response, Value* out)
{
  return core({del_fill, del_status}, request, response, [&] { return session_.delete_(request, response, out); });
}

bool JSON_RESTful_Client::del(HTTP_Request& request, HTTP_Response& response)
{
  return del(request, response, nullptr);
}

bool JSON_RESTful_Client::del(const char* uri, HTTP_Response& response)
{
  if (!has_uri(uri))
    return false;
  HTTP_Request request(HTTP_Request::METHOD_DELETE, uri, false);
  return del(request, response);
}

bool JSON_RESTful_Client::del(HTTP_Request& request)
{
  HTTP_Response response;
  return del(request, response);
}

bool JSON_RESTful_Client::del(const char* uri)
{
  HTTP_Response response;
  return del(uri, response);
}
