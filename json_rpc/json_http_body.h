#ifndef JSON_HTTP_BODY_H
#define JSON_HTTP_BODY_H

// The steps of a JSON exchange that the HTTP clients of this library share.
// Inside the library; not installed.

#include "json_spirit/json_spirit_value.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/http_client.h"

#include <ace/Log_Msg.h>

/// Writes body as compact JSON onto the connection. 0; -1 when the writer
/// refused it, -2 when the connection did (each logged).
template <class Body>
int write_json_body(HTTP_Connection& connection, Body& body, const HTTP_Session* session,
                    const HTTP_Request& request)
{
  YAJL_HTTP_SOCK_Stream_T_Printer<HTTP_Connection> printer(&connection);
  if (!JSON_Writer().write(body, printer, false))
  {
    ACE_ERROR((LM_ERROR, "Failed to serialize JSON body to HTTP connection %C.\n",
               HTTP_Session_URL(session, request).c_str()));
    return -1;
  }
  if (!printer.good())
  {
    ACE_ERROR((LM_ERROR, "Failed to POST/PUT data to %C, errno=%d, %m\n", HTTP_Session_URL(session, request).c_str(),
               connection.error()));
    return -2;
  }
  return 0;
}

enum JSON_Body_Result
{
  JSON_BODY_OK = 0,
  JSON_BODY_TYPE,    ///< Content-Type is not application/json
  JSON_BODY_OPEN,    ///< the reader could not be opened
  JSON_BODY_READ,    ///< the connection failed
  JSON_BODY_PARSE,   ///< a piece was no JSON
  JSON_BODY_FINISH   ///< the document did not end
};

/// Parses the body of a response whose head has been read into out, which
/// is set to null first when clear is true. Each failure is logged; the
/// last message is finish_format, with the address for its one %C.
int read_json_body(HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request,
                   const HTTP_Response& response, json_spirit::Value& out, bool check_type, bool clear,
                   char const* finish_format);

/// "Failed to GET data from JSON ..." with the connection's errno.
void log_body_read_failure(const HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request);

/// "Failed to receive response from ..." with the connection's errno.
void log_receive_failure(const HTTP_Connection& connection, const HTTP_Session* session, const HTTP_Request& request);

/// The Content-Type test of a JSON response; logged when it fails.
bool check_json_content_type(const HTTP_Session* session, const HTTP_Request& request, const HTTP_Response& response);

#endif
