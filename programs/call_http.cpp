// jsonrpc-call over HTTP: one exchange on the calling thread, whose body is
// generated onto the connection in chunks and whose answer is parsed as it
// is read. Only a whole answer is printed; a cut-off one is a failure.
#include "call_http.h"
#include "notification_generator.h"

#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/http_client.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace program
{
  int rest_method(const std::string& verb)
  {
    static const struct
    {
      const char* name;
      int method;
    } verbs[] = {{"GET", HTTP_Request::METHOD_GET},
                 {"POST", HTTP_Request::METHOD_POST},
                 {"PUT", HTTP_Request::METHOD_PUT},
                 {"DELETE", HTTP_Request::METHOD_DELETE}};
    for (const auto& v : verbs)
      if (verb == v.name)
        return v.method;
    return -1;
  }

  namespace
  {
    int failed(const std::string& why)
    {
      std::fprintf(stderr, "jsonrpc-call: the exchange failed: %s\n", why.c_str());
      return EXIT_FAILED;
    }

    std::string connection_error(const HTTP_Connection& connection, int timeout)
    {
      int e = connection.error();
      if (e == ETIME || e == EAGAIN)
        return "no answer within " + std::to_string(timeout) + " s";
      return std::strerror(e);
    }

    // The whole body as one document; false with why set when the body
    // broke off or is no JSON, and doc is then not to be shown.
    bool read_document(HTTP_Connection& connection, json_spirit::Value& doc, int timeout, std::string& why)
    {
      JSON_Reader reader;
      if (!reader.open())
      {
        why = "no JSON reader";
        return false;
      }
      reader.result(&doc);
      int read = http_read_body(connection, [&reader](char const* data, size_t length) {
        return reader.read(data, length, 0);
      });
      if (read == -1)
        why = "the answer broke off: " + connection_error(connection, timeout);
      else if (read == -2)
        why = "the answer is not valid JSON";
      else if (!reader.read(nullptr, 0, 0))
        why = "the answer ended before its JSON document did";
      else
        return true;
      return false;
    }

    bool is_json(const HTTP_Response& response)
    {
      return http_header_value_match(response.content_type(), "application/json", ';');
    }
  }

  int run_http(const HTTP_Call& call)
  {
    const HTTP_Endpoint& endpoint = call.endpoint;
    HTTP_Session_Ptr session =
      HTTP_Session_Factory::create(endpoint.host.c_str(), endpoint.port, endpoint.ssl, nullptr, 1, call.context, call.insecure,
                                   call.connect_timeout, call.timeout, 0, 0);
    if (!session.get())
      return failed("no HTTP session for " + endpoint.host);
    int method = call.rest ? rest_method(call.method) : static_cast<int>(HTTP_Request::METHOD_POST);
    HTTP_Request request(method, call.path.c_str(), true);

    // A JSON-RPC call is always a body; a REST request only when given one.
    JSON_RPC_Request_Generator rpc_request(call.method.c_str(), call.body);
    Notification_Generator rpc_notification(call.method, call.body);
    JSON_Generator* rpc = call.notify ? static_cast<JSON_Generator*>(&rpc_notification) : &rpc_request;
    JSON_Generator* body = call.rest ? static_cast<JSON_Generator*>(call.body) : rpc;
    HTTP_Connection_Ptr connection;
    if (body)
    {
      // Chunked: the length of a body that is read while it is sent is
      // known only at its end.
      request.content_type("application/json");
      request.chunked(true);
      connection = session->begin_form_request(request);
    }
    else
      connection = session->begin_request(request);
    if (!connection.get())
      return failed(std::string("no connection: ") + std::strerror(errno));
    if (body)
    {
      YAJL_HTTP_SOCK_Stream_T_Printer<HTTP_Connection> printer(connection.get());
      bool written = JSON_Writer().write(*body, printer, false);
      if (call.body && !call.body->error().empty())
      {
        std::fprintf(stderr, "jsonrpc-call: %s\n", call.body->error().c_str());
        return EXIT_USAGE;
      }
      if (!written || !printer.good())
        return failed("sending the request: " + connection_error(*connection, call.timeout));
    }
    HTTP_Response response;
    if (connection->read_response(response) == -1)
      return failed(connection_error(*connection, call.timeout));
    int status = response.status();
    std::fprintf(stderr, "HTTP status %d\n", status);
    bool ok = status >= 200 && status <= 299;

    // A notification wants no more than a status.
    if (ok && call.notify)
      return EXIT_RESULT;
    json_spirit::Value doc;
    bool shown = false;
    if (response.has_body() && is_json(response))
    {
      std::string why;
      if (!read_document(*connection, doc, call.timeout, why))
        return failed(why);
      std::printf("%s\n", JSON_Dump(doc, false).c_str());
      std::fflush(stdout);
      shown = true;
    }
    else if (response.has_body())
    {
      char const* type = response.content_type();
      if (ok)
        return failed(std::string("the answer is ") + (type ? type : "of no Content-Type") + ", not JSON");
      std::fprintf(stderr, "jsonrpc-call: the %s body is not shown\n", type ? type : "untyped");
    }
    if (!ok)
      return EXIT_ERROR_RESPONSE;
    if (call.rest)
      return EXIT_RESULT;
    if (!shown)
      return failed("status " + std::to_string(status) + " without a JSON-RPC response");
    bool result = doc.type() == json_spirit::obj_type && doc.get_obj().count("result") == 1;
    return result ? EXIT_RESULT : EXIT_ERROR_RESPONSE;
  }
}
