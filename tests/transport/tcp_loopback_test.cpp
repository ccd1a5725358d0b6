// Both ends of the library in one process, talking over loopback TCP.
#include "tcp_test_support.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_session.h"
#include "transport/tcp_acceptor.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"
#include "tessel/utils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace tcp_test;

namespace
{
  // State the handlers share with the tests; handlers run on read threads.
  std::mutex state_mutex;
  std::vector<std::pair<JSON_RPC_Channel_Weak_Ptr, json_spirit::Value>> hung_calls;
  JSON_RPC_Channel_Strong_Ptr backend_link;
  std::atomic<int> notes{0};

  class Handlers : public ::testing::Environment
  {
  public:
    void SetUp() override
    {
      add_handler("note", [](JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) {
        ++notes;
        return 0;
      });
      // Never answers.
      add_handler("hang", [](JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) {
        std::lock_guard<std::mutex> guard(state_mutex);
        hung_calls.emplace_back(channel, object->id);
        return 0;
      });
      // Drops the connection the call came on, without an answer.
      add_handler("close.me", [](JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr) {
        JSON_RPC_Channel_Strong_Ptr peer(channel);
        TCP_Channel::cast(peer)->close();
        return 0;
      });
      // Passes {"method": m, "params": p} on to the backend as a call of m,
      // under the caller's id; the response streams back by itself.
      add_handler("relay", [](JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) {
        const JSON_RPC_Request& in = request_of(object);
        JSON_RPC_Request* out = new JSON_RPC_Request;
        out->type = JSON_RPC_Object::TYPE_REQUEST;
        out->id = in.id;
        out->method = in.params.get_obj().at("method").get_str();
        out->params = in.params.get_obj().at("params");
        JSON_RPC_Channel_Strong_Ptr link;
        {
          std::lock_guard<std::mutex> guard(state_mutex);
          link = backend_link;
        }
        return link->forward(channel, JSON_RPC_Object_Ptr(out));
      });
    }
  };
  ::testing::Environment* const handlers = ::testing::AddGlobalTestEnvironment(new Handlers);

  bool is_registered(int type, const std::string& id)
  {
    return !JSON_RPC_Channel_Strong_Ptr(JSON_RPC_Channel_Map::instance()->find(type, id)).null();
  }

  size_t hung_count()
  {
    std::lock_guard<std::mutex> guard(state_mutex);
    return hung_calls.size();
  }

  const json_spirit::Value& result_of(const JSON_RPC_Object_Ptr& response)
  {
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response->type);
    return static_cast<const JSON_RPC_Response&>(*response).result;
  }

  const JSON_RPC_Response_Error& error_of(const JSON_RPC_Object_Ptr& response)
  {
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, response->type);
    return static_cast<const JSON_RPC_Response_Error&>(*response);
  }

  json_spirit::Value object(std::initializer_list<std::pair<const std::string, json_spirit::Value>> members)
  {
    return json_spirit::Value(json_spirit::Object(members));
  }

  // Params produced while the request is written.
  class Array_Generator : public JSON_Generator
  {
  public:
    bool generate_i(YAJL_Gen& gen) override
    {
      gen.array_open() << 1 << "two" << true;
      gen.array_close();
      return gen.ok();
    }
  };

  class Loopback : public ::testing::TestWithParam<TCP_Options::Framing>
  {
  protected:
    Loopback() { options.framing = GetParam(); }

    void TearDown() override
    {
      for (JSON_RPC_Channel_Strong_Ptr& channel : clients)
        TCP_Channel::cast(channel)->close();
      clients.clear();
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
    json_spirit::Value params = object({{"a", json_spirit::Array{1, "x", json_spirit::Value()}}, {"b", 2.5}});
    EXPECT_EQ(params, result_of(call(client, "echo", params)));

    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
    Array_Generator generated;
    JSON_RPC_Object_Ptr response;
    ASSERT_TRUE(session.request("echo", &generated, response, 10));
    EXPECT_EQ(json_spirit::Value(json_spirit::Array{1, "two", true}), result_of(response));

    JSON_RPC_Object_Ptr unknown = call(client, "no.such.method", json_spirit::Array{});
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
    json_spirit::Value big(std::string(3 * 1024 * 1024 + 7, 'q'));
    EXPECT_EQ(big, result_of(call(client, "echo", json_spirit::Array{big})).get_array().at(0));

    std::vector<std::thread> callers;
    std::atomic<int> answered{0};
    for (int t = 0; t < 4; ++t)
      callers.emplace_back([&, t] {
        for (int i = 0; i < 25; ++i)
        {
          json_spirit::Value params(json_spirit::Array{t, i, std::string(100 * i, 'x')});
          if (result_of(call(client, "echo", params)) == params)
            ++answered;
        }
      });
    for (std::thread& caller : callers)
      caller.join();
    EXPECT_EQ(100, answered.load());
  }

  TEST_P(Loopback, NotificationsReachHandlerOrSubscribersStarAndGlobalChannel)
  {
    JSON_RPC_Channel_Strong_Ptr news(new Recording_Channel), star(new Recording_Channel), global(new Recording_Channel);
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(news), {"news"});
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(star), {"*"});
    // The global channel is set while no other thread runs.
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr(global));
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    notes = 0;
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
    ASSERT_TRUE(session.notify(notification("weather", object({{"t", 21}}))));
    ASSERT_TRUE(session.notify(notification("note", json_spirit::Value())));
    ASSERT_TRUE(session.notify(notification("news", object({{"n", 1}}))));
    // One connection is dispatched in order: news comes last.
    auto& news_channel = static_cast<Recording_Channel&>(*news);
    ASSERT_TRUE(eventually([&] { return !news_channel.with_method("news").empty(); }));

    auto& star_channel = static_cast<Recording_Channel&>(*star);
    auto& global_channel = static_cast<Recording_Channel&>(*global);
    for (Recording_Channel* c : {&star_channel, &global_channel})
    {
      ASSERT_EQ(1u, c->with_method("news").size());
      EXPECT_EQ(object({{"n", 1}}), c->with_method("news")[0].get_obj().at("params"));
      EXPECT_EQ(1u, c->with_method("weather").size());
      EXPECT_TRUE(c->with_method("note").empty());
    }
    EXPECT_EQ(1u, news_channel.messages().size());
    EXPECT_EQ(1, notes.load());

    server.close();
    TCP_Channel::cast(client)->close();
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
  }

  TEST_P(Loopback, RegistrationsAreAnnouncedAndARefusedPeerIsDropped)
  {
    JSON_RPC_Channel_Strong_Ptr watcher(new Recording_Channel);
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(watcher),
                                                   {"channel.registered", "channel.unregistered"});
    auto& watched = static_cast<Recording_Channel&>(*watcher);
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
      Raw_Client refused(server.port());
      ASSERT_TRUE(refused.read_to_eof());
      EXPECT_EQ("", refused.in);
    }
    EXPECT_TRUE(log.contains("connection refused."));
    EXPECT_TRUE(watched.with_method("channel.registered").empty());
    refuse = false;
    JSON_RPC_Channel_Strong_Ptr client = connect();
    std::string client_addr = ACE_Addr_String([&] {
                                ACE_INET_Addr a;
                                client->get_local_addr(a);
                                return a;
                              }()).c_str();
    auto of_type = [&](const char* method, int type) {
      std::vector<json_spirit::Object> found;
      for (const json_spirit::Value& m : watched.with_method(method))
        if (m.get_obj().at("params").get_obj().at("channel_type") == json_spirit::Value(type))
          found.push_back(m.get_obj().at("params").get_obj());
      return found;
    };
    ASSERT_TRUE(eventually([&] { return of_type("channel.registered", 5).size() == 1; }));
    json_spirit::Object registered = of_type("channel.registered", 5)[0];
    EXPECT_EQ("peer " + client_addr, registered.at("channel_id").get_str());
    EXPECT_EQ(client_addr, registered.at("channel_address").get_str());
    EXPECT_EQ(json_spirit::int_type, registered.at("ts").type());
    EXPECT_TRUE(is_registered(5, "peer " + client_addr));
    // The client's own end registers with the defaults: type 0, the address.
    ASSERT_EQ(1u, of_type("channel.registered", 0).size());
    EXPECT_EQ(ACE_Addr_String(loopback(server.port())).c_str(),
              of_type("channel.registered", 0)[0].at("channel_id").get_str());

    TCP_Channel::cast(client)->close();
    ASSERT_TRUE(eventually([&] { return of_type("channel.unregistered", 5).size() == 1; }));
    json_spirit::Object unregistered = of_type("channel.unregistered", 5)[0];
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
    EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("close.me", json_spirit::Value()), response, 1));
    EXPECT_TRUE(log.contains("Failed to get response"));
    EXPECT_EQ(nullptr, response.get());
    EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
    // The client's read thread saw the end and let the channel go.
    ASSERT_TRUE(eventually([&] { return TCP_Channel::cast(client)->closed(); }));
    ASSERT_TRUE(eventually([&] { return server.connections().empty(); }));
    errno = 0;
    EXPECT_EQ(-1, client->send_object(notification("late", json_spirit::Value())));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_FALSE(session.request(JSON_RPC_Session::make_rpc_request("echo", json_spirit::Value()), response, 1));
    EXPECT_TRUE(log.contains("Failed to send request to channel"));
  }

  TEST_P(Loopback, ClosingEndsConnectionsOnBothSides)
  {
    start();
    TCP_Options named;
    named.on_connect = [](TCP_Channel& channel) {
      channel.id("first");
      return 0;
    };
    JSON_RPC_Channel_Strong_Ptr first = connect(0, named), second = connect();
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 2; }));
    EXPECT_TRUE(is_registered(0, "first"));
    // A local close returns once the channel is out of the registers; the
    // server's end follows when it sees the end of the stream.
    TCP_Channel::cast(first)->close();
    EXPECT_FALSE(is_registered(0, "first"));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    EXPECT_EQ(json_spirit::Value(1), result_of(call(second, "echo", 1)));

    // An acceptor that stops accepting may leave its connections up...
    server.close(false);
    JSON_RPC_Channel_Strong_Ptr refused;
    EXPECT_EQ(-1, TCP_Connector::connect(refused, loopback(server.port()), options));
    EXPECT_EQ(json_spirit::Value(2), result_of(call(second, "echo", 2)));
    // ...which then end with their peers.
    TCP_Channel::cast(second)->close();

    // Closing an acceptor with its connections ends them for the peers too.
    TCP_Acceptor again;
    ASSERT_EQ(0, again.open(loopback(0), options));
    JSON_RPC_Channel_Strong_Ptr third = connect(again.port());
    ASSERT_TRUE(eventually([&] { return again.connections().size() == 1; }));
    again.close();
    ASSERT_TRUE(eventually([&] { return TCP_Channel::cast(third)->closed(); }));
  }

  TEST_P(Loopback, ForwardedResponsesStreamBackAndAClosingForwarderAnswers32603)
  {
    ASSERT_EQ(0, backend.open(loopback(0), options));
    TCP_Options link_options = options;
    link_options.forward_responses = true;
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      backend_link = connect(backend.port(), link_options);
    }
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    json_spirit::Value params(json_spirit::Array{"x", std::string(512 * 1024, 'f'), object({{"k", json_spirit::Value()}})});
    EXPECT_EQ(params, result_of(call(client, "relay", object({{"method", "echo"}, {"params", params}}))));

    // A call still out at the backend when the link closes gets an error.
    JSON_RPC_Object_Ptr response;
    std::thread caller([&] { response = call(client, "relay", object({{"method", "hang"}, {"params", 1}})); });
    ASSERT_TRUE(eventually([] { return hung_count() == 1; }));
    JSON_RPC_Channel_Strong_Ptr link;
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      link = backend_link;
    }
    TCP_Channel::cast(link)->close();
    caller.join();
    ASSERT_NE(nullptr, response.get());
    EXPECT_EQ(-32603, error_of(response).code);
    EXPECT_EQ("Internal error, forwarder is closed.", error_of(response).message);
    // Nothing can be forwarded over a closed link.
    EXPECT_EQ(-1, link->forward(JSON_RPC_Channel_Weak_Ptr(client),
                                JSON_RPC_Session::make_rpc_request("echo", json_spirit::Value(1))));
  }

  TEST_P(Loopback, AnswerForARequesterThatLeftIsDroppedAndTheLinkStays)
  {
    ASSERT_EQ(0, backend.open(loopback(0), options));
    TCP_Options link_options = options;
    link_options.forward_responses = true;
    JSON_RPC_Channel_Strong_Ptr link = connect(backend.port(), link_options);
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      backend_link = link;
    }
    start();
    JSON_RPC_Channel_Strong_Ptr leaving = connect(), staying = connect();
    std::thread caller([&] {
      JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(leaving)};
      JSON_RPC_Object_Ptr response;
      session.request(JSON_RPC_Session::make_rpc_request("relay", object({{"method", "hang"}, {"params", 1}})),
                      response, 1);
    });
    ASSERT_TRUE(eventually([] { return hung_count() == 1; }));
    TCP_Channel::cast(leaving)->close();
    caller.join();
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    // The backend answers now, for a requester that has gone.
    std::pair<JSON_RPC_Channel_Weak_Ptr, json_spirit::Value> hung;
    {
      std::lock_guard<std::mutex> guard(state_mutex);
      hung = hung_calls[0];
    }
    JSON_RPC_Response* late = new JSON_RPC_Response(nullptr);
    late->id = hung.second;
    late->result = json_spirit::Array{std::string(200 * 1024, 'z')};
    ASSERT_EQ(0, JSON_RPC_Channel_Strong_Ptr(hung.first)->send_object(JSON_RPC_Object_Ptr(late)));
    // Still usable: the next relayed call gets through, after the late one.
    EXPECT_EQ(json_spirit::Value(5), result_of(call(staying, "relay", object({{"method", "echo"}, {"params", 5}}))));
    EXPECT_FALSE(TCP_Channel::cast(link)->closed());
    EXPECT_FALSE(log.contains("Failed to forward response"));
  }

  INSTANTIATE_TEST_SUITE_P(Framing, Loopback,
                           ::testing::Values(TCP_Options::FRAMING_CONTENT_LENGTH, TCP_Options::FRAMING_NDJSON),
                           [](const ::testing::TestParamInfo<TCP_Options::Framing>& info) {
                             return info.param == TCP_Options::FRAMING_NDJSON ? "NDJSON" : "ContentLength";
                           });
}
