// A JSON-RPC server written in code: methods that add, that fail, and that
// publish notifications to subscribers, served over TCP until SIGINT or
// SIGTERM.
//
//   example-server [HOST:PORT]        (default 127.0.0.1:0, any free port)
//
// Prints "listening on HOST:PORT" once it listens and "stopped" at the end.
#include <json_rpc/json_rpc_function_handler.h>
#include <json_rpc/json_rpc_notify_manager.h>
#include <json_rpc/json_rpc_scope.h>
#include <transport/tcp_server.h>

#include <csignal>
#include <cstdio>
#include <utility>

using json_spirit::Value;

// The params as an array of numbers (of size elements unless 0), or the
// error "Invalid params" for the caller.
static const json_spirit::Array& numbers(const Value& params, size_t size)
{
  bool ok = params.type() == json_spirit::array_type && (size == 0 || params.get_array().size() == size);
  for (const Value& v : params.get_array())
    ok = ok && (v.type() == json_spirit::int_type || v.type() == json_spirit::real_type);
  if (!ok)
    throw JSON_RPC_Error(-32602, "", size ? "expected an array of 2 numbers" : "expected an array of numbers");
  return params.get_array();
}

static double as_double(const Value& v) { return v.type() == json_spirit::real_type ? v.get_real() : v.get_int64(); }

int main(int argc, char** argv)
{
  // Blocked before any thread starts, so that only sigwait below sees them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  // The library's singletons, closed at the end of main after the server.
  JSON_RPC_Scope scope;

  // add [1, 2, 3.5] -> 6.5: the sum of the numbers.
  add_json_rpc_method("add", [](Value params) {
    long long integers = 0;
    double reals = 0;
    bool real = false;
    for (const Value& term : numbers(params, 0))
      if (term.type() == json_spirit::int_type)
        integers += term.get_int64();
      else
        reals += term.get_real(), real = true;
    return real ? Value(reals + integers) : Value(integers);
  });

  // divide [a, b] -> a / b, and an error of our own for b = 0.
  add_json_rpc_method("divide", [](Value params) {
    const json_spirit::Array& ab = numbers(params, 2);
    if (as_double(ab[1]) == 0)
      throw JSON_RPC_Error(1, "Division by zero", params);
    return Value(as_double(ab[0]) / as_double(ab[1]));
  });

  // subscribe: the caller gets the notifications "news" from now on.
  add_json_rpc_method("subscribe", [](JSON_RPC_Channel_Weak_Ptr caller, Value) {
    return Value(JSON_RPC_Notify_Manager::instance()->subscribe(caller, {"news"}) == 0);
  });

  // publish P: sends the notification "news" with params P to the subscribers.
  add_json_rpc_method("publish", [](Value params) {
    return Value(JSON_RPC_Notify_Manager::instance()->publish("news", std::move(params)) == 0);
  });

  TCP_Server server;
  if (server.start(argc > 1 ? argv[1] : "127.0.0.1:0") == -1)
    return 1;
  std::printf("listening on %s\n", server.address().c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&stop_signals, &signal);
  server.stop(); // every connection closed, its thread ended
  std::printf("stopped\n");
  return 0;
}
