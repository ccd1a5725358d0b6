// jsonrpc-call over HTTP: a JSON-RPC call or notification as one POST, or a
// REST request, with the answer told apart from a failed exchange.
#ifndef PROGRAMS_CALL_HTTP_H
#define PROGRAMS_CALL_HTTP_H

#include "json_source.h"

#include "tessel/http_client.h"

#include <string>

class ACE_SSL_Context;

namespace program
{
  /// jsonrpc-call's exit statuses.
  enum Exit
  {
    EXIT_RESULT = 0,
    EXIT_ERROR_RESPONSE = 1,
    EXIT_USAGE = 2,
    EXIT_FAILED = 3
  };

  struct HTTP_Call
  {
    HTTP_Endpoint endpoint;
    std::string path;
    /// The JSON-RPC method, or with rest the verb (GET, POST, PUT, DELETE).
    std::string method;
    bool rest = false;
    bool notify = false;
    /// params of the call or body of the REST request; null for none.
    JSON_Source* body = nullptr;
    /// Seconds; 0 or less: no limit.
    int timeout = 60;
    int connect_timeout = 10;
    /// Trust for TLS: this context's, or none with insecure, or else the
    /// system's.
    ACE_SSL_Context* context = nullptr;
    bool insecure = false;
  };

  /// The REST verb's method number; -1 for another word.
  int rest_method(const std::string& verb);

  /// One exchange: the answer's document on standard output, its status on
  /// standard error; the exit status.
  int run_http(const HTTP_Call& call);
}

#endif
