// A JSON-RPC client written in code: blocking calls with a time limit, a
// call that fails, and a notification it subscribed to, over TCP.
//
//   example-client HOST:PORT
//
// Prints one line per call: "METHOD PARAMS -> RESULT" or
// "METHOD PARAMS -> error CODE MESSAGE DATA", then the notification.
#include <json_rpc/json_rpc_function_handler.h>
#include <json_rpc/json_rpc_scope.h>
#include <json_rpc/json_rpc_session.h>
#include <json_spirit/json_spirit_reader.h>
#include <json_spirit/json_spirit_writer.h>
#include <transport/tcp_client.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>

using json_spirit::Value;

// One blocking call, waiting at most 5 seconds, and a line of what came.
static bool call(JSON_RPC_Session& session, const std::string& method, const std::string& params)
{
  Value value;
  json_spirit::read_string(params, value);
  JSON_RPC_Object_Ptr response;
  std::string line = method + " " + params + " -> ";
  if (!session.request(JSON_RPC_Session::make_rpc_request(method, std::move(value)), response, 5))
    line += "no answer";
  else if (response->type == JSON_RPC_Object::TYPE_RESPONSE)
    line += json_spirit::write_string(static_cast<JSON_RPC_Response&>(*response).result);
  else
  {
    const auto& error = static_cast<JSON_RPC_Response_Error&>(*response);
    line += "error " + std::to_string(error.code) + " " + error.message + " " + json_spirit::write_string(error.data);
  }
  std::printf("%s\n", line.c_str());
  return response.get() != nullptr;
}

int main(int argc, char** argv)
{
  if (argc != 2)
  {
    std::fprintf(stderr, "usage: example-client HOST:PORT\n");
    return 2;
  }
  JSON_RPC_Scope scope; // first made, last closed

  // The server's notification "news" arrives as a call of this method.
  std::promise<Value> news;
  add_json_rpc_method("news", [&news](Value params) {
    news.set_value(std::move(params));
    return Value();
  });

  TCP_Client client; // closed before the scope, being made after it
  if (client.connect(argv[1]) == -1)
    return 1;
  JSON_RPC_Session session(client.channel());
  bool answered = call(session, "add", "[1, 2, 3.5]") && call(session, "divide", "[7, 2]") &&
                  call(session, "divide", "[1, 0]") && call(session, "add", "\"x\"") &&
                  call(session, "subscribe", "null") && call(session, "publish", "{\"headline\": \"hello\"}");
  if (!answered)
    return 1;

  std::future<Value> arrived = news.get_future();
  if (arrived.wait_for(std::chrono::seconds(5)) != std::future_status::ready)
  {
    std::printf("no news\n");
    return 1;
  }
  std::printf("news %s\n", json_spirit::write_string(arrived.get()).c_str());
  return 0;
}
