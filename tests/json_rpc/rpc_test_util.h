#ifndef TESTS_JSON_RPC_RPC_TEST_UTIL_H
#define TESTS_JSON_RPC_RPC_TEST_UTIL_H

#include "test_util.h"

#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_reader.h"
#include "json_spirit/json_spirit_writer.h"

#include <string>

struct Read_Outcome
{
  bool ok;
  JSON_RPC_Object_Ptr object;
  unsigned int err;
};

/// Opens reader and feeds it text in pieces of piece bytes (0: whole), then
/// finishes the message.
inline Read_Outcome read_message(JSON_RPC_Reader& reader, const std::string& text, size_t piece = 0)
{
  bool ok = reader.open() && read_in_pieces(reader, text, piece);
  return Read_Outcome{ok, reader.object(), reader.err};
}

inline Read_Outcome read_message(const std::string& text, size_t piece = 0)
{
  JSON_RPC_Reader reader;
  return read_message(reader, text, piece);
}

inline std::string write_object(const JSON_RPC_Object& object)
{
  std::string out;
  YAJL_String_Printer printer(&out);
  JSON_RPC_Writer().write(object, printer);
  return out;
}

/// Every field of a message, the ones the writer leaves out included.
inline std::string describe(const JSON_RPC_Object_Ptr& ptr)
{
  const JSON_RPC_Object* o = ptr.get();
  if (!o)
    return "no object";
  std::string s = "type=" + std::to_string(o->type) + " version=" + o->version + " id=" + JSON_Dump(o->id).str();
  if (o->type == JSON_RPC_Object::TYPE_NOTIFICATION || o->type == JSON_RPC_Object::TYPE_REQUEST)
  {
    auto r = static_cast<const JSON_RPC_Request*>(o);
    return s + " method=" + r->method + " params=" + JSON_Dump(r->params).str();
  }
  if (o->type == JSON_RPC_Object::TYPE_RESPONSE)
    return s + " result=" + JSON_Dump(static_cast<const JSON_RPC_Response*>(o)->result).str();
  if (o->type != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    return s + " bad type";
  auto e = static_cast<const JSON_RPC_Response_Error*>(o);
  return s + " code=" + std::to_string(e->code) + " message=" + e->message + " data=" + JSON_Dump(e->data).str();
}

#endif
