#ifndef JSON_FORM_POST_H
#define JSON_FORM_POST_H

#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/http_client.h"

#include <map>
#include <string>

/// Posts form as application/x-www-form-urlencoded (pairs in name order,
/// "/" encoded, a blank as "+", lower-case hex) on a request that has its
/// method and URI, in one attempt. With out not null, asks for JSON and
/// parses the response body into *out, whatever its Content-Type. True
/// when the form went out, the head came back and, with out, a whole
/// document was read; the status is the caller's to judge.
JSON_RPC_EXPORT bool http_post_urlencoded_form(HTTP_Session_Ptr session, HTTP_Request& request,
                                               const std::map<std::string, std::string>& form,
                                               HTTP_Response& response, json_spirit::Value* out);

#endif
