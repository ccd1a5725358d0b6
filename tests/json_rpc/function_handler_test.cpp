// Methods written as functions: their results, the errors they throw, and
// the threads they run on, over a fake channel.
#include "fake_channel.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_function_handler.h"
#include "json_rpc/json_rpc_scope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

using json_spirit::Object;
using json_spirit::Value;

namespace
{
  class Function_Method : public ::testing::Test
  {
  protected:
    // Declared first: it outlives the scope, whose pool workers log into it.
    Log_Capture log;
    JSON_RPC_Scope scope{2};
  };

  // What answered a request dispatched on this thread, whatever the
  // handler returned: answer_text(), or "no answer".
  std::string answered(const std::string& method)
  {
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message(method, Value(), 5));
    return fake(channel).count() == 1 ? answer_text(*fake(channel).sent()[0]) : "no answer";
  }

  // The error object that answered a call over the channel.
  const JSON_RPC_Response_Error& error_of(const JSON_RPC_Channel_Strong_Ptr& channel)
  {
    return static_cast<const JSON_RPC_Response_Error&>(*fake(channel).sent().back());
  }

  TEST_F(Function_Method, AnswersTheRequestWithWhatTheFunctionReturns)
  {
    ASSERT_TRUE(scope.ok());
    ASSERT_EQ(0, add_json_rpc_method("sum", [](Value params) {
                return Value(params.get_array()[0].get_int() + params.get_array()[1].get_int());
              }));
    EXPECT_EQ("5", call("sum", json_spirit::Array{2, 3}));

    // A request without params gives the function null; the response
    // carries the request's id.
    ASSERT_EQ(0, add_json_rpc_method("is.null", [](Value params) { return Value(params.is_null()); }));
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("is.null", Value(), 42));
    ASSERT_EQ(1u, fake(channel).count());
    const JSON_RPC_Object& response = *fake(channel).sent()[0];
    ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response.type);
    EXPECT_EQ(Value(42), response.id);
    EXPECT_EQ(Value(true), static_cast<const JSON_RPC_Response&>(response).result);
  }

  TEST_F(Function_Method, OurErrorBecomesTheErrorResponseWithCodeMessageAndData)
  {
    ASSERT_EQ(0, add_json_rpc_method("refuse", [](Value params) -> Value {
                throw JSON_RPC_Error(7, "Not today", Object{{"asked", params}});
              }));
    ASSERT_EQ(0, add_json_rpc_method("invalid", [](Value) -> Value { throw JSON_RPC_Error(-32602); }));

    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    EXPECT_EQ(-1, JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel),
                                                            make_message("refuse", Value("x"), 1)));
    ASSERT_EQ(1u, fake(channel).count());
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, fake(channel).sent()[0]->type);
    EXPECT_EQ(7, error_of(channel).code);
    EXPECT_EQ("Not today", error_of(channel).message);
    EXPECT_EQ(Value(Object{{"asked", Value("x")}}), error_of(channel).data);
    EXPECT_EQ(Value(1), error_of(channel).id);

    // No message: the standard text of the code, and no data.
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("invalid", Value(), 2));
    ASSERT_EQ(2u, fake(channel).count());
    EXPECT_EQ(-32602, error_of(channel).code);
    EXPECT_EQ("Invalid params", error_of(channel).message);
    EXPECT_TRUE(error_of(channel).data.is_null());
    // An error the method chose is no fault of the server's.
    EXPECT_EQ(0u, log.count_priority(LM_ERROR));
  }

  TEST_F(Function_Method, AnyOtherExceptionBecomesInternalErrorAndIsLogged)
  {
    add_json_rpc_method("boom", [](Value) -> Value { throw std::runtime_error("boom"); });
    add_json_rpc_method("odd", [](Value) -> Value { throw 42; });
    // Straight through the dispatcher: nothing escapes the handler.
    EXPECT_EQ("error -32603 \"boom\"", answered("boom"));
    EXPECT_EQ("error -32603 \"unknown exception\"", answered("odd"));
    EXPECT_TRUE(log.contains("JSON-RPC 'boom' by 127.0.0.1:4000 threw: boom."));
    EXPECT_EQ(2u, log.count_priority(LM_ERROR));
  }

  TEST_F(Function_Method, ANotificationRunsTheFunctionAndGetsNoAnswer)
  {
    std::atomic<int> runs{0};
    add_json_rpc_method("tick", [&runs](Value) {
      ++runs;
      return Value(1);
    });
    add_json_rpc_method("tick.fails", [&runs](Value) -> Value {
      ++runs;
      throw JSON_RPC_Error(3, "no");
    });
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("tick"));
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("tick.fails"));
    EXPECT_EQ(2, runs.load());
    EXPECT_EQ(0u, fake(channel).count());
    EXPECT_TRUE(log.contains("JSON-RPC 'tick.fails' by 127.0.0.1:4000 failed with error 3 (no), a notification"));
  }

  TEST_F(Function_Method, TheSecondFormGetsTheCallersChannel)
  {
    JSON_RPC_Channel_Strong_Ptr channel = make_channel(0, "me");
    add_json_rpc_method("who", [](JSON_RPC_Channel_Weak_Ptr caller, Value) {
      return Value(JSON_RPC_Channel_Strong_Ptr(caller)->id());
    });
    JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message("who", Value(), 1));
    ASSERT_EQ(1u, fake(channel).count());
    EXPECT_EQ("\"me\"", answer_text(*fake(channel).sent()[0]));
  }

  TEST_F(Function_Method, RunsOnThePoolOrOnAThreadOfItsOwnWhenAsked)
  {
    std::thread::id here = std::this_thread::get_id();
    auto elsewhere = [here](Value params) -> Value {
      if (params.get_bool())
        throw JSON_RPC_Error(9, "failed elsewhere");
      return Value(std::this_thread::get_id() != here);
    };
    ASSERT_EQ(0, add_json_rpc_method("pool", elsewhere, JSON_RPC_Function_Handler::THREAD_POOL));
    ASSERT_EQ(0, add_json_rpc_method("own", elsewhere, JSON_RPC_Function_Handler::THREAD_OWN));
    ASSERT_EQ(0, add_json_rpc_method("here", elsewhere, JSON_RPC_Function_Handler::THREAD_TRANSPORT));
    EXPECT_EQ("true", call("pool", false));
    EXPECT_EQ("true", call("own", false));
    EXPECT_EQ("false", call("here", false));
    EXPECT_EQ("error 9", call("pool", true));
    EXPECT_EQ("error 9", call("own", true));
  }

  TEST_F(Function_Method, AMethodNameIsTakenOnceAndNeedsAFunction)
  {
    ASSERT_EQ(0, add_json_rpc_method("m", [](Value) { return Value(1); }));
    errno = 0;
    EXPECT_EQ(-1, add_json_rpc_method("m", [](Value) { return Value(2); }));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_TRUE(log.contains("JSON-RPC method 'm' not added: it has a handler already."));
    EXPECT_EQ("1", call("m"));

    errno = 0;
    EXPECT_EQ(-1, add_json_rpc_method("", [](Value) { return Value(); }));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, add_json_rpc_method("empty", JSON_RPC_Function_Handler::Function()));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(nullptr, JSON_RPC_Request_Map::instance()->find("empty"));
  }

  // Handlers of other kinds may throw our error too, where the library
  // answers exceptions.
  TEST_F(Function_Method, AnyHandlerRunByTheLibraryMayThrowOurError)
  {
    struct Throwing_Handler : JSON_RPC_Handler
    {
      int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override
      {
        throw JSON_RPC_Error(-32001, "Busy elsewhere", Value(5));
      }
    };
    JSON_RPC_Request_Map::instance()->insert("plain", "", new Throwing_Handler, nullptr);
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    EXPECT_EQ(-1, dispatch_answering(JSON_RPC_Channel_Weak_Ptr(channel), make_message("plain", Value(), 3)));
    ASSERT_EQ(1u, fake(channel).count());
    EXPECT_EQ(-32001, error_of(channel).code);
    EXPECT_EQ("Busy elsewhere", error_of(channel).message);
    EXPECT_EQ(Value(5), error_of(channel).data);
  }
}
