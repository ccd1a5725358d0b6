// Both ends of the library in one process, talking over loopback TCP.
#include "tcp_test_support.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_session.h"
#include "tessel/utils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace tcp_test;
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
  // State the handlers share with the tests; handlers run on read threads.
  std::mutex state_mutex;
  std::vector<std::pair<JSON_RPC_Channel_Weak_Ptr, Value>> hung_calls;
  JSON_RPC_Channel_Strong_Ptr backend_link;
  std::atomic<int> notes{0};
  // Notifications of "seen": the thread that handled each, and its params.
  std::vector<std::pair<std::thread::id, Value>> seen;

  size_t hung_count()
  {
    std::lock_guard<std::mutex> guard(state_mutex);
    return hung_calls.size();
  }

  class Handlers : public ::testing::Environment
  {
  public:
    void SetUp() override
    {
      add_handler("note", [](JSON_RPC_Channel_Strong_Ptr, const JSON_RPC_Request&) { return ++notes, 0; });
      // Slow, so that a response overtaking it would show.
      add_handler("seen", [](JSON_RPC_Channel_Strong_Ptr, const JSON_RPC_Request& request) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        std::lock_guard<std::mutex> guard(state_mutex);
        seen.emplace_back(std::this_thread::get_id(), request.params);
        return 0;
      });
      add_handler("tell.then.echo", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        channel->send_object(make_message("seen", request.params));
        return echo(channel, request);
      });
      add_handler("echo.then.tell", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        echo(channel, request);
        // Late enough that the caller has its answer and reads no more.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return channel->send_object(make_message("seen", request.params));
      });
      // Never answers.
      add_handler("hang", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        std::lock_guard<std::mutex> guard(state_mutex);
        hung_calls.emplace_back(JSON_RPC_Channel_Weak_Ptr(channel), request.id);
        return 0;
      });
      // Drops the connection the call came on, without an answer.
      add_handler("close.me", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request&) {
        return close(channel), 0;
      });
      // Passes {"method": m, "params": p} on to the backend as a call of m,
      // under the caller's id; the response streams back by itself.
      add_handler("relay", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        const Object& in = request.params.get_obj();
        JSON_RPC_Channel_Strong_Ptr link;
        {
          std::lock_guard<std::mutex> guard(state_mutex);
          link = backend_link;
        }
        return link->forward(JSON_RPC_Channel_Weak_Ptr(channel),
                             make_message(in.at("method").get_str(), in.at("params"), request.id));
      });
    }
  };
  ::testing::Environment* const handlers = ::testing::AddGlobalTestEnvironment(new Handlers);

  bool is_registered(int type, const std::string& id)
  {
    return !JSON_RPC_Channel_Strong_Ptr(JSON_RPC_Channel_Map::instance()->find(type, id)).null();
  }

  const JSON_RPC_Response_Error& error_of(const JSON_RPC_Object_Ptr& response)
  {
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, response->type);
    return static_cast<const JSON_RPC_Response_Error&>(*response);
  }

  // Params produced while the request is written.
  class Array_Generator : public JSON_Generator
  {
  public:
    bool generate_i(YAJL_Gen& gen) override
    {
      gen.array_open() << 1 << "two" << true;
      return gen.array_close().ok();
    }
  };

  class Loopback : public ::testing::TestWithParam<TCP_Options::Framing>
  {
  protected:
    Loopback() { options.framing = GetParam(); }

    void TearDown() override
    {
      for (JSON_RPC_Channel_Strong_Ptr& channel : clients)
        close(channel);
      server.close();
      backend.close();
      std::lock_guard<std::mutex> guard(state_mutex);
      hung_calls.clear();
      backend_link = JSON_RPC_Channel_Strong_Ptr();
    }

    void start() { ASSERT_EQ(0, server.open(loopback(0), options)); }

    JSON_RPC_Channel_Strong_Ptr connect(unsigned short port = 0, TCP_Options client_options = TCP_Options())
    {
      client_options.framing = options.framing;
      JSON_RPC_Channel_Strong_Ptr channel;
      EXPECT_EQ(0, TCP_Connector::connect(channel, loopback(port ? port : server.port()), client_options));
      clients.push_back(channel);
      return channel;
    }

    // A link to a backend that forwards responses, as the relay uses it.
    JSON_RPC_Channel_Strong_Ptr link_backend()
    {
      EXPECT_EQ(0, backend.open(loopback(0), options));
      TCP_Options link_options = options;
      link_options.forward_responses = true;
      JSON_RPC_Channel_Strong_Ptr link = connect(backend.port(), link_options);
      std::lock_guard<std::mutex> guard(state_mutex);
      backend_link = link;
      return link;
    }

    // Declared first: the transport threads log into it and end before it.
    Log_Capture log;
    TCP_Options options;
    TCP_Acceptor server;
    TCP_Acceptor backend;
    std::vector<JSON_RPC_Channel_Strong_Ptr> clients;
  };

  TEST_P(Loopback, CallsReachTheirHandlersAndUnknownMethodsDraw32601)
  {
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    Value params = Object{{"a", Array{1, "x", Value()}}, {"b", 2.5}};
    EXPECT_EQ(params, result_of(call(client, "echo", params)));

    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
    Array_Generator generated;
    JSON_RPC_Object_Ptr response;
    ASSERT_TRUE(session.request("echo", &generated, response, 10));
    EXPECT_EQ(Value(Array{1, "two", true}), result_of(response));

    JSON_RPC_Object_Ptr unknown = call(client, "no.such.method", Array{});
    EXPECT_EQ(-32601, error_of(unknown).code);
    EXPECT_EQ("Method not found", error_of(unknown).message);
    EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
  }

  TEST_P(Loopback, LargeMessagesAndManyCallersShareOneConnection)
  {
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    // Far larger than any buffer on the way: it arrives over many reads and,
    // with NDJSON, leaves over many writes.
    Value big(std::string(3 * 1024 * 1024 + 7, 'q'));
    EXPECT_EQ(big, result_of(call(client, "echo", Array{big})).get_array().at(0));

    std::vector<std::thread> callers;
    std::atomic<int> answered{0};
    for (int t = 0; t < 4; ++t)
      callers.emplace_back([&, t] {
        for (int i = 0; i < 25; ++i)
        {
          Value params(Array{t, i, std::string(100 * i, 'x')});
          answered += result_of(call(client, "echo", params)) == params;
        }
      });
    for (std::thread& caller : callers)
      caller.join();
    EXPECT_EQ(100, answered.load());
  }

  TEST_P(Loopback, NoticesAroundCallsAreHandledOnTheReadThreadInOrder)
  {
    // The peer sends a notification ahead of each answer. Whether the read
    // thread or the waiting caller reads them, the notification's handler
    // runs on the read thread, and is done before the call returns.
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      seen.clear();
    }
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    for (int i = 0; i < 30; ++i)
    {
      ASSERT_EQ(Value(Array{i}), result_of(call(client, "tell.then.echo", Array{i})));
      std::lock_guard<std::mutex> guard(state_mutex);
      ASSERT_EQ(size_t(i + 1), seen.size());
      EXPECT_EQ(Value(Array{i}), seen.back().second);
      EXPECT_NE(std::this_thread::get_id(), seen.back().first);
    }
    // A notice after the last answer, when no caller reads any more.
    ASSERT_EQ(Value(Array{30}), result_of(call(client, "echo.then.tell", Array{30})));
    EXPECT_TRUE(eventually([] {
      std::lock_guard<std::mutex> guard(state_mutex);
      return seen.size() == 31;
    }));
    close(client);
  }

  TEST_P(Loopback, NotificationsReachHandlerOrSubscribersStarAndGlobalChannel)
  {
    JSON_RPC_Channel_Strong_Ptr news = make_channel(), star = make_channel(), global = make_channel();
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(news), {"news"});
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(star), {"*"});
    // The global channel is set while no other thread runs.
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr(global));
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    notes = 0;
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
    ASSERT_TRUE(session.notify(make_message("weather", Object{{"t", 21}})));
    ASSERT_TRUE(session.notify(make_message("note")));
    ASSERT_TRUE(session.notify(make_message("news", Object{{"n", 1}})));
    // One connection is dispatched in order, and each notice goes to the
    // subject, "*" and the global channel in turn: news to global is last.
    ASSERT_TRUE(eventually([&] { return !fake(global).params_of("news").empty(); }));
    EXPECT_EQ((std::vector<Value>{Object{{"n", 1}}}), fake(news).params_of("news"));
    EXPECT_EQ(1u, fake(news).count());
    for (const JSON_RPC_Channel_Strong_Ptr& c : {star, global})
    {
      EXPECT_EQ((std::vector<Value>{Object{{"n", 1}}}), fake(c).params_of("news"));
      EXPECT_EQ(1u, fake(c).params_of("weather").size());
      EXPECT_TRUE(fake(c).params_of("note").empty());
    }
    EXPECT_EQ(1, notes.load());

    server.close();
    close(client);
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
  }

  TEST_P(Loopback, RegistrationsAreAnnouncedAndARefusedPeerIsDropped)
  {
    JSON_RPC_Channel_Strong_Ptr watcher = make_channel();
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(watcher),
                                                   {"channel.registered", "channel.unregistered"});
    std::atomic<bool> refuse{true};
    options.on_connect = [&refuse](TCP_Channel& channel) {
      if (refuse)
        return -1;
      channel.type(5);
      channel.id("peer " + channel.peer());
      return 0;
    };
    start();
    {
      Socket_Client refused(server.port());
      ASSERT_TRUE(refused.read_to_eof());
      EXPECT_EQ("", refused.in);
    }
    EXPECT_TRUE(log.contains("connection refused."));
    EXPECT_EQ(0u, fake(watcher).count());
    refuse = false;
    JSON_RPC_Channel_Strong_Ptr client = connect();
    ACE_INET_Addr local;
    client->get_local_addr(local);
    const std::string client_addr = ACE_Addr_String(local).c_str();
    auto of_type = [&](const char* method, int type) {
      std::vector<Object> found;
      for (const Value& params : fake(watcher).params_of(method))
        if (params.get_obj().at("channel_type") == Value(type))
          found.push_back(params.get_obj());
      return found;
    };
    ASSERT_TRUE(eventually([&] { return of_type("channel.registered", 5).size() == 1; }));
    Object registered = of_type("channel.registered", 5)[0];
    EXPECT_EQ("peer " + client_addr, registered.at("channel_id").get_str());
    EXPECT_EQ(client_addr, registered.at("channel_address").get_str());
    EXPECT_EQ(json_spirit::int_type, registered.at("ts").type());
    EXPECT_TRUE(is_registered(5, "peer " + client_addr));
    // The client's own end registers with the defaults: type 0, the address.
    ASSERT_EQ(1u, of_type("channel.registered", 0).size());
    EXPECT_EQ(ACE_Addr_String(loopback(server.port())).c_str(),
              of_type("channel.registered", 0)[0].at("channel_id").get_str());

    close(client);
    ASSERT_TRUE(eventually([&] { return of_type("channel.unregistered", 5).size() == 1; }));
    Object unregistered = of_type("channel.unregistered", 5)[0];
    EXPECT_EQ("peer " + client_addr, unregistered.at("channel_id").get_str());
    EXPECT_EQ(0u, unregistered.count("channel_address"));
    EXPECT_FALSE(is_registered(5, "peer " + client_addr));
    EXPECT_EQ(1u, of_type("channel.unregistered", 0).size());
  }

  TEST_P(Loopback, PeerLeavingMidCallLeavesTheCallerToItsLimit)
  {
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
    JSON_RPC_Object_Ptr response;
    EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("close.me", Value()), response, 1));
    EXPECT_TRUE(log.contains("Failed to get response"));
    EXPECT_EQ(nullptr, response.get());
    EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
    // The client's read thread saw the end and let the channel go.
    ASSERT_TRUE(eventually([&] { return closed(client); }));
    ASSERT_TRUE(eventually([&] { return server.connections().empty(); }));
    errno = 0;
    EXPECT_EQ(-1, client->send_object(make_message("late")));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("echo", Value()), response, 1));
    EXPECT_TRUE(log.contains("Failed to send request to channel"));
  }

  TEST_P(Loopback, ClosingEndsConnectionsOnBothSides)
  {
    start();
    TCP_Options named;
    named.on_connect = [](TCP_Channel& channel) { return channel.id("first"), 0; };
    JSON_RPC_Channel_Strong_Ptr first = connect(0, named), second = connect();
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 2; }));
    EXPECT_TRUE(is_registered(0, "first"));
    // A local close returns once the channel is out of the registers; the
    // server's end follows when it sees the end of the stream.
    close(first);
    EXPECT_FALSE(is_registered(0, "first"));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    EXPECT_EQ(Value(1), result_of(call(second, "echo", 1)));

    // An acceptor that stops accepting may leave its connections up...
    server.close(false);
    JSON_RPC_Channel_Strong_Ptr refused;
    EXPECT_EQ(-1, TCP_Connector::connect(refused, loopback(server.port()), options));
    EXPECT_EQ(Value(2), result_of(call(second, "echo", 2)));
    // ...which then end with their peers.
    close(second);

    // Closing an acceptor with its connections ends them for the peers too.
    TCP_Acceptor again;
    ASSERT_EQ(0, again.open(loopback(0), options));
    JSON_RPC_Channel_Strong_Ptr third = connect(again.port());
    ASSERT_TRUE(eventually([&] { return again.connections().size() == 1; }));
    again.close();
    ASSERT_TRUE(eventually([&] { return closed(third); }));
  }

  TEST_P(Loopback, ForwardedResponsesStreamBackAndAClosingForwarderAnswers32603)
  {
    JSON_RPC_Channel_Strong_Ptr link = link_backend();
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    Value params(Array{"x", std::string(512 * 1024, 'f'), Object{{"k", Value()}}});
    EXPECT_EQ(params, result_of(call(client, "relay", Object{{"method", "echo"}, {"params", params}})));

    // A call still out at the backend when the link closes gets an error.
    JSON_RPC_Object_Ptr response;
    std::thread caller([&] { response = call(client, "relay", Object{{"method", "hang"}, {"params", 1}}); });
    ASSERT_TRUE(eventually([] { return hung_count() == 1; }));
    close(link);
    caller.join();
    ASSERT_NE(nullptr, response.get());
    EXPECT_EQ(-32603, error_of(response).code);
    EXPECT_EQ("Internal error, forwarder is closed.", error_of(response).message);
    // Nothing can be forwarded over a closed link.
    EXPECT_EQ(-1, link->forward(JSON_RPC_Channel_Weak_Ptr(client), JSON_RPC_Session::make_rpc_request("echo", 1)));
  }

  TEST_P(Loopback, AnswerForARequesterThatLeftIsDroppedAndTheLinkStays)
  {
    JSON_RPC_Channel_Strong_Ptr link = link_backend();
    start();
    JSON_RPC_Channel_Strong_Ptr leaving = connect(), staying = connect();
    std::thread caller([&] {
      JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(leaving)};
      JSON_RPC_Object_Ptr response;
      session.request(JSON_RPC_Session::make_rpc_request("relay", Object{{"method", "hang"}, {"params", 1}}),
                      response, 1);
    });
    ASSERT_TRUE(eventually([] { return hung_count() == 1; }));
    close(leaving);
    caller.join();
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    // The backend answers now, for a requester that has gone.
    std::pair<JSON_RPC_Channel_Weak_Ptr, Value> hung;
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      hung = hung_calls[0];
    }
    JSON_RPC_Response* late = new JSON_RPC_Response(nullptr);
    late->id = hung.second;
    late->result = Array{std::string(200 * 1024, 'z')};
    ASSERT_EQ(0, JSON_RPC_Channel_Strong_Ptr(hung.first)->send_object(JSON_RPC_Object_Ptr(late)));
    // Still usable: the next relayed call gets through, after the late one.
    EXPECT_EQ(Value(5), result_of(call(staying, "relay", Object{{"method", "echo"}, {"params", 5}})));
    EXPECT_FALSE(closed(link));
    EXPECT_FALSE(log.contains("Failed to forward response"));
  }

  INSTANTIATE_TEST_SUITE_P(Framing, Loopback,
                           ::testing::Values(TCP_Options::FRAMING_CONTENT_LENGTH, TCP_Options::FRAMING_NDJSON),
                           [](const ::testing::TestParamInfo<TCP_Options::Framing>& info) {
                             return info.param == TCP_Options::FRAMING_NDJSON ? "NDJSON" : "ContentLength";
                           });
}
