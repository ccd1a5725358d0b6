// The call helpers with repeats, over a real connection.
#include "tcp_test_support.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_utils.h"
#include "transport/tcp_acceptor.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include <gtest/gtest.h>

#include <set>

using namespace tcp_test;

namespace
{
  // Requests as the server saw them, by method.
  std::mutex seen_mutex;
  std::map<std::string, std::vector<json_spirit::Value>> seen;

  size_t seen_count(const std::string& method)
  {
    std::lock_guard<std::mutex> guard(seen_mutex);
    return seen[method].size();
  }

  // Counts the call; answers with make(count) unless that gives null.
  Function_Handler::Function counted(std::function<JSON_RPC_Object*(const JSON_RPC_Request&, size_t)> make)
  {
    return [make](JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) {
      const JSON_RPC_Request& request = request_of(object);
      size_t count;
      {
        std::lock_guard<std::mutex> guard(seen_mutex);
        seen[request.method].push_back(request.id);
        count = seen[request.method].size();
      }
      JSON_RPC_Object* answer = make(request, count);
      if (!answer)
        return 0;
      return JSON_RPC_Channel_Strong_Ptr(channel)->send_object(JSON_RPC_Object_Ptr(answer));
    };
  }

  class Handlers : public ::testing::Environment
  {
  public:
    void SetUp() override
    {
      // Lets its first call run into the caller's time limit.
      add_handler("flaky", counted([](const JSON_RPC_Request& request, size_t count) -> JSON_RPC_Object* {
                    if (count == 1)
                      return nullptr;
                    JSON_RPC_Response* response = new JSON_RPC_Response(&request);
                    response->result = request.params;
                    return response;
                  }));
      add_handler("refuse", counted([](const JSON_RPC_Request& request, size_t) -> JSON_RPC_Object* {
                    JSON_RPC_Response_Error* error = new JSON_RPC_Response_Error;
                    error->id = request.id;
                    error->code = -32000;
                    error->message = "nope";
                    return error;
                  }));
      add_handler("seven", counted([](const JSON_RPC_Request& request, size_t) -> JSON_RPC_Object* {
                    JSON_RPC_Response* response = new JSON_RPC_Response(&request);
                    response->result = 7;
                    return response;
                  }));
    }
  };
  ::testing::Environment* const handlers = ::testing::AddGlobalTestEnvironment(new Handlers);

  class Helpers : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      {
        std::lock_guard<std::mutex> guard(seen_mutex);
        seen.clear();
      }
      // The server's end isn't registered, so that no thread publishes while
      // the global channel is set below.
      TCP_Options server_options;
      server_options.register_channel = false;
      ASSERT_EQ(0, server.open(loopback(0), server_options));
      TCP_Options agent;
      agent.on_connect = [](TCP_Channel& channel) {
        channel.type(1);
        channel.id("agent-7");
        return 0;
      };
      ASSERT_EQ(0, TCP_Connector::connect(client, loopback(server.port()), agent));
      Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr(client));
    }

    void TearDown() override
    {
      TCP_Channel::cast(client)->close();
      server.close();
      Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
    }

    Log_Capture log;
    TCP_Acceptor server;
    JSON_RPC_Channel_Strong_Ptr client;
  };

  TEST_F(Helpers, UnansweredCallIsRepeatedUnderANewId)
  {
    json_spirit::Value params(json_spirit::Array{"p"});
    json_spirit::Value result;
    ASSERT_TRUE(global_json_rpc("flaky", params, -1, &result, json_spirit::array_type, 3));
    EXPECT_EQ(params, result);
    std::lock_guard<std::mutex> guard(seen_mutex);
    ASSERT_EQ(2u, seen["flaky"].size());
    EXPECT_NE(seen["flaky"][0], seen["flaky"][1]);
    EXPECT_EQ(1u, log.count("Retry(1)"));
    EXPECT_EQ(0u, log.count("Retry(2)"));
  }

  TEST_F(Helpers, AnsweredCallsAreNeverRepeatedAndResultTypesAreChecked)
  {
    json_spirit::Value result("untouched");
    EXPECT_FALSE(global_json_rpc("refuse", json_spirit::Value(), -1, &result, json_spirit::null_type, 5));
    EXPECT_EQ(1u, seen_count("refuse"));
    EXPECT_TRUE(log.contains("JSON-RPC 'refuse' response error, code: -32000, msg: nope."));

    EXPECT_FALSE(global_json_rpc("seven", json_spirit::Value(), -1, &result, json_spirit::str_type, 5));
    EXPECT_EQ(1u, seen_count("seven"));
    EXPECT_TRUE(log.contains("JSON-RPC 'seven' response expected type 2, got 5"));
    EXPECT_EQ(json_spirit::Value("untouched"), result);

    ASSERT_TRUE(send_rpc_to_agent("agent-7", "seven", json_spirit::Value(), &result, json_spirit::int_type, -1, 5));
    EXPECT_EQ(json_spirit::Value(7), result);
    EXPECT_EQ(2u, seen_count("seven"));
    EXPECT_FALSE(log.contains("Retry("));

    // No channel for the agent: no attempt at all.
    EXPECT_FALSE(send_rpc_to_agent("agent-8", "seven", json_spirit::Value(), &result, json_spirit::int_type, -1, 5));
    EXPECT_TRUE(log.contains("chn.get() is NULL"));
    EXPECT_EQ(2u, seen_count("seven"));
  }

  TEST_F(Helpers, FailedSendsAreRepeatedWithBackoff)
  {
    // Closed but still owned here: every send fails at once.
    TCP_Channel::cast(client)->close();
    EXPECT_FALSE(global_json_rpc("seven", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 2));
    EXPECT_EQ(3u, log.count("Failed to send request to channel"));
    EXPECT_TRUE(log.contains("Retry(1)"));
    EXPECT_TRUE(log.contains("Retry(2)"));
    EXPECT_TRUE(log.contains("JSON-RPC 'seven' failed after 2 retries."));
    EXPECT_EQ(0u, seen_count("seven"));
  }
}
