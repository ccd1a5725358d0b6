// A JSON-RPC notification written while it is sent, its params coming from
// another generator (a file being read, say). Requests have the library's
// JSON_RPC_Request_Generator.
#ifndef PROGRAMS_NOTIFICATION_GENERATOR_H
#define PROGRAMS_NOTIFICATION_GENERATOR_H

#include "json_rpc/json_rpc_generator.h"

#include <string>

namespace program
{
  class Notification_Generator : public JSON_RPC_Object_Generator
  {
  public:
    /// params may be null (no params).
    Notification_Generator(const std::string& method, JSON_Generator* params) : method_(method), params_(params) {}

    bool generate_i(YAJL_Gen& gen) override
    {
      gen << YAJL_Gen::Str("method", 6) << YAJL_Gen::Str(method_);
      if (!params_)
        return gen.ok();
      gen << YAJL_Gen::Str("params", 6);
      return params_->generate(gen.get()) && gen.ok();
    }

  private:
    std::string method_;
    JSON_Generator* params_;
  };
}

#endif
