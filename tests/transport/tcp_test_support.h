#ifndef TESTS_TRANSPORT_TCP_TEST_SUPPORT_H
#define TESTS_TRANSPORT_TCP_TEST_SUPPORT_H

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_spirit/json_spirit_value.h"

#include <ace/INET_Addr.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace tcp_test
{
  /// Waits until cond holds. The 20 s bound only turns a hang into a
  /// failure; nothing depends on how long it takes.
  bool eventually(const std::function<bool()>& cond);

  ACE_INET_Addr loopback(unsigned short port);

  /// A plain socket, for feeding a server exact bytes.
  class Raw_Client
  {
  public:
    explicit Raw_Client(unsigned short port);
    ~Raw_Client();
    Raw_Client(const Raw_Client&) = delete;
    Raw_Client& operator=(const Raw_Client&) = delete;

    bool send(const std::string& bytes);
    /// Appends what arrives to `in` until it holds `part`; false on the
    /// peer's end or the hang bound.
    bool read_until(const std::string& part);
    /// Reads until the peer closes; false at the hang bound.
    bool read_to_eof();
    /// "address:port" of this end, as the server names its peer.
    std::string local_addr() const;

    std::string in;

  private:
    int fd_;
  };

  std::string content_length_frame(const std::string& body);
  json_spirit::Value parse(const std::string& text);

  /// Stands in for a subscriber or the global channel: keeps every message
  /// sent to it, as text.
  class Recording_Channel : public JSON_RPC_Channel
  {
  public:
    int send_object(JSON_RPC_Object_Ptr object) override;
    int send_generator(JSON_Generator& generator) override;
    yajl_gen_t* send_begin() override { return nullptr; }
    int send_end() override { return -1; }
    int get_local_addr(ACE_Addr&) const override { return -1; }
    int get_remote_addr(ACE_Addr&) const override { return -1; }
    int io_state() override { return 0; }

    std::vector<std::string> messages() const;
    /// The messages whose method is `method`, parsed.
    std::vector<json_spirit::Value> with_method(const std::string& method) const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
  };

  /// Runs a function for each message of its method.
  class Function_Handler : public JSON_RPC_Handler
  {
  public:
    typedef std::function<int(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr)> Function;
    explicit Function_Handler(Function f) : f_(std::move(f)) {}
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      return f_(channel, object);
    }

  private:
    Function f_;
  };

  /// Handlers are entered before any transport thread runs: the request map
  /// has no lock.
  void add_handler(const char* method, Function_Handler::Function f);
  /// Answers a request with its params as the result; every test binary
  /// has it as "echo".
  int echo(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object);
  const JSON_RPC_Request& request_of(const JSON_RPC_Object_Ptr& object);
  /// Inline, for tcp_test_server too.
  inline JSON_RPC_Object_Ptr notification(const char* method, json_spirit::Value params)
  {
    JSON_RPC_Request* note = new JSON_RPC_Request;
    note->type = JSON_RPC_Object::TYPE_NOTIFICATION;
    note->method = method;
    note->params = std::move(params);
    return JSON_RPC_Object_Ptr(note);
  }
  /// A call through JSON_RPC_Session that is expected to be answered.
  JSON_RPC_Object_Ptr call(JSON_RPC_Channel_Strong_Ptr channel, const char* method, json_spirit::Value params,
                           long long timeout = 10);
}

#endif
