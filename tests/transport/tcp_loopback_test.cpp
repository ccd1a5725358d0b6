// Both ends of the library in one process over loopback TCP: what only a
// real connection shows, its registration, refusal and ending.
#include "tcp_test_support.h"

#include "tessel/retry.h"
#include "tessel/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <condition_variable>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tcp_test;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
  // Notices of "seen" by their params, with the thread that handled each.
  std::mutex seen_mutex;
  std::map<Value, std::thread::id, json_spirit::value_lesser> seen;
  // Calls of "hold" that reached the server.
  std::atomic<int> held{0};

  size_t seen_count()
  {
    std::lock_guard<std::mutex> guard(seen_mutex);
    return seen.size();
  }

  // Singletons made before any transport thread, short back-off waits and
  // one-second call limits, for every test of this program.
  struct Environment : ::testing::Environment
  {
    void SetUp() override
    {
      setenv("JSON_RPC_REQUEST_TIMEOUT", "1", 1);
      retry_sleeper([](unsigned int) {});
      open_singletons();
      ASSERT_EQ(0, add_handler("echo", echo));
      // Slow, so that an answer overtaking it would show.
      add_handler("seen", [](JSON_RPC_Channel_Strong_Ptr, const JSON_RPC_Request& request) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        std::lock_guard<std::mutex> guard(seen_mutex);
        seen[request.params] = std::this_thread::get_id();
        return 0;
      });
      add_handler("tell.then.echo", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        channel->send_object(make_message("seen", request.params));
        return echo(channel, request);
      });
      // Calls the peer back over the same connection, from the read thread,
      // and answers with what the peer said and whether a notice that came
      // ahead of that answer had been handled yet (it must wait its turn).
      add_handler("ask.back", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        JSON_RPC_Object_Ptr response;
        JSON_RPC_Session back{JSON_RPC_Channel_Weak_Ptr(channel)};
        if (!back.request(JSON_RPC_Session::make_rpc_request("tell.then.echo", Value(request.params)), response, 10))
          return channel->send_error(-32000, request.id, "no answer from the peer", Value(errno));
        std::lock_guard<std::mutex> guard(seen_mutex);
        Value got = static_cast<const JSON_RPC_Response&>(*response).result;
        return answer(channel.get(), request, json_spirit::Array{got, seen.count(request.params) > 0});
      });
      // Never answered.
      add_handler("hold", [](JSON_RPC_Channel_Strong_Ptr, const JSON_RPC_Request&) { return ++held, 0; });
      add_handler("echo.then.tell", [](JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request) {
        echo(channel, request);
        // Late enough that the caller has its answer and reads no more.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return channel->send_object(make_message("seen", request.params));
      });
    }
    void TearDown() override { close_singletons(); }
  };
  ::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new Environment);

  bool is_registered(int type, const std::string& id)
  {
    return !JSON_RPC_Channel_Strong_Ptr(JSON_RPC_Channel_Map::instance()->find(type, id)).null();
  }

  class Loopback : public ::testing::Test
  {
  protected:
    void TearDown() override
    {
      for (JSON_RPC_Channel_Strong_Ptr& channel : clients)
        close(channel);
      server.close();
    }

    void start() { ASSERT_EQ(0, server.open(loopback(0), options)); }

    JSON_RPC_Channel_Strong_Ptr connect(unsigned short port = 0, TCP_Options client_options = TCP_Options())
    {
      JSON_RPC_Channel_Strong_Ptr channel;
      EXPECT_EQ(0, TCP_Connector::connect(channel, loopback(port ? port : server.port()), client_options));
      clients.push_back(channel);
      return channel;
    }

    // Declared first: the transport threads log into it and end before it.
    Log_Capture log;
    TCP_Options options;
    TCP_Acceptor server;
    std::vector<JSON_RPC_Channel_Strong_Ptr> clients;
  };

  TEST_F(Loopback, RegistrationsAreAnnouncedAndARefusedPeerIsDropped)
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

  TEST_F(Loopback, ClosingEndsConnectionsOnBothSides)
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
    EXPECT_EQ(Value(1), echo_over(second, 1));

    // An acceptor that stops accepting may leave its connections up...
    server.close(false);
    JSON_RPC_Channel_Strong_Ptr refused;
    EXPECT_EQ(-1, TCP_Connector::connect(refused, loopback(server.port()), options));
    EXPECT_EQ(Value(2), echo_over(second, 2));
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

  TEST_F(Loopback, NoticesAroundCallsAreHandledOnTheReadThreadInOrder)
  {
    // A notice comes ahead of each answer. Whichever thread reads them, the
    // read thread or a caller waiting for its answer, the notice is handled
    // on the read thread, and before the call returns: by one caller, then
    // by three at once.
    {
      std::lock_guard<std::mutex> guard(seen_mutex);
      seen.clear();
    }
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    std::atomic<int> faults{0};
    std::vector<std::thread::id> caller_ids;
    std::mutex ids_mutex;
    auto calls = [&](int t, int n) {
      {
        std::lock_guard<std::mutex> guard(ids_mutex);
        caller_ids.push_back(std::this_thread::get_id());
      }
      for (int i = 0; i < n; ++i)
      {
        Value params(json_spirit::Array{t, i});
        faults += echo_over(client, params, "tell.then.echo") != params;
        std::lock_guard<std::mutex> guard(seen_mutex);
        faults += seen.count(params) == 0;
      }
    };
    calls(0, 20);
    std::vector<std::thread> callers;
    for (int t = 1; t <= 3; ++t)
      callers.emplace_back(calls, t, 10);
    for (std::thread& caller : callers)
      caller.join();
    EXPECT_EQ(0, faults.load());
    ASSERT_EQ(50u, seen_count());
    for (const auto& notice : seen)
      EXPECT_EQ(caller_ids.end(), std::find(caller_ids.begin(), caller_ids.end(), notice.second));
    // A notice after the last answer, when no caller reads any more.
    EXPECT_EQ(Value(30), echo_over(client, 30, "echo.then.tell"));
    EXPECT_TRUE(eventually([] { return seen_count() == 51; }));
  }

  TEST_F(Loopback, NothingIsForwardedOverAClosedLink)
  {
    start();
    TCP_Options link_options;
    link_options.forward_responses = true;
    JSON_RPC_Channel_Strong_Ptr link = connect(0, link_options), client = connect();
    close(link);
    errno = 0;
    EXPECT_EQ(-1, link->forward(JSON_RPC_Channel_Weak_Ptr(client), JSON_RPC_Session::make_rpc_request("echo", 1)));
    EXPECT_EQ(EPIPE, errno);
  }
}

namespace
{
  // A call of "hold" on its own thread, which the test ends by ending the
  // connection: the caller's result and errno.
  struct Held_Call
  {
    explicit Held_Call(JSON_RPC_Channel_Strong_Ptr channel)
      : thread_([this, channel] {
          JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
          JSON_RPC_Object_Ptr response;
          // A limit far beyond the test's: only the end of the connection
          // can make it return with the errno checked below.
          ok = session.request(JSON_RPC_Session::make_rpc_request("hold", Value()), response, 300);
          error = errno;
          done = true;
        })
    {
    }
    ~Held_Call() { join(); }
    void join()
    {
      if (thread_.joinable())
        thread_.join();
    }

    std::atomic<bool> done{false};
    bool ok = true;
    int error = 0;
    std::thread thread_;
  };

  TEST_F(Loopback, AConnectionThatEndsFailsItsWaitingCallersAtOnce)
  {
    start();
    struct Case
    {
      const char* how;
      int error;
      std::function<void(JSON_RPC_Channel_Strong_Ptr client)> end;
    };
    const Case cases[] = {
      {"the peer closes", ECONNRESET, [&](JSON_RPC_Channel_Strong_Ptr) { close(server.connections().at(0)); }},
      {"our side closes", ECONNABORTED, [](JSON_RPC_Channel_Strong_Ptr client) { close(client); }},
    };
    for (const Case& c : cases)
    {
      SCOPED_TRACE(c.how);
      JSON_RPC_Channel_Strong_Ptr client = connect();
      ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
      std::vector<std::unique_ptr<Held_Call>> calls;
      held = 0;
      for (int i = 0; i < 3; ++i)
        calls.emplace_back(new Held_Call(client));
      // Sent (the server has them) and waiting: a call that ends before it
      // was sent fails in its send instead, with EPIPE.
      ASSERT_TRUE(eventually([] { return held == 3 && JSON_RPC_Response_Map::instance()->size() == 3; }));
      c.end(client);
      for (auto& call : calls)
      {
        call->join();
        EXPECT_FALSE(call->ok);
        EXPECT_EQ(c.error, call->error);
      }
      calls.clear();
      EXPECT_EQ(0u, JSON_RPC_Response_Map::instance()->size());
      ASSERT_TRUE(eventually([&] { return server.connections().empty(); }));
      close(client);
      clients.clear();
    }

    // A peer that is reset, or killed, whatever it had read.
    unsigned short port = 0;
    int listener = loopback_listener(port, 1);
    ASSERT_NE(-1, listener);
    JSON_RPC_Channel_Strong_Ptr client = connect(port);
    int peer = ::accept(listener, nullptr, nullptr);
    ASSERT_NE(-1, peer);
    Held_Call call(client);
    char byte;
    ASSERT_EQ(1, ::recv(peer, &byte, 1, 0));
    struct linger reset = {1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(peer);
    ::close(listener);
    call.join();
    EXPECT_FALSE(call.ok);
    EXPECT_EQ(ECONNRESET, call.error);
  }

  TEST_F(Loopback, ADirectHandlerThatCallsItsPeerBackGetsTheAnswer)
  {
    {
      std::lock_guard<std::mutex> guard(seen_mutex);
      seen.clear();
    }
    start();
    JSON_RPC_Channel_Strong_Ptr client = connect();
    for (int i = 0; i < 3; ++i)
    {
      // The peer's notice came first but was held until the handler returned.
      EXPECT_EQ(Value(json_spirit::Array{i, false}), echo_over(client, i, "ask.back"));
      EXPECT_TRUE(eventually([i] {
        std::lock_guard<std::mutex> guard(seen_mutex);
        return seen.count(Value(i)) == 1;
      }));
    }
    // The connection goes on as before.
    EXPECT_EQ(Value(9), echo_over(client, 9));
  }
}

namespace
{
  TEST_F(Loopback, ConnectsWaitInTheListenQueueWhileTheAcceptorIsBusy)
  {
    // The first connection holds the acceptor in on_connect. Meanwhile the
    // system completes the handshakes of the others, as many as the
    // listener's queue holds: a burst is not dropped (ACE's default held 5).
    struct Gate
    {
      std::mutex mutex;
      std::condition_variable opened;
      bool open = false;
      std::atomic<int> seen{0};
    };
    auto gate = std::make_shared<Gate>();
    options.on_connect = [gate](TCP_Channel&) {
      if (gate->seen++ == 0)
      {
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->opened.wait_for(lock, std::chrono::seconds(30), [&] { return gate->open; });
      }
      return 0;
    };
    start();
    auto open_gate = [gate] {
      std::lock_guard<std::mutex> lock(gate->mutex);
      gate->open = true;
      gate->opened.notify_all();
    };
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(server.port());
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> fds;
    auto connect_one = [&] {
      int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      if (fd != -1)
      {
        fds.push_back(fd);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS)
          ADD_FAILURE() << "connect: " << std::strerror(errno);
      }
    };
    connect_one();
    ASSERT_TRUE(eventually([&] { return gate->seen == 1; }));
    const size_t count = 100;
    for (size_t i = 0; i < count; ++i)
      connect_one();
    // Connected means writable without an error, within a bounded wait.
    size_t connected = 0;
    std::vector<bool> done(fds.size(), false);
    for (int round = 0; round < 100 && connected < count; ++round)
    {
      std::vector<pollfd> watch;
      for (size_t i = 1; i < fds.size(); ++i)
        if (!done[i])
          watch.push_back({fds[i], POLLOUT, 0});
      ::poll(watch.data(), watch.size(), 100);
      for (const pollfd& p : watch)
      {
        int error = 0;
        socklen_t length = sizeof error;
        if ((p.revents & POLLOUT) && ::getsockopt(p.fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)
        {
          done[std::find(fds.begin(), fds.end(), p.fd) - fds.begin()] = true;
          ++connected;
        }
      }
    }
    open_gate();
    EXPECT_EQ(count, connected);
    for (int fd : fds)
      ::close(fd);
  }
}
