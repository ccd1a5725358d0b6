// The example handler libraries, booted from examples/svc.conf by ACE's
// service configurator as a host would (the file's paths, relative to the
// repository root, are pointed at this build).
#include "service_support.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_reader.h"

#include <gtest/gtest.h>

#include <tuple>

namespace
{
  using json_spirit::Array;
  using json_spirit::Value;

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
      std::string svc = dir.write("svc.conf", replace_all(conf, "examples/conf/", dir.file("")));
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

TEST_F(Examples, EachMethodAnswersOrRefusesItsParams)
{
  const std::string whole_ms = "error -32602 \"params must be a whole number of milliseconds from 0 to 10000\"";
  const std::string numbers = "error -32602 \"params must be an array of numbers\"";
  const std::string subjects = "error -32602 \"params must be a subject or an array of subjects\"";
  const std::tuple<const char*, Value, std::string> cases[] = {
    {"echo", Array{1, "a", json_spirit::Object{{"b", Value()}}}, "[1,\"a\",{\"b\":null}]"},
    {"echo", Value(), "null"},
    // These answer from threads of their own.
    {"slow.sleep", 1, "1"},
    {"slow.sleep", Array{0}, "0"},
    {"slow.sleep", "x", whole_ms},
    {"slow.sleep", 10001, whole_ms},
    {"slow.sleep", -1, whole_ms},
    {"pool.sum", Array{1, 2, 3.5}, "6.5"},
    {"pool.sum", Array{9223372036854775807LL, -9223372036854775807LL, -1}, "-1"},
    {"pool.sum", Array{}, "0"},
    {"pool.sum", Array{1, "2"}, "error -32602 \"element 1 is not a number\""},
    {"pool.sum", 3, numbers},
    {"pool.sleep", 2, "2"},
    {"subscribe", 5, subjects},
    {"subscribe", Array{}, subjects},
    {"unsubscribe", Array{1}, subjects},
  };
  for (const auto& c : cases)
    EXPECT_EQ(std::get<2>(c), call(std::get<0>(c), std::get<1>(c)))
      << std::get<0>(c) << " " << json_spirit::write_string(std::get<1>(c));
  // A notification gets no answer.
  JSON_RPC_Channel_Strong_Ptr channel = make_channel();
  JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("echo", 1));
  EXPECT_EQ(0u, fake(channel).count());
}

TEST_F(Examples, SubscribedChannelsGetWhatIsPublished)
{
  JSON_RPC_Channel_Strong_Ptr subscriber = make_channel(), publisher = make_channel();
  JSON_RPC_Channel_Weak_Ptr weak(subscriber);
  JSON_RPC_Dispatcher* dispatcher = JSON_RPC_Dispatcher::instance();
  auto publish = [&](const char* subject) {
    dispatcher->dispatch(JSON_RPC_Channel_Weak_Ptr(publisher), make_message(subject, Array{subject}));
  };
  auto last_result = [&] { return answer_text(*fake(subscriber).sent().back()); };

  dispatcher->dispatch(weak, make_message("subscribe", Array{"news", "sport"}, 1));
  EXPECT_EQ("[\"news\",\"sport\"]", last_result());
  // Subscribing again does not double what arrives.
  dispatcher->dispatch(weak, make_message("subscribe", "news", 2));
  EXPECT_EQ("[\"news\"]", last_result());
  publish("news");
  publish("weather");
  publish("sport");
  auto sent = fake(subscriber).sent();
  ASSERT_EQ(4u, sent.size());
  EXPECT_EQ("news", as_request(sent[2]).method);
  EXPECT_EQ(JSON_RPC_Object::TYPE_NOTIFICATION, sent[2]->type);
  EXPECT_EQ("sport", as_request(sent[3]).method);

  dispatcher->dispatch(weak, make_message("unsubscribe", "news", 3));
  EXPECT_EQ("true", last_result());
  publish("news");
  publish("sport");
  EXPECT_EQ(6u, fake(subscriber).count());
  dispatcher->dispatch(weak, make_message("unsubscribe", Value(), 4));
  publish("sport");
  EXPECT_EQ(7u, fake(subscriber).count());
  EXPECT_EQ(0u, fake(publisher).count());
}

namespace
{
  // Reads one message as a transport does, in pieces, with params filters
  // on, and dispatches it.
  std::string stream_call(const std::string& text, Value* params_seen = nullptr, size_t piece = 4096)
  {
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
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
    return fake(channel).count() ? answer_text(*fake(channel).sent().back()) : "no answer";
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
  EXPECT_EQ("error -32602 \"element 1 is not a number\"", one("[1, [2], 3]"));
  EXPECT_EQ("error -32602 \"element 2 is not a number\"", one("[1, 2, {\"a\": [1]}, \"x\"]"));
  EXPECT_EQ("error -32602 \"element 0 is not a number\"", one("[null]"));
  EXPECT_EQ("error -32602 \"params must be an array of numbers\"", one("{\"a\": 1}"));
  EXPECT_EQ("error -32602 \"params must be an array of numbers\"", one("7"));
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
