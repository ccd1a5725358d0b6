// The inbound road (dispatcher) and the blocking call over it (session and
// the call helpers with their repeats), over a fake channel.
#include "fake_channel.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_session.h"
#include "json_rpc/json_rpc_utils.h"
#include "tessel/retry.h"

#include <ace/Log_Msg.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace
{
  JSON_RPC_Object_Ptr request(const std::string& method, bool notification = false)
  {
    return make_message(method, json_spirit::Value(), notification ? json_spirit::Value() : json_spirit::Value(11));
  }

  struct Recording_Handler : JSON_RPC_Handler
  {
    explicit Recording_Handler(int result = 0, bool quiet = false) : result_(result) { silent_ = quiet; }
    int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr object) override
    {
      ACE_DEBUG((LM_DEBUG, "handler ran\n"));
      seen.push_back(object);
      return result_;
    }
    int result_;
    std::vector<JSON_RPC_Object_Ptr> seen;
  };

  // No call waits for the environment's limit, nor sleeps between repeats.
  class Dispatch : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      unsetenv("JSON_RPC_REQUEST_TIMEOUT");
      retry_sleeper([](unsigned int) {});
      channel_ = make_channel(3, "peer", 5555);
      handler_ = new Recording_Handler(7);
      JSON_RPC_Request_Map::instance()->insert("m", "", handler_, nullptr);
      JSON_RPC_Request_Map::instance()->insert("quiet", "", new Recording_Handler(-1, true), nullptr);
    }
    void TearDown() override
    {
      retry_sleeper(nullptr);
      unsetenv("JSON_RPC_REQUEST_TIMEOUT");
      close_singletons();
    }
    int dispatch(JSON_RPC_Object_Ptr object)
    {
      return JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel_), object);
    }

    JSON_RPC_Channel_Strong_Ptr channel_;
    Recording_Handler* handler_;
  };

  // Answers every request sent to the channel, on the sending thread, before
  // the caller starts to wait.
  void answer_with(Fake_Channel& channel, std::function<JSON_RPC_Object*(const JSON_RPC_Object&)> make)
  {
    channel.on_send([make](JSON_RPC_Object_Ptr sent) {
      JSON_RPC_Object_Ptr answer(make(*sent));
      answer->id = sent->id;
      JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(), answer);
    });
  }

  JSON_RPC_Object* result_of(json_spirit::Value v)
  {
    JSON_RPC_Response* r = new JSON_RPC_Response(nullptr);
    r->result = std::move(v);
    return r;
  }

  struct Session : Dispatch
  {
  };
}

TEST_F(Dispatch, HandlerResultPassesThroughAndTheDebugLineFollowsTheHandler)
{
  Log_Capture log;
  EXPECT_EQ(7, dispatch(request("m")));
  EXPECT_EQ(7, dispatch(request("m", true)));
  EXPECT_EQ(2u, handler_->seen.size());
  const std::string called = "Channel(type: 3) peer(127.0.0.1:5555) called JSON-RPC 'm'.\n";
  EXPECT_EQ((std::vector<std::string>{"handler ran\n", called, "handler ran\n", called}), log.lines());
  // A registered notification goes to its handler and to no subscriber.
  EXPECT_EQ(0u, fake(channel_).count());
  // A silent handler runs without the line, and its -1 draws no error.
  log.clear();
  EXPECT_EQ(-1, dispatch(request("quiet")));
  EXPECT_EQ((std::vector<std::string>{"handler ran\n"}), log.lines());
  EXPECT_EQ(0u, fake(channel_).count());
}

TEST_F(Dispatch, DebugLineNamesTheAddressOrTheMethodAloneForAGonePeer)
{
  Log_Capture log;
  fake(channel_).id("");
  dispatch(request("m"));
  EXPECT_TRUE(log.contains("127.0.0.1:5555 called JSON-RPC 'm'.\n"));
  JSON_RPC_Dispatcher::instance()->dispatch(gone_channel(), request("m"));
  EXPECT_TRUE(log.contains("JSON-RPC 'm' is called.\n"));
}

TEST_F(Dispatch, UnknownMethodIsAnsweredWithMethodNotFound)
{
  Log_Capture log;
  EXPECT_EQ(0, dispatch(request("nope")));
  EXPECT_TRUE(log.contains("JSON-RPC 'nope' by 127.0.0.1:5555 is not found.\n"));
  ASSERT_EQ(1u, fake(channel_).count());
  const auto& e = static_cast<const JSON_RPC_Response_Error&>(*fake(channel_).sent()[0]);
  EXPECT_EQ("error -32601", answer_text(e)); // an error object, without data
  EXPECT_EQ("Method not found", e.message);
  EXPECT_EQ(11, e.id.get_int());
  // The send's failure is the result; a peer that is gone gets nothing.
  fake(channel_).fail(true);
  EXPECT_EQ(-1, dispatch(request("nope")));
  EXPECT_EQ(-1, JSON_RPC_Dispatcher::instance()->dispatch(gone_channel(), request("nope")));
  EXPECT_TRUE(log.contains("JSON-RPC requester is gone.\n"));
}

TEST_F(Dispatch, BadObjectsAndStrayResponsesGiveMinusOneQuietly)
{
  Log_Capture log;
  EXPECT_EQ(-1, dispatch(JSON_RPC_Object_Ptr()));
  EXPECT_EQ(1u, log.count_priority(LM_EMERGENCY));
  log.clear();
  JSON_RPC_Object_Ptr odd(new JSON_RPC_Request);
  odd->type = static_cast<JSON_RPC_Object::Type>(5);
  EXPECT_EQ(-1, dispatch(odd));
  odd->type = static_cast<JSON_RPC_Object::Type>(0);
  EXPECT_EQ(-1, dispatch(odd));
  JSON_RPC_Object_Ptr response(new JSON_RPC_Response(nullptr));
  response->id = json_spirit::Value("unknown");
  EXPECT_EQ(-1, dispatch(response));
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(handler_->seen.empty());
}

TEST_F(Session, AnswersFromAnotherThreadWakeTheirOwnCallerEarlyOrLate)
{
  // Each request is answered by a thread of its own, some at once (while the
  // caller may still be spinning), some once it has gone to sleep; several
  // callers wait at the same time. Each gets the answer to its own request.
  // A caller whose wake-up is lost sits out its 60-second limit, and the
  // test runs past the time ctest gives it.
  std::mutex lock;
  std::vector<std::thread> answerers;
  std::atomic<int> sent(0);
  fake(channel_).on_send([&](JSON_RPC_Object_Ptr request) {
    json_spirit::Value id = request->id;
    int n = sent++;
    std::lock_guard<std::mutex> guard(lock);
    answerers.emplace_back([id, n] {
      if (n % 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      JSON_RPC_Object* answer = result_of(id);
      answer->id = id;
      JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(), JSON_RPC_Object_Ptr(answer));
    });
  });
  std::atomic<int> answered(0);
  auto caller = [&] {
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel_)};
    for (int i = 0; i < 6; ++i)
    {
      JSON_RPC_Object_Ptr request = JSON_RPC_Session::make_rpc_request("echo", json_spirit::Value());
      JSON_RPC_Object_Ptr response;
      if (session.request(request, response, 60) &&
          static_cast<JSON_RPC_Response&>(*response).result == request->id)
        ++answered;
    }
  };
  caller();
  std::vector<std::thread> callers;
  for (int t = 0; t < 3; ++t)
    callers.emplace_back(caller);
  for (std::thread& t : callers)
    t.join();
  std::lock_guard<std::mutex> guard(lock);
  for (std::thread& t : answerers)
    t.join();
  EXPECT_EQ(24, answered.load());
  EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
}

TEST_F(Session, FailuresLogTheirLineAndLeaveNoEntry)
{
  Log_Capture log;
  JSON_RPC_Object_Ptr response;
  fake(channel_).fail(true);
  JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel_)};
  EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("x", json_spirit::Value()), response, 5));
  EXPECT_TRUE(log.contains("Failed to send request to channel, errno=32"));
  EXPECT_FALSE(session.notify(request("n", true)));
  EXPECT_TRUE(log.contains("Failed to send notify to channel, errno=32"));
  fake(channel_).fail(false);
  // The environment says 0: no wait at all, yet the request still goes out.
  setenv("JSON_RPC_REQUEST_TIMEOUT", "0", 1);
  EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("x", json_spirit::Value()), response, 0));
  EXPECT_TRUE(log.contains("Failed to get response, errno="));
  EXPECT_EQ(1u, fake(channel_).count());
  EXPECT_TRUE(response.null());
  EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());

  JSON_RPC_Session orphan(gone_channel());
  log.clear();
  EXPECT_FALSE(orphan.request(JSON_RPC_Session::make_rpc_request("x", json_spirit::Value()), response, 5));
  EXPECT_FALSE(orphan.notify(request("n", true)));
  EXPECT_FALSE(orphan.request("x", nullptr, response, 5));
  EXPECT_EQ(3u, log.count("channel_.get() is NULL"));
}

TEST_F(Session, GeneratorFormSendsAGeneratedRequestAndChecksTheMethod)
{
  Log_Capture log;
  JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel_)};
  JSON_RPC_Object_Ptr response;
  EXPECT_FALSE(session.request("", nullptr, response, 1));
  EXPECT_TRUE(log.contains("method is NULL or \"\""));
  setenv("JSON_RPC_REQUEST_TIMEOUT", "abc", 1); // reads as 0: no wait
  EXPECT_FALSE(session.request("gen", nullptr, response, 0));
  ASSERT_EQ(1u, fake(channel_).generated().size());
  const std::string text = fake(channel_).generated()[0];
  EXPECT_EQ(0u, text.find("{\"jsonrpc\":\"2.0\",\"method\":\"gen\",\"id\":\""));
  EXPECT_NE(std::string::npos, text.find("\"params\":null}"));
  EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
}

TEST_F(Session, TimeoutFromTheEnvironment)
{
  JSON_RPC_Session session;
  long long t = 1;
  session.get_timeout_env(t);
  EXPECT_EQ(60, t);
  struct
  {
    const char* text;
    long long value;
    int error;
  } cases[] = {{"5", 5, 0},        {"+7", 7, 0},     {"-1", -1, 0},  {"12abc", 12, 0},
               {"abc", 0, EINVAL}, {" 5", 0, EINVAL}, {"", 60, -1},  {"99999999999999999999", LLONG_MAX, ERANGE},
               {"-99999999999999999999", LLONG_MAX, ERANGE}};
  for (const auto& c : cases)
  {
    setenv("JSON_RPC_REQUEST_TIMEOUT", c.text, 1);
    errno = 12345;
    session.get_timeout_env(t);
    EXPECT_EQ(c.value, t) << c.text;
    if (c.error >= 0)
    {
      EXPECT_EQ(c.error, errno) << c.text;
    }
  }
}

TEST_F(Session, MakeRpcRequestForms)
{
  JSON_RPC_Object_Ptr r;
  ASSERT_TRUE(JSON_RPC_Session::make_rpc_request(nullptr, json_spirit::Value(3), r));
  EXPECT_EQ(JSON_RPC_Object::TYPE_REQUEST, r->type);
  EXPECT_EQ("", as_request(r).method);
  EXPECT_EQ(3, as_request(r).params.get_int());
  json_spirit::Value* params = nullptr;
  JSON_RPC_Object_Ptr in_place = JSON_RPC_Session::make_rpc_request("fill", &params);
  ASSERT_NE(nullptr, params);
  *params = json_spirit::Value("filled");
  EXPECT_EQ("filled", as_request(in_place).params.get_str());
}

TEST_F(Session, CallHelpersRepeatOnlyUnansweredCallsAndCheckTheResultType)
{
  Log_Capture log;
  setenv("JSON_RPC_REQUEST_TIMEOUT", "0", 1); // every unanswered attempt fails at once
  Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr(channel_));
  json_spirit::Value result("untouched");

  // Nobody answers: retries 3 sends four requests under four ids.
  std::set<std::string> ids;
  fake(channel_).on_send([&ids](JSON_RPC_Object_Ptr sent) { ids.insert(sent->id.get_str()); });
  EXPECT_FALSE(global_json_rpc("silent", json_spirit::Value(), -1, &result, json_spirit::null_type, 3));
  EXPECT_EQ(4u, fake(channel_).count());
  EXPECT_EQ(4u, ids.size());
  fake(channel_).on_send(nullptr);
  EXPECT_TRUE(log.contains("Retry(1) "));
  EXPECT_TRUE(log.contains("Retry(3) "));
  // The line names the call helper that repeats, not the shared loop.
  EXPECT_TRUE(log.contains("json_rpc_utils.cpp:")) << log.text();
  EXPECT_FALSE(log.contains("retry.cpp:")) << log.text();
  EXPECT_FALSE(log.contains("Retry(4) "));
  EXPECT_TRUE(log.contains("JSON-RPC 'silent' failed after 3 retries.\n"));
  EXPECT_EQ("untouched", result.get_str());

  // retries 0, and retry_timeout 0 with no retry limit: one attempt each.
  log.clear();
  EXPECT_FALSE(global_json_rpc("silent", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 0));
  EXPECT_FALSE(global_json_rpc("silent", json_spirit::Value(), 0, nullptr, json_spirit::null_type, -1));
  EXPECT_FALSE(global_json_rpc("silent", json_spirit::Value(), -1, nullptr, json_spirit::null_type, -2));
  EXPECT_EQ(7u, fake(channel_).count());
  EXPECT_FALSE(log.contains("Retry("));

  // Answered with an error: never repeated, whatever the limits.
  answer_with(fake(channel_), [](const JSON_RPC_Object&) {
    auto* e = new JSON_RPC_Response_Error;
    e->code = -5;
    e->message = "no";
    return e;
  });
  EXPECT_FALSE(global_json_rpc("err", json_spirit::Value(), -1, &result, json_spirit::null_type, 5));
  EXPECT_EQ(8u, fake(channel_).count());
  EXPECT_TRUE(log.contains("JSON-RPC 'err' response error, code: -5, msg: no.\n"));
  EXPECT_FALSE(global_json_rpc("err", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 5));

  // A result of the wrong type is refused; null result pointer skips the check.
  answer_with(fake(channel_), [](const JSON_RPC_Object&) { return result_of(json_spirit::Value(42)); });
  EXPECT_FALSE(global_json_rpc("num", json_spirit::Value(), -1, &result, json_spirit::str_type, 5));
  EXPECT_TRUE(log.contains("JSON-RPC 'num' response expected type 2, got 5\n"));
  EXPECT_EQ("untouched", result.get_str());
  EXPECT_TRUE(global_json_rpc("num", json_spirit::Value(), -1, nullptr, json_spirit::str_type, 5));
  EXPECT_TRUE(global_json_rpc("num", json_spirit::Value(), -1, &result, json_spirit::int_type, 5));
  EXPECT_EQ(42, result.get_int());

  // A send that fails is repeated too, each failure with its line.
  log.clear();
  fake(channel_).fail(true);
  EXPECT_FALSE(global_json_rpc("down", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 2));
  EXPECT_EQ(3u, log.count("Failed to send request to channel"));
  EXPECT_TRUE(log.contains("Retry(2) "));
  EXPECT_TRUE(log.contains("JSON-RPC 'down' failed after 2 retries.\n"));
  EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
}

TEST_F(Session, CallHelpersRefuseBadArgumentsAtOnce)
{
  Log_Capture log;
  EXPECT_FALSE(global_json_rpc("", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 3));
  EXPECT_FALSE(global_json_rpc("m", json_spirit::Value(), -1, nullptr, json_spirit::null_type, 3));
  EXPECT_TRUE(log.contains("chn.get() is NULL"));
  EXPECT_FALSE(send_rpc_to_agent("", "m", json_spirit::Value(), nullptr, json_spirit::null_type, -1, 3));
  EXPECT_TRUE(log.contains("agent_uuid is NULL or \"\""));
  EXPECT_FALSE(send_rpc_to_agent("agent", nullptr, json_spirit::Value(), nullptr, json_spirit::null_type, -1, 3));
  EXPECT_EQ(2u, log.count("method is NULL or \"\""));
  EXPECT_FALSE(send_rpc_to_agent("no-such-agent", "m", json_spirit::Value(), nullptr, json_spirit::null_type, -1, 3));
  EXPECT_FALSE(log.contains("Retry("));

  // An agent is found by type 1 and its id.
  JSON_RPC_Channel_Strong_Ptr agent = make_channel(1, "agent-uuid");
  JSON_RPC_Channel_Map::instance()->insert(agent);
  answer_with(fake(agent), [](const JSON_RPC_Object&) { return result_of(json_spirit::Value("ok")); });
  json_spirit::Value result;
  EXPECT_TRUE(send_rpc_to_agent("agent-uuid", "m", json_spirit::Value(), &result, json_spirit::str_type, -1, 0));
  EXPECT_EQ("ok", result.get_str());
}
