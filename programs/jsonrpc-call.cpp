// jsonrpc-call: calls one method on a JSON-RPC host over TCP, or subscribes
// to subjects and prints what is published.
//
//   jsonrpc-call [OPTIONS] HOST:PORT METHOD [JSON-PARAMS]
//   jsonrpc-call [OPTIONS] HOST:PORT --subscribe SUBJECT...
//
//   --framing content-length|ndjson   as the host frames (content-length)
//   --timeout SECONDS                 for the connection and the answer
//                                     (default: JSON_RPC_REQUEST_TIMEOUT, or 60)
//   --notify                          send METHOD as a notification; no answer
//   --count N                         with --subscribe: stop after N notifications
//   --subscribe-method NAME           the host's method that subscribes (subscribe)
//
// A call prints the response document on standard output. A subscription
// calls the host's subscribe method with the subjects (its answer goes to
// standard error), then prints each notification that arrives, one
// document per line, until SIGINT or SIGTERM, the count, or the host's end.
//
// Exit status: 0 for a result (or a sent notification, or a subscription
// that ended by signal or count), 1 for an error response, 2 for bad usage,
// 3 when the call failed: no connection, no answer in time, or the host
// closed the connection.
#include "program_util.h"

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_session.h"
#include "json_spirit/json_spirit_reader.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include <ace/Log_Msg.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace
{
  const char usage[] =
    "usage: jsonrpc-call [OPTIONS] HOST:PORT METHOD [JSON-PARAMS]\n"
    "       jsonrpc-call [OPTIONS] HOST:PORT --subscribe SUBJECT...\n"
    "options: --framing content-length|ndjson  --timeout SECONDS  --notify\n"
    "         --count N  --subscribe-method NAME\n";

  enum Exit
  {
    EXIT_RESULT = 0,
    EXIT_ERROR_RESPONSE = 1,
    EXIT_USAGE = 2,
    EXIT_FAILED = 3
  };

  struct Options
  {
    std::vector<std::string> positional;
    std::vector<std::string> subjects;
    bool subscribe = false;
    bool notify = false;
    long long timeout = 0;
    long long count = 0;
    std::string subscribe_method = "subscribe";
    TCP_Options tcp;
  };

  bool parse_number(const char* text, long long& value)
  {
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(text, &end, 10);
    return !errno && *text && !*end && value >= 0;
  }

  bool parse(int argc, char** argv, Options& o)
  {
    for (int i = 1; i < argc; ++i)
    {
      std::string a = argv[i];
      bool has_value = i + 1 < argc;
      if (o.subscribe)
        o.subjects.push_back(a);
      else if (a == "--subscribe")
        o.subscribe = true;
      else if (a == "--notify")
        o.notify = true;
      else if (a == "--framing" && has_value)
      {
        if (!program::parse_framing(argv[++i], o.tcp.framing))
          return false;
      }
      else if (a == "--timeout" && has_value)
      {
        if (!parse_number(argv[++i], o.timeout))
          return false;
      }
      else if (a == "--count" && has_value)
      {
        if (!parse_number(argv[++i], o.count))
          return false;
      }
      else if (a == "--subscribe-method" && has_value)
        o.subscribe_method = argv[++i];
      else if (a.size() > 2 && a.compare(0, 2, "--") == 0)
        return false;
      else
        o.positional.push_back(a);
    }
    if (o.subscribe)
      return o.positional.size() == 1 && !o.subjects.empty() && !o.notify;
    return o.positional.size() == 2 || o.positional.size() == 3;
  }

  // Where the notifications that the host publishes to us end up: the
  // library hands every notification without a local handler to the
  // subscribers of "*", and this is one.
  class Printer : public JSON_RPC_Channel
  {
  public:
    Printer(long long limit, program::Waiter& waiter) : limit_(limit), printed_(0), waiter_(waiter) {}

    int send_object(JSON_RPC_Object_Ptr object) override
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::printf("%s\n", program::to_json(*object).c_str());
      std::fflush(stdout);
      if (++printed_ == limit_)
        waiter_.wake('c');
      return 0;
    }
    int send_generator(JSON_Generator&) override { return -1; }
    yajl_gen_t* send_begin() override { return nullptr; }
    int send_end() override { return -1; }
    int get_local_addr(ACE_Addr&) const override { return -1; }
    int get_remote_addr(ACE_Addr&) const override { return -1; }
    int io_state() override { return 0; }

  private:
    std::mutex mutex_;
    long long limit_;
    long long printed_;
    program::Waiter& waiter_;
  };

  // The answer to one request, printed to out; the exit status that goes
  // with it.
  int call(JSON_RPC_Session& session, JSON_RPC_Object_Ptr request, long long timeout, FILE* out)
  {
    JSON_RPC_Object_Ptr response;
    if (!session.request(request, response, timeout) || !response.get())
    {
      std::fprintf(stderr, "jsonrpc-call: no answer to '%s'\n",
                   static_cast<const JSON_RPC_Request&>(*request).method.c_str());
      return EXIT_FAILED;
    }
    std::fprintf(out, "%s\n", program::to_json(*response).c_str());
    std::fflush(out);
    return response->type == JSON_RPC_Object::TYPE_RESPONSE ? EXIT_RESULT : EXIT_ERROR_RESPONSE;
  }

  int run(const Options& o, const ACE_INET_Addr& addr, json_spirit::Value params, program::Waiter& waiter)
  {
    TCP_Options tcp = o.tcp;
    // A client is nobody's registered peer, and its own registration notices
    // would reach the printer.
    tcp.register_channel = false;
    tcp.on_close = [&waiter](TCP_Channel&) { waiter.wake('x'); };
    long long timeout = o.timeout;
    if (timeout == 0)
      JSON_RPC_Session().get_timeout_env(timeout);
    ACE_Time_Value connect_limit(static_cast<time_t>(timeout));
    JSON_RPC_Channel_Strong_Ptr channel;
    if (TCP_Connector::connect(channel, addr, tcp, &connect_limit) == -1)
    {
      std::fprintf(stderr, "jsonrpc-call: can't connect to %s: %s\n", o.positional[0].c_str(), std::strerror(errno));
      return EXIT_FAILED;
    }
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
    int status;
    if (o.subscribe)
    {
      JSON_RPC_Channel_Strong_Ptr printer(new Printer(o.count, waiter));
      JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(printer), {"*"});
      json_spirit::Array subjects(o.subjects.begin(), o.subjects.end());
      // Standard output is for the notifications.
      status = call(session, JSON_RPC_Session::make_rpc_request(o.subscribe_method, subjects), timeout, stderr);
      if (status == EXIT_RESULT)
        status = waiter.wait() == 'x' ? EXIT_FAILED : EXIT_RESULT;
      JSON_RPC_Notify_Manager::instance()->unsubscribe(JSON_RPC_Channel_Weak_Ptr(printer));
    }
    else
    {
      JSON_RPC_Object_Ptr request = JSON_RPC_Session::make_rpc_request(o.positional[1], std::move(params));
      if (o.notify)
      {
        request->type = JSON_RPC_Object::TYPE_NOTIFICATION;
        status = session.notify(request) ? EXIT_RESULT : EXIT_FAILED;
      }
      else
        status = call(session, request, timeout, stdout);
    }
    TCP_Channel::cast(channel)->close();
    return status;
  }
}

int main(int argc, char** argv)
{
  Options o;
  if (argc == 2 && std::string(argv[1]) == "--help")
  {
    std::fputs(usage, stdout);
    return EXIT_RESULT;
  }
  if (!parse(argc, argv, o))
  {
    std::fputs(usage, stderr);
    return EXIT_USAGE;
  }
  ACE_INET_Addr addr;
  if (!program::parse_address(o.positional[0].c_str(), addr))
  {
    std::fprintf(stderr, "jsonrpc-call: bad address '%s'\n", o.positional[0].c_str());
    return EXIT_USAGE;
  }
  json_spirit::Value params;
  if (o.positional.size() == 3 && !json_spirit::read_string(o.positional[2], params))
  {
    std::fprintf(stderr, "jsonrpc-call: JSON-PARAMS is not one JSON document: %s\n", o.positional[2].c_str());
    return EXIT_USAGE;
  }
  program::Waiter waiter;
  // The library's own lines (a refused read, say) matter; its debug lines don't.
  ACE_LOG_MSG->priority_mask(LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                             ACE_Log_Msg::PROCESS);
  // The singletons the channel's thread works with, and their end.
  JSON_RPC_Service library;
  library.init(0, nullptr);
  int status = run(o, addr, std::move(params), waiter);
  library.fini();
  return status;
}
