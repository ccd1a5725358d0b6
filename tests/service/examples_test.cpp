// The example handler libraries, booted from examples/svc.conf by ACE's
// service configurator as a host would (the file's paths, relative to the
// repository root, are pointed at this build).
#include "log_capture.h"
#include "service_support.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_reader.h"

#include <gtest/gtest.h>

namespace
{
  using json_spirit::Array;
  using json_spirit::Value;

  JSON_RPC_Object_Ptr message(const std::string& method, const Value& params, bool notification = false)
  {
    JSON_RPC_Request* request = new JSON_RPC_Request;
    request->type = notification ? JSON_RPC_Object::TYPE_NOTIFICATION : JSON_RPC_Object::TYPE_REQUEST;
    request->version = "2.0";
    request->method = method;
    if (!notification)
      request->id = 7;
    request->params = params;
    return JSON_RPC_Object_Ptr(request);
  }

  Fake_Channel& fake(const JSON_RPC_Channel_Strong_Ptr& c) { return static_cast<Fake_Channel&>(*c); }

  // The answer to a call that may come from another thread.
  std::string answer_of(const std::string& method, const Value& params)
  {
    JSON_RPC_Channel_Strong_Ptr channel(new Fake_Channel);
    if (JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), message(method, params)) == -1)
      return "refused";
    if (!fake(channel).wait_for(1))
      return "no answer";
    JSON_RPC_Object_Ptr answer = fake(channel).sent().back();
    if (answer->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    {
      const auto& error = static_cast<const JSON_RPC_Response_Error&>(*answer);
      return "error " + std::to_string(error.code) + " " + json_spirit::write_string(error.data);
    }
    return json_spirit::write_string(static_cast<const JSON_RPC_Response&>(*answer).result);
  }

  class Examples : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      open_configurator();
      const std::string examples = EXAMPLES_DIR, lib = EXAMPLES_LIB_DIR;
      for (const char* name : {"handlers.json", "filters.json", "restful.json"})
        dir.write(name, replace_all(read_file(examples + "/conf/" + name), "build/lib/", lib + "/"));
      std::string conf = replace_all(read_file(examples + "/svc.conf"), "build/lib/", lib + "/");
      std::string svc = dir.write("svc.conf", replace_all(conf, "examples/conf/", dir.path("")));
      Log_Capture log;
      ASSERT_EQ(0, ACE_Service_Config::process_file(svc.c_str())) << log.text();
      ASSERT_EQ(0u, log.count_priority(LM_ERROR)) << log.text();
      ASSERT_EQ(9u, log.count("Loaded ")) << log.text();
    }
    void TearDown() override
    {
      ACE_Service_Config::remove("JSON_RPC_Service");
      JSON_RESTful_Handler_Creator_Map::close_instance();
    }

    Temp_Dir dir;
    // The dispatcher's line for each call stays out of the output.
    Log_Capture quiet;
  };
}

TEST_F(Examples, EchoAnswersWithItsParams)
{
  EXPECT_EQ("[1,\"a\",{\"b\":null}]", call("echo", Array{1, "a", json_spirit::Object{{"b", Value()}}}));
  EXPECT_EQ("null", call("echo"));
  JSON_RPC_Channel_Strong_Ptr channel(new Fake_Channel);
  JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), message("echo", 1, true));
  EXPECT_EQ(0u, fake(channel).count());
}

TEST_F(Examples, SlowSleepAnswersFromItsOwnThread)
{
  EXPECT_EQ("1", answer_of("slow.sleep", 1));
  EXPECT_EQ("0", answer_of("slow.sleep", Array{0}));
  const std::string refused = "error -32602 \"params must be a whole number of milliseconds from 0 to 10000\"";
  EXPECT_EQ(refused, answer_of("slow.sleep", "x"));
  EXPECT_EQ(refused, answer_of("slow.sleep", 10001));
  EXPECT_EQ(refused, answer_of("slow.sleep", -1));
}

TEST_F(Examples, PoolMethodsSumAndSleepOnTheWorkers)
{
  EXPECT_EQ("6.5", answer_of("pool.sum", Array{1, 2, 3.5}));
  EXPECT_EQ("-1", answer_of("pool.sum", Array{9223372036854775807LL, -9223372036854775807LL, -1}));
  EXPECT_EQ("0", answer_of("pool.sum", Array{}));
  EXPECT_EQ("error -32602 \"element 1 is not a number\"", answer_of("pool.sum", Array{1, "2"}));
  EXPECT_EQ("error -32602 \"params must be an array of numbers\"", answer_of("pool.sum", 3));
  EXPECT_EQ("2", answer_of("pool.sleep", 2));
}

TEST_F(Examples, SubscribedChannelsGetWhatIsPublished)
{
  JSON_RPC_Channel_Strong_Ptr subscriber(new Fake_Channel), publisher(new Fake_Channel);
  JSON_RPC_Channel_Weak_Ptr weak(subscriber);
  JSON_RPC_Dispatcher* dispatcher = JSON_RPC_Dispatcher::instance();
  auto publish = [&](const char* subject) {
    dispatcher->dispatch(JSON_RPC_Channel_Weak_Ptr(publisher), message(subject, Array{subject}, true));
  };
  auto last_result = [&] {
    return json_spirit::write_string(static_cast<const JSON_RPC_Response&>(*fake(subscriber).sent().back()).result);
  };

  dispatcher->dispatch(weak, message("subscribe", Array{"news", "sport"}));
  EXPECT_EQ("[\"news\",\"sport\"]", last_result());
  // Subscribing again does not double what arrives.
  dispatcher->dispatch(weak, message("subscribe", "news"));
  EXPECT_EQ("[\"news\"]", last_result());
  publish("news");
  publish("weather");
  publish("sport");
  auto sent = fake(subscriber).sent();
  ASSERT_EQ(4u, sent.size());
  EXPECT_EQ("news", as_request(sent[2]).method);
  EXPECT_EQ(JSON_RPC_Object::TYPE_NOTIFICATION, sent[2]->type);
  EXPECT_EQ("sport", as_request(sent[3]).method);

  dispatcher->dispatch(weak, message("unsubscribe", "news"));
  EXPECT_EQ("true", last_result());
  publish("news");
  publish("sport");
  EXPECT_EQ(6u, fake(subscriber).count());
  dispatcher->dispatch(weak, message("unsubscribe", Value()));
  publish("sport");
  EXPECT_EQ(7u, fake(subscriber).count());
  EXPECT_EQ(0u, fake(publisher).count());

  EXPECT_EQ("error -32602", call("subscribe", 5));
  EXPECT_EQ("error -32602", call("subscribe", Array{}));
  EXPECT_EQ("error -32602", call("unsubscribe", Array{1}));
}

namespace
{
  // Reads one message as a transport does, in pieces, with params filters
  // on, and dispatches it.
  std::string stream_call(const std::string& text, Value* params_seen = nullptr, size_t piece = 4096)
  {
    JSON_RPC_Channel_Strong_Ptr channel(new Fake_Channel);
    JSON_RPC_Reader reader;
    reader.mode(JSON_RPC_Reader::MODE_ASSEMBLE | JSON_RPC_Reader::MODE_FILTER_REQUEST);
    if (!reader.open())
      return "open failed";
    reader.request_channel(channel);
    for (size_t at = 0; at < text.size(); at += piece)
      if (!reader.read(text.data() + at, std::min(piece, text.size() - at)))
        return "read failed";
    if (!reader.read(nullptr, 0) || !reader.object().get())
      return "read failed";
    JSON_RPC_Object_Ptr object = reader.object();
    if (params_seen)
      *params_seen = static_cast<const JSON_RPC_Request&>(*object).params;
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), object);
    auto sent = fake(channel).sent();
    if (sent.empty())
      return "no answer";
    if (sent.back()->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR)
      return "error " + json_spirit::write_string(static_cast<const JSON_RPC_Response_Error&>(*sent.back()).data);
    return json_spirit::write_string(static_cast<const JSON_RPC_Response&>(*sent.back()).result);
  }
}

TEST_F(Examples, SumStreamAddsUpTheArrayWhileItArrives)
{
  std::string text = "{\"jsonrpc\":\"2.0\",\"method\":\"sum.stream\",\"params\":[";
  const long long n = 200000;
  for (long long i = 1; i <= n; ++i)
    text += (i > 1 ? "," : "") + std::to_string(i);
  text += "],\"id\":3}";
  Value params;
  EXPECT_EQ(std::to_string(n * (n + 1) / 2), stream_call(text, &params, 1000));
  // The array never became a tree: the filter left only the sum.
  EXPECT_EQ(json_spirit::int_type, params.type());

  auto one = [](const std::string& params) {
    return stream_call("{\"id\":1,\"method\":\"sum.stream\",\"params\":" + params + "}");
  };
  EXPECT_EQ("0.5", one("[1, 2.5, -3]"));
  EXPECT_EQ("0", one("[]"));
  EXPECT_EQ("9223372036854775808.0", one("[9223372036854775807, 1]"));
  EXPECT_EQ("error \"element 1 is not a number\"", one("[1, [2], 3]"));
  EXPECT_EQ("error \"element 2 is not a number\"", one("[1, 2, {\"a\": [1]}, \"x\"]"));
  EXPECT_EQ("error \"element 0 is not a number\"", one("[null]"));
  EXPECT_EQ("error \"params must be an array of numbers\"", one("{\"a\": 1}"));
  EXPECT_EQ("error \"params must be an array of numbers\"", one("7"));
  // With params ahead of the method no filter runs; the handler sums itself.
  EXPECT_EQ("6", stream_call("{\"id\":1,\"params\":[1,2,3],\"method\":\"sum.stream\"}"));
}

namespace
{
  class Fake_REST_Channel : public JSON_RESTful_Channel
  {
  public:
    ssize_t write(char const* data, size_t length) override
    {
      body.append(data, length);
      return static_cast<ssize_t>(length);
    }
    std::string method() const override { return "GET"; }
    std::string uri() const override { return "/hello"; }
    std::string header(const char*) const override { return ""; }
    ssize_t read(char*, size_t) override { return 0; }
    int status(int code) override
    {
      status_code = code;
      return 0;
    }
    int put_header(const char* name, const char* value) override
    {
      headers += std::string(name) + ": " + value + "\n";
      return 0;
    }

    int status_code = 0;
    std::string headers, body;
  };
}

TEST_F(Examples, RestCreatorMakesHandlersThatGreet)
{
  Object_Creator_T<JSON_RESTful_Handler>* creator = JSON_RESTful_Handler_Creator_Map::instance()->find("/hello");
  ASSERT_NE(nullptr, creator);
  JSON_RESTful_Handler* handler = creator->create();
  ASSERT_NE(nullptr, handler);
  Fake_REST_Channel channel;
  EXPECT_EQ(0, handler->handle_exchange(channel));
  creator->destroy(handler);
  EXPECT_EQ(200, channel.status_code);
  EXPECT_EQ("Content-Type: application/json\n", channel.headers);
  EXPECT_EQ("{\"hello\":\"world\"}", channel.body);
}
