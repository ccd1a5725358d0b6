// The event-driven TCP core under load: thousands of connections on a few
// threads, a stuck subscriber beside fast ones, a forward paced by its
// requester, the in-flight limit, the connection cap and the graceful drain.
#include "fake_channel.h"
#include "log_capture.h"
#include "tcp_test_support.h"
#include "test_util.h"

#include "json_rpc/json_rpc_function_handler.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_scope.h"
#include "json_rpc/json_rpc_session.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_client.h"
#include "transport/tcp_connector.h"
#include "transport/tcp_server.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

using json_spirit::Value;

namespace
{
  using tcp_test::content_length_frame;

  std::string request(int id, const std::string& method, const std::string& params)
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"method\":\"" + method + "\",\"params\":" + params + "}";
  }

  int threads_of_this_process()
  {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
      if (line.compare(0, 8, "Threads:") == 0)
        return std::stoi(line.substr(8));
    return -1;
  }

  // Waits on a condition shared with handlers, which may outlive a test body.
  struct Gate
  {
    void enter()
    {
      std::unique_lock<std::mutex> lock(mutex);
      ++entered;
      changed.notify_all();
      changed.wait(lock, [&] { return open; });
    }
    void release()
    {
      std::lock_guard<std::mutex> guard(mutex);
      open = true;
      changed.notify_all();
    }
    bool wait_entered(int n)
    {
      std::unique_lock<std::mutex> lock(mutex);
      return changed.wait_for(lock, std::chrono::seconds(30), [&] { return entered >= n; });
    }
    int count()
    {
      std::lock_guard<std::mutex> guard(mutex);
      return entered;
    }

    std::mutex mutex;
    std::condition_variable changed;
    int entered = 0;
    bool open = false;
  };

  class Core : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      add_json_rpc_method("echo", [](Value params) { return params; });
      // Each connection takes two descriptors here, one on each side.
      struct rlimit files;
      if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max)
      {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
      }
    }

    Log_Capture log;
    JSON_RPC_Scope scope{2};
    TCP_Server server;
  };

  TEST_F(Core, ThousandsOfConnectionsAreServedByTheIoThreadsAlone)
  {
    struct rlimit files;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
    const int n = static_cast<int>(std::min<rlim_t>(2000, (files.rlim_cur - 100) / 2));
    ASSERT_GE(n, 400) << "too few descriptors for the test";
    int threads_before = threads_of_this_process();
    TCP_Options options;
    options.io_threads = 2;
    ASSERT_EQ(0, server.start("127.0.0.1:0", options));

    // All connect at once (a burst the listen queue holds), then all call.
    std::vector<int> fds;
    for (int i = 0; i < n; ++i)
    {
      int fd = loopback_connect(server.port());
      ASSERT_NE(-1, fd) << i << ": " << errno;
      fds.push_back(fd);
    }
    for (int i = 0; i < n; ++i)
      ASSERT_TRUE(send_all(fds[i], content_length_frame(request(i, "echo", "[" + std::to_string(i) + "]"))));

    std::vector<std::string> in(n);
    std::vector<pollfd> polls;
    for (int fd : fds)
      polls.push_back({fd, POLLIN, 0});
    auto expected = [](int i) {
      return content_length_frame("{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(i) + ",\"result\":[" + std::to_string(i) + "]}");
    };
    int complete = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (complete < n && std::chrono::steady_clock::now() < deadline)
    {
      if (::poll(polls.data(), polls.size(), 1000) <= 0)
        continue;
      for (int i = 0; i < n; ++i)
      {
        if (!(polls[i].revents & (POLLIN | POLLHUP | POLLERR)))
          continue;
        char buffer[4096];
        ssize_t got = ::recv(fds[i], buffer, sizeof buffer, 0);
        if (got > 0)
          in[i].append(buffer, static_cast<size_t>(got));
        if (got <= 0 || in[i].size() >= expected(i).size())
        {
          polls[i].events = 0;
          complete += 1;
        }
      }
    }
    int right = 0;
    for (int i = 0; i < n; ++i)
      right += in[i] == expected(i);
    EXPECT_EQ(n, right);
    EXPECT_EQ(static_cast<size_t>(n), server.connections().size());
    // The process has the two I/O threads more than before, whatever the
    // number of connections.
    EXPECT_LE(threads_of_this_process(), threads_before + 2);
    for (int fd : fds)
      ::close(fd);
    EXPECT_TRUE(eventually([&] { return server.connections().empty(); }));
  }

  TEST_F(Core, AStuckSubscriberHoldsUpNeitherTheOthersNorNewConnections)
  {
    add_json_rpc_method("subscribe", [](Value) { return Value(true); });
    TCP_Options options;
    options.max_send_queue = 256 * 1024;
    options.on_connect = [](TCP_Channel& channel) {
      return JSON_RPC_Notify_Manager::instance()->subscribe(channel.weak(), {"tick"}) == -1 ? -1 : 0;
    };
    // on_connect runs before the channel is registered: subscribing needs
    // its weak pointer, which start() has set by then.
    ASSERT_EQ(0, server.start("127.0.0.1:0", options));

    // A small window, set before the connect, so that little of what it
    // is sent hides in its socket.
    int stuck = loopback_connect(server.port(), 4096);
    ASSERT_NE(-1, stuck);
    const int fast_count = 4, notices = 3000;
    std::vector<std::unique_ptr<Socket_Client>> fast;
    for (int i = 0; i < fast_count; ++i)
      fast.emplace_back(new Socket_Client(server.port()));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == fast_count + 1u; }));

    std::atomic<int> readers_done{0};
    std::vector<std::thread> readers;
    std::vector<int> received(fast_count, 0);
    for (int i = 0; i < fast_count; ++i)
      readers.emplace_back([&, i] {
        // Each notice ends with the subject's params: count them.
        while (received[i] < notices && fast[i]->read_until("]}"))
        {
          size_t at;
          while ((at = fast[i]->in.find("]}")) != std::string::npos)
          {
            fast[i]->in.erase(0, at + 2);
            ++received[i];
          }
        }
        ++readers_done;
      });

    std::string padding(3000, 'p');
    for (int i = 0; i < notices; ++i)
      JSON_RPC_Notify_Manager::instance()->publish("tick", json_spirit::Array{i, padding});
    for (std::thread& reader : readers)
      reader.join();
    for (int i = 0; i < fast_count; ++i)
      EXPECT_EQ(notices, received[i]) << i;

    // A newcomer is served at once, while the stuck peer, far over its
    // queue's limit, still has its send limit of a minute to go.
    TCP_Client late;
    ASSERT_EQ(0, late.connect(server.address()));
    JSON_RPC_Session session(late.channel());
    JSON_RPC_Object_Ptr response;
    ASSERT_TRUE(session.request(JSON_RPC_Session::make_rpc_request("echo", 5), response, 10));
    EXPECT_EQ("5", answer_text(*response));
    size_t stuck_queue = 0;
    for (const JSON_RPC_Channel_Strong_Ptr& channel : server.connections())
      stuck_queue = std::max(stuck_queue, TCP_Channel::cast(channel)->queued_bytes());
    EXPECT_GT(stuck_queue, options.max_send_queue);
    EXPECT_EQ(fast_count + 2u, server.connections().size());
    ::close(stuck);
  }

  // "big" over NDJSON is forwarded to the upstream link, whose response
  // streams back; upstream, over Content-Length, it is answered with
  // many strings (a forward passes on whole tokens, so many small ones
  // stream).
  struct Forward_Handler : JSON_RPC_Handler
  {
    Forward_Handler(JSON_RPC_Channel_Strong_Ptr* link, size_t size) : link_(link), size_(size) {}
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      TCP_Channel* tcp = TCP_Channel::cast(peer);
      if (!tcp)
        return -1;
      if (tcp->options().framing == TCP_Options::FRAMING_NDJSON)
        return (*link_)->forward(channel, object);
      json_spirit::Array many(size_ / 1024, Value(std::string(1024, 'b')));
      return answer(tcp, as_request(object), Value(std::move(many)));
    }
    JSON_RPC_Channel_Strong_Ptr* link_;
    size_t size_;
  };

  TEST_F(Core, AForwardedResponseIsPacedByItsSlowRequester)
  {
    const size_t size = 24 * 1024 * 1024;
    TCP_Server upstream;
    ASSERT_EQ(0, upstream.start("127.0.0.1:0"));
    TCP_Options link_options;
    link_options.forward_responses = true;
    link_options.register_channel = false;
    JSON_RPC_Channel_Strong_Ptr link;
    ASSERT_EQ(0, TCP_Connector::connect(link, upstream.local_addr(), link_options));
    ASSERT_EQ(0, JSON_RPC_Request_Map::instance()->insert("big", "", new Forward_Handler(&link, size), nullptr));

    TCP_Options options;
    options.framing = TCP_Options::FRAMING_NDJSON;
    options.max_send_queue = 256 * 1024;
    ASSERT_EQ(0, server.start("127.0.0.1:0", options));
    Socket_Client requester(server.port());
    ASSERT_TRUE(requester.send(request(9, "big", "null") + "\n"));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    JSON_RPC_Channel_Strong_Ptr to_requester = server.connections()[0];

    size_t most_queued = 0, got = 0;
    std::string head;
    bool whole = requester.stream_line([&](const char* data, size_t n) {
      if (head.size() < 64)
        head.append(data, std::min<size_t>(n, 64));
      got += n;
      most_queued = std::max(most_queued, TCP_Channel::cast(to_requester)->queued_bytes());
      // A slow reader: a pause now and then.
      if (got % (1024 * 1024) < n)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      return true;
    });
    EXPECT_TRUE(whole);
    EXPECT_EQ(0u, head.find("{\"jsonrpc\":\"2.0\",\"id\":9,\"result\":[\"bbb")) << head;
    EXPECT_GT(got, size);
    // Without the pause the whole response would have queued up here.
    EXPECT_LT(most_queued, 4 * options.max_send_queue);
    TCP_Channel::cast(link)->close();
    upstream.stop();
  }

  TEST_F(Core, PastTheInFlightLimitAConnectionIsNotReadUntilAnswersGoOut)
  {
    auto gate = std::make_shared<Gate>();
    add_json_rpc_method(
      "hold",
      [gate](Value params) {
        // Nothing waits for these threads: the gate lives as long as they do.
        std::shared_ptr<Gate> keep = gate;
        keep->enter();
        return params;
      },
      JSON_RPC_Function_Handler::THREAD_OWN);
    TCP_Options options;
    options.max_requests_in_flight = 3;
    ASSERT_EQ(0, server.start("127.0.0.1:0", options));
    Socket_Client client(server.port());
    std::string burst;
    for (int i = 1; i <= 10; ++i)
      burst += content_length_frame(request(i, "hold", std::to_string(i)));
    ASSERT_TRUE(client.send(burst));
    ASSERT_TRUE(gate->wait_entered(3));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    // Given time, no fourth call starts while three are unanswered.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(3, gate->count());
    EXPECT_EQ(3u, TCP_Channel::cast(server.connections()[0])->requests_in_flight());
    gate->release();
    // Answered in any order, by threads of their own.
    for (int i = 1; i <= 10; ++i)
      EXPECT_TRUE(client.read_until("\"id\":" + std::to_string(i) + ",\"result\":" + std::to_string(i) + "}")) << i;
    EXPECT_EQ(10, gate->count());
  }

  TEST_F(Core, PastTheCapNewConnectionsAreClosedAtOnce)
  {
    TCP_Options options;
    options.max_connections = 2;
    ASSERT_EQ(0, server.start("127.0.0.1:0", options));
    TCP_Client one, two;
    ASSERT_EQ(0, one.connect(server.address()));
    ASSERT_EQ(0, two.connect(server.address()));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 2; }));
    Socket_Client third(server.port(), 10000);
    EXPECT_TRUE(third.read_to_eof());
    EXPECT_TRUE(log.contains("refused: 2 open, the most allowed."));
    // Room again once one has gone (it counts until its end is through).
    one.close();
    EXPECT_TRUE(eventually([&] {
      Socket_Client fourth(server.port(), 10000);
      return fourth.send(content_length_frame(request(4, "echo", "4"))) && fourth.read_until("\"result\":4}");
    }));
  }

  TEST_F(Core, ADrainLetsCallsFinishAndAnswersTheRestWithAnError)
  {
    // On the pool's two workers: the scope's end waits for them, so the
    // held call is over before its method goes.
    auto gate = std::make_shared<Gate>();
    add_json_rpc_method(
      "hold",
      [gate](Value) {
        gate->enter();
        return Value(true);
      },
      JSON_RPC_Function_Handler::THREAD_POOL);
    add_json_rpc_method(
      "soon",
      [](Value) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return Value("done");
      },
      JSON_RPC_Function_Handler::THREAD_POOL);
    ASSERT_EQ(0, server.start("127.0.0.1:0"));
    Socket_Client client(server.port());
    ASSERT_TRUE(client.send(content_length_frame(request(1, "hold", "null")) + content_length_frame(request(2, "soon", "null"))));
    ASSERT_TRUE(gate->wait_entered(1));
    unsigned short port = server.port();

    server.stop(ACE_Time_Value(2));
    EXPECT_FALSE(server.running());
    EXPECT_TRUE(client.read_to_eof());
    EXPECT_NE(std::string::npos, client.in.find("\"id\":2,\"result\":\"done\"}")) << client.in;
    EXPECT_NE(std::string::npos,
              client.in.find("\"id\":1,\"error\":{\"code\":-32001,\"message\":\"Server shutting down\"}")) << client.in;
    EXPECT_TRUE(log.contains("1 request(s) not answered within the drain time"));
    Socket_Client late(port, 5000);
    EXPECT_FALSE(late.connected());
    gate->release();
  }
}
