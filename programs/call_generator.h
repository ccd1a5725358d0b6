// A JSON-RPC request or notification written while it is sent, its params
// coming from another generator (a file being read, say).
#ifndef PROGRAMS_CALL_GENERATOR_H
#define PROGRAMS_CALL_GENERATOR_H

#include "json_rpc/json_rpc_generator.h"

#include <string>

namespace program
{
  class Call_Generator : public JSON_RPC_Object_Generator
  {
  public:
    /// An empty id makes a notification; params may be null (no params).
    Call_Generator(const std::string& method, const std::string& id, JSON_Generator* params)
      : method_(method), id_(id), params_(params)
    {
    }

    bool generate_i(YAJL_Gen& gen) override
    {
      if (!id_.empty())
        gen << YAJL_Gen::Str("id", 2) << YAJL_Gen::Str(id_);
      gen << YAJL_Gen::Str("method", 6) << YAJL_Gen::Str(method_);
      if (!params_)
        return gen.ok();
      gen << YAJL_Gen::Str("params", 6);
      return params_->generate(gen.get()) && gen.ok();
    }

  private:
    std::string method_;
    std::string id_;
    JSON_Generator* params_;
  };
}

#endif
