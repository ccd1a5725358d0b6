// The error that a method's code throws to answer with an error response.
#ifndef JSON_RPC_ERROR_H
#define JSON_RPC_ERROR_H

#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"

#include <stdexcept>
#include <string>

/// An error response, thrown by a method's code: a handler that throws it
/// while it handles a request answers the request with this code, message
/// and data (JSON_RPC_Function_Handler, and every handler that the
/// library runs through run_answering: direct handlers on a TCP channel,
/// per-call threads and the pool). A notification gets no answer; the
/// error is logged at debug priority. Any other exception becomes -32603
/// "Internal error" with its text as data.
///
/// The library itself throws nothing; this is for the code of methods.
class JSON_RPC_EXPORT JSON_RPC_Error : public std::runtime_error
{
public:
  /// An empty message stands for the standard text of code (-32602:
  /// "Invalid params"); a null data is left out of the response.
  explicit JSON_RPC_Error(int code, const std::string& message = std::string(),
                          json_spirit::Value data = json_spirit::Value());
  ~JSON_RPC_Error() override;
  JSON_RPC_Error(const JSON_RPC_Error&) = default;
  JSON_RPC_Error& operator=(const JSON_RPC_Error&) = default;

  int code() const { return code_; }
  /// The message the response carries (what() gives the same text).
  std::string message() const { return what(); }
  const json_spirit::Value& data() const { return data_; }

private:
  int code_;
  json_spirit::Value data_;
};

#endif
