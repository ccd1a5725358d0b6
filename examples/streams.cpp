// big.result: answers with a result of any size that never exists whole in
// this process. Params {"mb": N}; the result is the array 0, 1, 2, ...
// (element k is k % 1000000), as long as its text needs to reach N MiB
// (N = 0: an empty array). The response is generated token by token while
// the channel writes it: with NDJSON framing the TCP transport sends it in
// 64 KiB pieces, with Content-Length it has to hold the body to count it.
//
// Record params: "--max-mb N" caps N (1024 by default).
#include "example_util.h"

#include "json_rpc/json_rpc_generator.h"
#include "json_spirit/json_spirit_writer.h"
#include "json_rpc/json_rpc_handler.h"

#include <charconv>
#include <cstring>

namespace
{
  using json_spirit::Value;

  const unsigned long long mib = 1024 * 1024;

  class Big_Result_Generator : public JSON_RPC_Object_Generator
  {
  public:
    Big_Result_Generator(const Value& id, unsigned long long bytes) : id_(id), bytes_(bytes) {}

    bool generate_i(YAJL_Gen& gen) override
    {
      gen << YAJL_Gen::Str("id", 2);
      if (yajl_gen_value(gen.get(), id_) != 0)
        return false;
      gen << YAJL_Gen::Str("result", 6);
      gen.array_open();
      char text[24];
      // Two characters for the brackets; each element adds its digits and
      // a comma (one comma too many, for the first).
      for (unsigned long long k = 0, size = 1; size < bytes_ && gen.ok(); ++k)
      {
        char* end = std::to_chars(text, text + sizeof text, k % 1000000).ptr;
        size += static_cast<unsigned long long>(end - text) + 1;
        gen << YAJL_Gen::Number(text, static_cast<unsigned long long>(end - text));
      }
      gen.array_close();
      return gen.ok();
    }

  private:
    const Value& id_;
    unsigned long long bytes_;
  };

  class Big_Result : public JSON_RPC_Handler
  {
  public:
    Big_Result() : max_mb_(1024) {}

    int init(int argc, char** argv) override
    {
      for (int i = 0; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--max-mb") == 0)
        {
          char* end = nullptr;
          errno = 0;
          long long n = std::strtoll(argv[i + 1], &end, 10);
          if (errno || !end || *end || n < 0)
          {
            errno = EINVAL;
            return -1;
          }
          max_mb_ = n;
        }
      return 0;
    }

    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
      if (peer.null() || request.type != JSON_RPC_Object::TYPE_REQUEST)
        return 0;
      const Value* mb = nullptr;
      if (request.params.type() == json_spirit::obj_type)
      {
        auto i = request.params.get_obj().find("mb");
        if (i != request.params.get_obj().end())
          mb = &i->second;
      }
      if (!mb || mb->type() != json_spirit::int_type || mb->get_int64() < 0 || mb->get_int64() > max_mb_)
        return example::reply_invalid(peer.get(), request,
                                      "params must be {\"mb\": N} with N from 0 to " + std::to_string(max_mb_));
      Big_Result_Generator generator(request.id, static_cast<unsigned long long>(mb->get_int64()) * mib);
      return peer->send_generator(generator);
    }

  private:
    long long max_mb_;
  };
}

EXAMPLE_FACTORY JSON_RPC_Handler* make_big_result(void (**destroy)(void*))
{
  return example::make<Big_Result, JSON_RPC_Handler>(destroy);
}
