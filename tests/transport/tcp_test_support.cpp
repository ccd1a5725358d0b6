#include "tcp_test_support.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_session.h"
#include "tessel/retry.h"

#include <gtest/gtest.h>

namespace tcp_test
{
  namespace
  {
    // The process-wide set-up every transport test needs: singletons made
    // before any thread, short back-off waits and one-second call limits.
    class Environment : public ::testing::Environment
    {
    public:
      void SetUp() override
      {
        setenv("JSON_RPC_REQUEST_TIMEOUT", "1", 1);
        retry_sleeper([](unsigned int) {});
        JSON_RPC_Dispatcher::instance();
        JSON_RPC_Request_Map::instance();
        JSON_RPC_Response_Map::instance();
        JSON_RPC_Notify_Manager::instance();
        JSON_RPC_Channel_Map::instance();
        JSON_RPC_Channel_Pool::instance();
        ASSERT_EQ(0, add_handler("echo", echo));
      }

      void TearDown() override
      {
        Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
        JSON_RPC_Channel_Pool::close_instance();
        JSON_RPC_Notify_Manager::close_instance();
        JSON_RPC_Channel_Map::close_instance();
        JSON_RPC_Response_Map::close_instance();
        JSON_RPC_Request_Map::close_instance();
        JSON_RPC_Dispatcher::close_instance();
      }
    };

    ::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new Environment);
  }

  JSON_RPC_Object_Ptr call(JSON_RPC_Channel_Strong_Ptr channel, const char* method, json_spirit::Value params,
                           long long timeout)
  {
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
    JSON_RPC_Object_Ptr response;
    EXPECT_TRUE(session.request(JSON_RPC_Session::make_rpc_request(method, std::move(params)), response, timeout))
      << method;
    return response;
  }

  const json_spirit::Value& result_of(const JSON_RPC_Object_Ptr& response)
  {
    static const json_spirit::Value none("no result");
    EXPECT_TRUE(response.get() && response->type == JSON_RPC_Object::TYPE_RESPONSE);
    if (!response.get() || response->type != JSON_RPC_Object::TYPE_RESPONSE)
      return none;
    return static_cast<const JSON_RPC_Response&>(*response).result;
  }
}
