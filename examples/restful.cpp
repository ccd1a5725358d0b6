// A REST handler creator: the handlers it makes answer every exchange with
// {"hello": GREETING}, where GREETING is the first word of the record's
// params ("world" without one). The embedding HTTP server decides when to
// make handlers and drives handle_exchange.
#include "example_util.h"

#include "json_rpc/json_restful.h"
#include "json_spirit/json_spirit_writer.h"

#include <cstring>
#include <string>

namespace
{
  class Hello_Handler : public JSON_RESTful_Handler
  {
  public:
    explicit Hello_Handler(const std::string& greeting)
    {
      json_spirit::Object body;
      body["hello"] = json_spirit::Value(greeting);
      body_ = json_spirit::write_string(json_spirit::Value(body));
    }

    int handle_exchange(JSON_RESTful_Channel& channel) override
    {
      if (channel.status(200) == -1 || channel.put_header("Content-Type", "application/json") == -1)
        return -1;
      ssize_t written = channel.write(body_.data(), body_.size());
      return written == static_cast<ssize_t>(body_.size()) ? 0 : -1;
    }

  private:
    std::string body_;
  };

  class Hello_Creator : public Object_Creator_T<JSON_RESTful_Handler>
  {
  public:
    JSON_RESTful_Handler* create() override
    {
      return new (std::nothrow) Hello_Handler(argc > 0 && argv ? argv[0] : "world");
    }
    void destroy(JSON_RESTful_Handler* handler) override { delete handler; }
  };
}

EXAMPLE_FACTORY Object_Creator_T<JSON_RESTful_Handler>* make_hello_creator(void (**destroy)(void*))
{
  return example::make<Hello_Creator, Object_Creator_T<JSON_RESTful_Handler>>(destroy);
}
