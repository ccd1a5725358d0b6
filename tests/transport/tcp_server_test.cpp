// The TCP server and client objects over loopback and Unix domain sockets:
// start and stop, a stop with connections open, a port or socket file that
// is taken, and addresses that are bad.
#include "fake_channel.h"
#include "log_capture.h"
#include "test_util.h"

#include "json_rpc/json_rpc_function_handler.h"
#include "json_rpc/json_rpc_scope.h"
#include "json_rpc/json_rpc_session.h"
#include "transport/tcp_client.h"
#include "transport/tcp_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using json_spirit::Value;

namespace
{
  class Server : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      add_json_rpc_method("echo", [](Value params) { return params; });
    }

    // The result of a call over the client's connection, or "no answer" and why.
    static std::string call(TCP_Client& client, const char* method, Value params = Value(), long long timeout = 10)
    {
      JSON_RPC_Session session(client.channel());
      JSON_RPC_Object_Ptr response;
      if (!session.request(JSON_RPC_Session::make_rpc_request(method, std::move(params)), response, timeout))
        return "no answer, errno " + std::to_string(errno);
      return answer_text(*response);
    }

    // In the order a program has them: the log outlives everything, the
    // scope the transports.
    Log_Capture log;
    JSON_RPC_Scope scope{1};
    TCP_Server server;
  };

  TEST_F(Server, StartsServesAndStops)
  {
    EXPECT_FALSE(server.running());
    ASSERT_EQ(0, server.start("127.0.0.1:0"));
    EXPECT_TRUE(server.running());
    ASSERT_NE(0, server.port());
    EXPECT_EQ("127.0.0.1:" + std::to_string(server.port()), server.address());

    TCP_Client client;
    ASSERT_EQ(0, client.connect(server.address()));
    EXPECT_TRUE(client.connected());
    EXPECT_EQ("[1,\"two\"]", call(client, "echo", json_spirit::Array{1, "two"}));
    EXPECT_EQ(1u, server.connections().size());

    server.stop();
    EXPECT_FALSE(server.running());
    EXPECT_TRUE(server.connections().empty());
    // The client sees its connection end, and nothing listens any more.
    EXPECT_TRUE(eventually([&] { return !client.connected(); }));
    TCP_Client late;
    EXPECT_EQ(-1, late.connect("127.0.0.1:" + std::to_string(server.port())));
    EXPECT_FALSE(late.connected());

    // Stopped twice is stopped; and it starts again.
    server.stop();
    ASSERT_EQ(0, server.start("127.0.0.1:0"));
    TCP_Client again;
    ASSERT_EQ(0, again.connect(server.address()));
    EXPECT_EQ("3", call(again, "echo", 3));
  }

  TEST_F(Server, StopClosesOpenConnectionsWithACallInFlight)
  {
    // A call on the pool that is still running at the stop. What it waits
    // on is shared with it: the worker wakes from the wait, and takes the
    // lock again, when this body may have returned.
    struct Gate
    {
      std::mutex mutex;
      std::condition_variable changed;
      bool started = false, release = false, ended = false;
    };
    auto gate = std::make_shared<Gate>();
    ASSERT_TRUE(scope.ok());
    add_json_rpc_method(
      "hold",
      [gate](Value) {
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->started = true;
        gate->changed.notify_all();
        gate->changed.wait(lock, [&] { return gate->release; });
        return Value(true);
      },
      JSON_RPC_Function_Handler::THREAD_POOL);
    ASSERT_EQ(0, server.start("127.0.0.1:0"));

    TCP_Client idle, calling;
    ASSERT_EQ(0, idle.connect(server.address()));
    ASSERT_EQ(0, calling.connect(server.address()));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 2; }));
    std::string answer;
    std::thread caller([&] {
      // A limit far beyond the test's waits: the connection's end fails
      // the call at once.
      answer = call(calling, "hold", Value(), 300);
      std::lock_guard<std::mutex> guard(gate->mutex);
      gate->ended = true;
      gate->changed.notify_all();
    });
    {
      std::unique_lock<std::mutex> lock(gate->mutex);
      ASSERT_TRUE(gate->changed.wait_for(lock, std::chrono::seconds(20), [&] { return gate->started; }));
    }

    server.stop();
    EXPECT_TRUE(server.connections().empty());
    EXPECT_TRUE(eventually([&] { return !idle.connected() && !calling.connected(); }));
    // The caller is left with no answer, not with a hang.
    {
      std::unique_lock<std::mutex> lock(gate->mutex);
      EXPECT_TRUE(gate->changed.wait_for(lock, std::chrono::seconds(30), [&] { return gate->ended; }));
      gate->release = true;
      gate->changed.notify_all();
    }
    caller.join();
    EXPECT_EQ("no answer, errno " + std::to_string(ECONNRESET), answer);
    // The late answer goes nowhere; the scope stops the worker before it
    // destroys the method.
  }

  TEST_F(Server, ABusyPortFailsClearly)
  {
    ASSERT_EQ(0, server.start("127.0.0.1:0"));
    TCP_Server second;
    errno = 0;
    EXPECT_EQ(-1, second.start(server.address()));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_FALSE(second.running());
    EXPECT_TRUE(log.contains("TCP: failed to listen on " + server.address() + ", errno=98"));

    // The first one goes on serving.
    TCP_Client client;
    ASSERT_EQ(0, client.connect(server.address()));
    EXPECT_EQ("true", call(client, "echo", true));

    errno = 0;
    EXPECT_EQ(-1, server.start("127.0.0.1:0"));
    EXPECT_EQ(EISCONN, errno);
  }

  TEST_F(Server, BadAddressesAreRefused)
  {
    for (const char* bad : {"127.0.0.1", "127.0.0.1:", ":4000", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:4x"})
    {
      errno = 0;
      EXPECT_EQ(-1, server.start(bad)) << bad;
      EXPECT_EQ(EINVAL, errno) << bad;
      EXPECT_TRUE(log.contains(std::string("TCP: bad address '") + bad + "', expected HOST:PORT.")) << bad;
      TCP_Client client;
      EXPECT_EQ(-1, client.connect(bad)) << bad;
    }
    EXPECT_FALSE(server.running());
    ASSERT_EQ(0, server.start("[::1]:0")) << log.text();
    EXPECT_EQ("[::1]:" + std::to_string(server.port()), server.address());
    TCP_Client client;
    ASSERT_EQ(0, client.connect(server.address()));
    EXPECT_EQ("\"v6\"", call(client, "echo", "v6"));
  }

  TEST_F(Server, AClientConnectsOnceAndClosesTwiceHarmlessly)
  {
    ASSERT_EQ(0, server.start("127.0.0.1:0"));
    TCP_Client client;
    ASSERT_EQ(0, client.connect(server.address()));
    errno = 0;
    EXPECT_EQ(-1, client.connect(server.address()));
    EXPECT_EQ(EISCONN, errno);
    client.close();
    EXPECT_FALSE(client.connected());
    EXPECT_TRUE(client.channel().null());
    client.close();
    EXPECT_TRUE(eventually([&] { return server.connections().empty(); }));
  }

  TEST_F(Server, ServesOnAUnixSocketWhoseFileItOwns)
  {
    Temp_Dir dir;
    std::string path = dir.file("rpc.sock");
    TCP_Options options;
    options.unix_mode = 0600;
    ASSERT_EQ(0, server.start("unix:" + path, options)) << log.text();
    EXPECT_EQ("unix:" + path, server.address());
    struct stat st;
    ASSERT_EQ(0, ::lstat(path.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    TCP_Client client;
    ASSERT_EQ(0, client.connect(server.address()));
    EXPECT_EQ("[\"local\"]", call(client, "echo", json_spirit::Array{"local"}));
    // Each connection has a name of its own in the registers.
    TCP_Client second;
    ASSERT_EQ(0, second.connect(server.address()));
    EXPECT_EQ("2", call(second, "echo", 2));
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 2; }));
    std::vector<JSON_RPC_Channel_Strong_Ptr> up = server.connections();
    EXPECT_NE(up[0]->id(), up[1]->id());
    EXPECT_EQ(0u, up[0]->id().find("unix:" + path + "#"));

    // A second server can't take a socket in use.
    TCP_Server other;
    errno = 0;
    EXPECT_EQ(-1, other.start("unix:" + path));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_EQ("[\"still\"]", call(client, "echo", json_spirit::Array{"still"}));

    // The file goes with the server.
    server.stop();
    EXPECT_NE(0, ::lstat(path.c_str(), &st));
    EXPECT_TRUE(eventually([&] { return !client.connected(); }));
  }

  TEST_F(Server, AStaleSocketFileIsReplacedAndAnythingElseLeftAlone)
  {
    Temp_Dir dir;
    // A socket file that nobody listens on: what a killed server leaves.
    std::string stale = dir.file("stale.sock");
    sockaddr_un addr;
    int fd = unix_stream_socket(stale, addr);
    ASSERT_NE(-1, fd);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ::close(fd);
    ASSERT_EQ(0, server.start("unix:" + stale)) << log.text();
    TCP_Client client;
    ASSERT_EQ(0, client.connect("unix:" + stale));
    EXPECT_EQ("true", call(client, "echo", true));
    server.stop();

    // A plain file is somebody's: refused, and kept.
    std::string plain = dir.write("plain", "keep me");
    TCP_Server other;
    errno = 0;
    EXPECT_EQ(-1, other.start("unix:" + plain));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_TRUE(log.contains("TCP: failed to listen on unix:" + plain));
    struct stat st;
    ASSERT_EQ(0, ::lstat(plain.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // Nothing listens: connecting fails clearly.
    TCP_Client nobody;
    errno = 0;
    EXPECT_EQ(-1, nobody.connect("unix:" + dir.file("none.sock")));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, nobody.connect("unix:" + std::string(200, 'x')));
    EXPECT_EQ(ENAMETOOLONG, errno);
  }
}
