#include "tcp_test_support.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_session.h"
#include "json_spirit/json_spirit_reader.h"
#include "tessel/retry.h"
#include "tessel/utils.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tcp_test
{
  namespace
  {
    const auto hang_bound = std::chrono::seconds(20);

    // Waits for input on fd until the hang bound; false if none came.
    bool wait_input(int fd, std::chrono::steady_clock::time_point deadline)
    {
      for (;;)
      {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
          return false;
        struct pollfd p = {fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r > 0)
          return true;
        if (r < 0 && errno != EINTR)
          return false;
      }
    }

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
        add_handler("echo", echo);
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

  bool eventually(const std::function<bool()>& cond)
  {
    auto deadline = std::chrono::steady_clock::now() + hang_bound;
    while (!cond())
    {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  ACE_INET_Addr loopback(unsigned short port) { return ACE_INET_Addr(port, "127.0.0.1"); }

  Raw_Client::Raw_Client(unsigned short port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::connect(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa)) << errno;
    // Small writes go out as they are, to cut messages anywhere.
    int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }

  Raw_Client::~Raw_Client() { ::close(fd_); }

  bool Raw_Client::send(const std::string& bytes)
  {
    size_t done = 0;
    while (done < bytes.size())
    {
      ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  bool Raw_Client::read_until(const std::string& part)
  {
    auto deadline = std::chrono::steady_clock::now() + hang_bound;
    while (in.find(part) == std::string::npos)
    {
      char buffer[4096];
      if (!wait_input(fd_, deadline))
        return false;
      ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0)
        return false;
      in.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  bool Raw_Client::read_to_eof()
  {
    auto deadline = std::chrono::steady_clock::now() + hang_bound;
    for (;;)
    {
      char buffer[4096];
      if (!wait_input(fd_, deadline))
        return false;
      ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return true;
      in.append(buffer, static_cast<size_t>(n));
    }
  }

  std::string Raw_Client::local_addr() const
  {
    struct sockaddr_in sa = {};
    socklen_t length = sizeof sa;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &length);
    return ACE_Addr_String(ACE_INET_Addr(&sa, length)).c_str();
  }

  std::string content_length_frame(const std::string& body)
  {
    return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  json_spirit::Value parse(const std::string& text)
  {
    json_spirit::Value value;
    EXPECT_TRUE(json_spirit::read_string(text, value)) << text;
    return value;
  }

  int Recording_Channel::send_object(JSON_RPC_Object_Ptr object)
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    JSON_RPC_Writer().write(*object, printer);
    std::lock_guard<std::mutex> guard(mutex_);
    messages_.push_back(text);
    return 0;
  }

  int Recording_Channel::send_generator(JSON_Generator& generator)
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    JSON_RPC_Writer().write(generator, printer);
    std::lock_guard<std::mutex> guard(mutex_);
    messages_.push_back(text);
    return 0;
  }

  std::vector<std::string> Recording_Channel::messages() const
  {
    std::lock_guard<std::mutex> guard(mutex_);
    return messages_;
  }

  std::vector<json_spirit::Value> Recording_Channel::with_method(const std::string& method) const
  {
    std::vector<json_spirit::Value> found;
    for (const std::string& text : messages())
    {
      json_spirit::Value message = parse(text);
      const json_spirit::Object& members = message.get_obj();
      auto m = members.find("method");
      if (m != members.end() && m->second.get_str() == method)
        found.push_back(message);
    }
    return found;
  }

  void add_handler(const char* method, Function_Handler::Function f)
  {
    ASSERT_EQ(0, JSON_RPC_Request_Map::instance()->insert(method, "", new Function_Handler(std::move(f)), nullptr));
  }

  const JSON_RPC_Request& request_of(const JSON_RPC_Object_Ptr& object)
  {
    return static_cast<const JSON_RPC_Request&>(*object);
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

  int echo(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
  {
    JSON_RPC_Channel_Strong_Ptr peer(channel);
    if (peer.null() || object->type != JSON_RPC_Object::TYPE_REQUEST)
      return -1;
    JSON_RPC_Response* response = new JSON_RPC_Response(&request_of(object));
    response->result = request_of(object).params;
    return peer->send_object(JSON_RPC_Object_Ptr(response));
  }
}
