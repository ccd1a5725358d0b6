// The example handler libraries, booted from examples/svc.conf by ACE's
// service configurator as a host would (the file's paths, relative to the
// repository root, are pointed at this build). host_test.sh calls each
// method through a host; here is what a call alone can't show.
#include "service_support.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_reader.h"

#include <ace/Service_Config.h>
#include <gtest/gtest.h>

#include <mutex>

namespace
{
  using json_spirit::Array;
  using json_spirit::Value;

  class Examples : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      // Opened once for the process, without the default svc.conf and static services.
      static std::once_flag once;
      std::call_once(once, [] {
        ACE_Service_Config::open(ACE_TEXT("service_tests"), ACE_DEFAULT_LOGGER_KEY, true, true, false);
      });
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
  // Nothing answers a notification.
  dispatcher->dispatch(JSON_RPC_Channel_Weak_Ptr(publisher), make_message("echo", 1));
  EXPECT_EQ(0u, fake(publisher).count());
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
