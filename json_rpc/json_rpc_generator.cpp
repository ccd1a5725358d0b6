#include "json_rpc/json_rpc_generator.h"
#include "json_spirit/json_spirit_writer.h"

#include <ace/Log_Msg.h>

JSON_RPC_Writer::JSON_RPC_Writer() : gen_(nullptr), printer_(nullptr), batched_(false) {}

JSON_RPC_Writer::~JSON_RPC_Writer()
{
  close();
  if (gen_)
    yajl_gen_free(gen_);
}

yajl_gen_t* JSON_RPC_Writer::open(YAJL_Printer& printer) { return open_i(printer, false); }

yajl_gen_t* JSON_RPC_Writer::open_i(YAJL_Printer& printer, bool batched)
{
  close();
  // A writer that is used again keeps its generator: reset, it starts a
  // new message as a new one would.
  if (gen_)
    yajl_gen_reset(gen_, nullptr);
  else
  {
    gen_ = yajl_gen_alloc(nullptr);
    if (!gen_)
      return nullptr;
    yajl_gen_config(gen_, yajl_gen_print_callback, &JSON_RPC_Writer::print_w, this);
  }
  printer_ = &printer;
  batched_ = batched;
  if (batched)
    batch_.target(&printer);
  return gen_;
}

void JSON_RPC_Writer::close()
{
  // Only the write forms batch, and they close before they return: a
  // printer that has gone meanwhile is never printed into from here.
  if (batched_)
    batch_.target(nullptr);
  batched_ = false;
  printer_ = nullptr;
}

void JSON_RPC_Writer::print_w(void* ctx, const char* data, size_t length)
{
  JSON_RPC_Writer* w = static_cast<JSON_RPC_Writer*>(ctx);
  if (w->batched_)
    w->batch_.YAJL_Batch_Printer::print(data, length);
  else if (w->printer_)
    w->printer_->print(data, length);
}

namespace
{
  void key(yajl_gen_t* gen, char const* name, size_t length)
  {
    yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(name), length);
  }

  void string(yajl_gen_t* gen, const std::string& s)
  {
    yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(s.data()), s.size());
  }
}

bool JSON_RPC_Writer::write(JSON_RPC_Object const& object, YAJL_Printer& printer)
{
  yajl_gen_t* gen = open_i(printer, true);
  if (!gen)
    return false;
  bool known = true;
  yajl_gen_map_open(gen);
  key(gen, "jsonrpc", 7);
  string(gen, object.version);
  if (object.type != JSON_RPC_Object::TYPE_NOTIFICATION)
  {
    key(gen, "id", 2);
    yajl_gen_value(gen, object.id);
  }
  switch (object.type)
  {
  case JSON_RPC_Object::TYPE_NOTIFICATION:
  case JSON_RPC_Object::TYPE_REQUEST:
  {
    const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(object);
    key(gen, "method", 6);
    string(gen, request.method);
    if (!request.params.is_null())
    {
      key(gen, "params", 6);
      yajl_gen_value(gen, request.params);
    }
    break;
  }
  case JSON_RPC_Object::TYPE_RESPONSE:
    key(gen, "result", 6);
    yajl_gen_value(gen, static_cast<const JSON_RPC_Response&>(object).result);
    break;
  case JSON_RPC_Object::TYPE_RESPONSE_ERROR:
  {
    const JSON_RPC_Response_Error& error = static_cast<const JSON_RPC_Response_Error&>(object);
    key(gen, "error", 5);
    yajl_gen_map_open(gen);
    key(gen, "code", 4);
    yajl_gen_integer(gen, error.code);
    key(gen, "message", 7);
    string(gen, error.message);
    if (!error.data.is_null())
    {
      key(gen, "data", 4);
      yajl_gen_value(gen, error.data);
    }
    yajl_gen_map_close(gen);
    break;
  }
  default: known = false; break;
  }
  yajl_gen_map_close(gen);
  close();
  return known;
}

bool JSON_RPC_Writer::write(JSON_Generator& generator, YAJL_Printer& printer)
{
  yajl_gen_t* gen = open_i(printer, true);
  if (!gen)
    return false;
  bool ok = generator.generate(gen);
  close();
  return ok;
}

JSON_RPC_Object_Generator::JSON_RPC_Object_Generator() {}
JSON_RPC_Object_Generator::~JSON_RPC_Object_Generator() {}

bool JSON_RPC_Object_Generator::generate(yajl_gen_t* gen)
{
  if (!gen)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, gen is NULL:\n%?\n"));
    return false;
  }
  YAJL_Gen g(gen, false);
  YAJL_Map_Guard guard(gen);
  g << YAJL_Gen::Str("jsonrpc", 7) << YAJL_Gen::Str("2.0", 3);
  return generate_i(g);
}

JSON_RPC_Request_Generator::JSON_RPC_Request_Generator(char const* method, JSON_Generator* p)
  : method_(method ? method : ""), id_(JSON_RPC_Id_Generator::get()), params(p)
{
}

JSON_RPC_Request_Generator::~JSON_RPC_Request_Generator() {}

bool JSON_RPC_Request_Generator::generate_i(YAJL_Gen& gen)
{
  if (method_.empty())
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method_ is empty:\n%?\n"));
    return false;
  }
  gen << YAJL_Gen::Str("method", 6) << YAJL_Gen::Str(method_) << YAJL_Gen::Str("id", 2) << YAJL_Gen::Str(id_);
  gen << YAJL_Gen::Str("params", 6);
  if (params)
    return params->generate(gen.get());
  yajl_gen_null(gen.get());
  return true;
}
