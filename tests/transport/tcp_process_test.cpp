// Two processes: the library here, tcp_test_server in a child.
#include "tcp_test_support.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_session.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"
#include "tessel/utils.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace tcp_test;

namespace
{
  // Notifications and calls that the server sends this way, with the
  // channel that brought them.
  struct Received
  {
    JSON_RPC_Channel* channel;
    std::string method;
    json_spirit::Value params;
  };
  std::mutex received_mutex;
  std::vector<Received> received;

  std::vector<Received> received_by(const JSON_RPC_Channel_Strong_Ptr& channel, const std::string& method)
  {
    std::lock_guard<std::mutex> guard(received_mutex);
    std::vector<Received> found;
    for (const Received& r : received)
      if (r.channel == channel.get() && r.method == method)
        found.push_back(r);
    return found;
  }

  int record(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
  {
    JSON_RPC_Channel_Strong_Ptr peer(channel);
    const JSON_RPC_Request& request = request_of(object);
    {
      std::lock_guard<std::mutex> guard(received_mutex);
      received.push_back({peer.get(), request.method, request.params});
    }
    if (request.type != JSON_RPC_Object::TYPE_REQUEST)
      return 0;
    JSON_RPC_Response* response = new JSON_RPC_Response(&request);
    response->result = json_spirit::Object{{"hello", request.params}};
    return peer->send_object(JSON_RPC_Object_Ptr(response));
  }

  class Handlers : public ::testing::Environment
  {
  public:
    void SetUp() override
    {
      for (const char* method : {"news", "channel.registered", "channel.unregistered", "hung", "client.hello",
                                 "ping.result"})
        add_handler(method, record);
    }
  };
  ::testing::Environment* const handlers = ::testing::AddGlobalTestEnvironment(new Handlers);

  // tcp_test_server in a child process, for the length of a test.
  class Server_Process
  {
  public:
    explicit Server_Process(bool ndjson) : pid_(-1), port(0)
    {
      int out[2], in[2];
      EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
      EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
      posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
      std::string path = TCP_TEST_SERVER;
      std::vector<char*> argv{&path[0]};
      std::string flag = "--ndjson";
      if (ndjson)
        argv.push_back(&flag[0]);
      argv.push_back(nullptr);
      EXPECT_EQ(0, posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), environ));
      posix_spawn_file_actions_destroy(&actions);
      ::close(in[0]);
      ::close(out[1]);
      stdin_ = in[1];
      FILE* from = fdopen(out[0], "r");
      EXPECT_EQ(1, fscanf(from, "PORT %hu", &port));
      fclose(from);
    }

    ~Server_Process()
    {
      ::close(stdin_);
      kill();
    }

    void kill(int signal = SIGTERM)
    {
      if (pid_ == -1)
        return;
      ::kill(pid_, signal);
      int status = 0;
      waitpid(pid_, &status, 0);
      pid_ = -1;
    }

  private:
    pid_t pid_;
    int stdin_;

  public:
    unsigned short port;
  };

  class Processes : public ::testing::TestWithParam<bool>
  {
  protected:
    Processes() : server(GetParam()) {}

    JSON_RPC_Channel_Strong_Ptr connect()
    {
      TCP_Options options;
      options.framing = GetParam() ? TCP_Options::FRAMING_NDJSON : TCP_Options::FRAMING_CONTENT_LENGTH;
      JSON_RPC_Channel_Strong_Ptr channel;
      EXPECT_EQ(0, TCP_Connector::connect(channel, loopback(server.port), options));
      clients.push_back(channel);
      return channel;
    }

    void TearDown() override
    {
      for (JSON_RPC_Channel_Strong_Ptr& channel : clients)
        TCP_Channel::cast(channel)->close();
      std::lock_guard<std::mutex> guard(received_mutex);
      received.clear();
    }

    Log_Capture log;
    Server_Process server;
    std::vector<JSON_RPC_Channel_Strong_Ptr> clients;
  };

  bool notify(JSON_RPC_Channel_Strong_Ptr channel, const char* method, json_spirit::Value params)
  {
    return JSON_RPC_Session(JSON_RPC_Channel_Weak_Ptr(channel)).notify(notification(method, std::move(params)));
  }

  TEST_P(Processes, CallsAndCallsBack)
  {
    JSON_RPC_Channel_Strong_Ptr client = connect();
    json_spirit::Value params(json_spirit::Object{{"list", json_spirit::Array{1, 2.5, "three", json_spirit::Value()}}});
    JSON_RPC_Object_Ptr response = call(client, "echo", params);
    ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response->type);
    EXPECT_EQ(params, static_cast<const JSON_RPC_Response&>(*response).result);

    response = call(client, "missing", json_spirit::Value());
    ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, response->type);
    EXPECT_EQ(-32601, static_cast<const JSON_RPC_Response_Error&>(*response).code);

    // The server calls this side on the same connection, then reports.
    ASSERT_TRUE(notify(client, "ping.me", json_spirit::Array{"hi"}));
    ASSERT_TRUE(eventually([&] { return received_by(client, "ping.result").size() == 1; }));
    EXPECT_EQ(1u, received_by(client, "client.hello").size());
    EXPECT_EQ(json_spirit::Value(json_spirit::Object{
                {"ok", true}, {"response", json_spirit::Object{{"hello", json_spirit::Array{"hi"}}}}}),
              received_by(client, "ping.result")[0].params);
  }

  TEST_P(Processes, PublishedNotificationsAndRegistrationsReachSubscribers)
  {
    JSON_RPC_Channel_Strong_Ptr news_reader = connect(), watcher = connect();
    call(news_reader, "subscribe", json_spirit::Array{"news"});
    call(watcher, "subscribe", json_spirit::Array{"*"});
    JSON_RPC_Channel_Strong_Ptr publisher = connect();
    ACE_INET_Addr publisher_addr;
    publisher->get_local_addr(publisher_addr);
    std::string publisher_id = ACE_Addr_String(publisher_addr).c_str();

    ASSERT_TRUE(eventually([&] { return received_by(watcher, "channel.registered").size() == 1; }));
    json_spirit::Object registered = received_by(watcher, "channel.registered")[0].params.get_obj();
    EXPECT_EQ(publisher_id, registered.at("channel_id").get_str());
    EXPECT_EQ(publisher_id, registered.at("channel_address").get_str());
    EXPECT_EQ(json_spirit::Value(0), registered.at("channel_type"));
    EXPECT_EQ(json_spirit::int_type, registered.at("ts").type());

    ASSERT_TRUE(notify(publisher, "news", json_spirit::Object{{"n", 1}}));
    ASSERT_TRUE(eventually([&] { return received_by(watcher, "news").size() == 1; }));
    ASSERT_TRUE(eventually([&] { return received_by(news_reader, "news").size() == 1; }));
    EXPECT_EQ(json_spirit::Value(json_spirit::Object{{"n", 1}}), received_by(news_reader, "news")[0].params);
    EXPECT_TRUE(received_by(publisher, "news").empty());
    EXPECT_TRUE(received_by(news_reader, "channel.registered").empty());

    TCP_Channel::cast(publisher)->close();
    ASSERT_TRUE(eventually([&] { return received_by(watcher, "channel.unregistered").size() == 1; }));
    json_spirit::Object unregistered = received_by(watcher, "channel.unregistered")[0].params.get_obj();
    EXPECT_EQ(publisher_id, unregistered.at("channel_id").get_str());
    EXPECT_EQ(0u, unregistered.count("channel_address"));
  }

  TEST_P(Processes, ServerDyingMidCallLeavesTheCallerToItsLimit)
  {
    JSON_RPC_Channel_Strong_Ptr client = connect();
    JSON_RPC_Object_Ptr response;
    bool answered = true;
    std::thread caller([&] {
      JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(client)};
      answered = session.request(JSON_RPC_Session::make_rpc_request("hang", json_spirit::Value(1)), response, 1);
    });
    // The server has the call once it says so.
    ASSERT_TRUE(eventually([&] { return received_by(client, "hung").size() == 1; }));
    server.kill(SIGKILL);
    caller.join();
    EXPECT_FALSE(answered);
    EXPECT_EQ(nullptr, response.get());
    EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
    ASSERT_TRUE(eventually([&] { return TCP_Channel::cast(client)->closed(); }));
  }

  TEST_P(Processes, BadInputClosesOnlyThatConnection)
  {
    JSON_RPC_Channel_Strong_Ptr client = connect();
    Raw_Client bad(server.port);
    ASSERT_TRUE(bad.send(GetParam() ? "{\"jsonrpc\":\n" : "Content-Length: ten\r\n\r\n"));
    ASSERT_TRUE(bad.read_to_eof());
    EXPECT_NE(std::string::npos, bad.in.find("\"id\":null,\"error\":{\"code\":-32700,\"message\":\"Parse error\"}"));
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE, call(client, "echo", 1)->type);
  }

  INSTANTIATE_TEST_SUITE_P(Framing, Processes, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "NDJSON" : "ContentLength";
  });
}
