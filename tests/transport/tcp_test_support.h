#ifndef TESTS_TRANSPORT_TCP_TEST_SUPPORT_H
#define TESTS_TRANSPORT_TCP_TEST_SUPPORT_H

#include "fake_channel.h"
#include "log_capture.h"
#include "test_util.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_session.h"
#include "transport/tcp_acceptor.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include <ace/INET_Addr.h>

namespace tcp_test
{
  inline ACE_INET_Addr loopback(unsigned short port) { return ACE_INET_Addr(port, "127.0.0.1"); }

  inline std::string content_length_frame(const std::string& body)
  {
    return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  typedef std::function<int(JSON_RPC_Channel_Strong_Ptr, const JSON_RPC_Request&)> Handler_Function;

  /// Runs a function for each message of its method whose peer is there.
  struct Function_Handler : JSON_RPC_Handler
  {
    explicit Function_Handler(Handler_Function f) : f_(std::move(f)) {}
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      return peer.null() ? -1 : f_(peer, as_request(object));
    }

    Handler_Function f_;
  };

  /// Handlers are entered before any transport thread runs: the request map
  /// has no lock.
  inline int add_handler(const char* method, Handler_Function f)
  {
    return JSON_RPC_Request_Map::instance()->insert(method, "", new Function_Handler(std::move(f)), nullptr);
  }

  /// Every test binary has "echo": it answers with the params.
  inline int echo(JSON_RPC_Channel_Strong_Ptr channel, const JSON_RPC_Request& request)
  {
    return answer(channel.get(), request, request.params);
  }

  /// The singletons the transport threads use: made before any of them
  /// starts, closed (close_singletons()) after they have all ended.
  inline void open_singletons()
  {
    JSON_RPC_Dispatcher::instance();
    JSON_RPC_Response_Map::instance();
    JSON_RPC_Notify_Manager::instance();
    JSON_RPC_Channel_Map::instance();
    JSON_RPC_Channel_Pool::instance();
  }

  /// The echo of params over the channel, or "no answer".
  inline json_spirit::Value echo_over(const JSON_RPC_Channel_Strong_Ptr& channel, json_spirit::Value params,
                                      const char* method = "echo")
  {
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
    JSON_RPC_Object_Ptr response;
    if (!session.request(JSON_RPC_Session::make_rpc_request(method, std::move(params)), response, 10) ||
        response->type != JSON_RPC_Object::TYPE_RESPONSE)
      return json_spirit::Value("no answer");
    return static_cast<const JSON_RPC_Response&>(*response).result;
  }

  /// Closes the channel's connection.
  inline void close(const JSON_RPC_Channel_Strong_Ptr& channel) { TCP_Channel::cast(channel)->close(); }
  inline bool closed(const JSON_RPC_Channel_Strong_Ptr& channel) { return TCP_Channel::cast(channel)->closed(); }
}

#endif
