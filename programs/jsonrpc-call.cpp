// jsonrpc-call: calls one method on a JSON-RPC host over TCP or HTTP,
// subscribes to subjects and prints what is published, or sends one REST
// request. Its options and exit statuses are in the help text below.
#include "notification_generator.h"
#include "call_http.h"
#include "json_source.h"
#include "program_args.h"
#include "program_util.h"

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_session.h"
#include "json_spirit/json_spirit_writer.h"
#include "transport/tcp_channel.h"
#include "tessel/http_client.h"
#include "transport/tcp_connector.h"

#include <ace/Log_Msg.h>
#include <ace/SSL/SSL_Context.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

using namespace program;

namespace
{
  const char help[] =
    "Usage: jsonrpc-call [OPTIONS] HOST:PORT|unix:PATH METHOD [PARAMS]\n"
    "       jsonrpc-call [OPTIONS] HOST:PORT|unix:PATH --subscribe SUBJECT...\n"
    "       jsonrpc-call [OPTIONS] http[s]://HOST[:PORT][/PATH] METHOD [PARAMS]\n"
    "       jsonrpc-call [OPTIONS] --rest VERB http[s]://HOST[:PORT]/PATH [BODY]\n"
    "\n"
    "Calls METHOD on a JSON-RPC host over TCP (such as jsonrpc-host) or over\n"
    "HTTP (one POST per call), subscribes to subjects on a host and prints what\n"
    "is published, or sends one REST request. The answer's document goes to\n"
    "standard output; over HTTP its status goes to standard error.\n"
    "\n"
    "PARAMS and BODY are JSON text, @FILE for the contents of FILE, or - for\n"
    "standard input. A file or standard input is read and checked while the\n"
    "request is sent, and never held whole: over HTTP the body goes out in\n"
    "chunks, and over TCP with --framing ndjson it streams to the socket. With\n"
    "content-length framing the transport must know a message's length before\n"
    "it sends it and holds the whole request: there, params from a file or\n"
    "standard input are refused beyond 64 MiB (use ndjson on both ends). A\n"
    "document found bad while it is sent stops the request (a connection that\n"
    "has part of it is broken off): nothing reaches the method.\n"
    "\n"
    "Options:\n"
    "  --framing content-length|ndjson\n"
    "                           TCP framing, the host's (default content-length)\n"
    "  --timeout SECONDS        time for the answer once the request is sent\n"
    "                           (default: JSON_RPC_REQUEST_TIMEOUT, or 60); over\n"
    "                           HTTP, for each wait on the connection\n"
    "  --connect-timeout SECONDS\n"
    "                           time for connecting, TLS included (default 10)\n"
    "  --notify                 send METHOD as a notification: over TCP nothing\n"
    "                           is awaited; over HTTP any 2xx status is success\n"
    "  --subscribe SUBJECT...   call the host's subscribe method with the\n"
    "                           subjects (its answer goes to standard error),\n"
    "                           then print each notification, one per line,\n"
    "                           until SIGINT or SIGTERM, --count, or the host's\n"
    "                           end; every argument after it is a subject\n"
    "  --count N                with --subscribe: stop after N notifications\n"
    "  --subscribe-method NAME  the host's method that subscribes (subscribe)\n"
    "  --rest VERB              a REST request, GET, POST, PUT or DELETE, instead\n"
    "                           of a JSON-RPC call; GET and DELETE take no BODY\n"
    "  --cacert FILE            for https: trust the certificates in FILE (PEM)\n"
    "                           instead of the system's\n"
    "  --insecure               for https: accept any server certificate\n"
    "  --peak-rss               at the end, print the peak resident memory of\n"
    "                           the process on standard error\n"
    "  -h, --help               print this text\n"
    "\n"
    "Exit status:\n"
    "  0  a result; a notification sent (over HTTP: answered with 2xx); a\n"
    "     subscription ended by signal or --count; a REST answer of status 2xx\n"
    "  1  an error response; over HTTP, a status outside 2xx\n"
    "  2  bad usage or input: an unknown option or bad value, PARAMS or BODY\n"
    "     that is not one JSON document, a file that can't be read\n"
    "  3  the exchange failed: no connection, no answer in time, the connection\n"
    "     closed, SIGINT or SIGTERM before the answer, or an answer cut off or\n"
    "     not JSON (never printed as an answer)\n";

  // What the transport may hold of one request with content-length framing.
  const unsigned long long held_limit = 64ULL << 20;

  struct Options
  {
    std::vector<std::string> positional;
    std::vector<std::string> subjects;
    bool subscribe = false;
    bool notify = false;
    long long timeout = 0;
    long long connect_timeout = 10;
    long long count = 0;
    std::string subscribe_method = "subscribe";
    std::string rest;
    std::string cacert;
    bool insecure = false;
    bool peak_rss = false;
    bool help = false;
    TCP_Options tcp;
  };

  bool parse(Args& args, Options& o)
  {
    const long long seconds = 2147483;
    std::string text;
    while (args.next())
    {
      if (o.subscribe)
        o.subjects.push_back(args.arg());
      else if (!args.option())
        o.positional.push_back(args.arg());
      else if (args.is("--help", "-h") || args.is("--subscribe") || args.is("--notify") || args.is("--insecure") ||
               args.is("--peak-rss"))
      {
        if (!args.flag())
          return false;
        bool& flag = args.is("--help", "-h") ? o.help
                     : args.is("--subscribe") ? o.subscribe
                     : args.is("--notify")    ? o.notify
                     : args.is("--insecure")  ? o.insecure
                                              : o.peak_rss;
        flag = true;
      }
      else if (args.is("--framing"))
      {
        if (!args.value(text))
          return false;
        if (!parse_framing(text.c_str(), o.tcp.framing))
          return args.refuse("bad value '" + text + "' for --framing: content-length or ndjson");
      }
      else if (args.is("--timeout"))
      {
        if (!args.number(o.timeout, 1, seconds))
          return false;
      }
      else if (args.is("--connect-timeout"))
      {
        if (!args.number(o.connect_timeout, 1, seconds))
          return false;
      }
      else if (args.is("--count"))
      {
        if (!args.number(o.count, 1, 1LL << 62))
          return false;
      }
      else if (args.is("--subscribe-method"))
      {
        if (!args.value(o.subscribe_method))
          return false;
      }
      else if (args.is("--rest"))
      {
        if (!args.value(o.rest))
          return false;
        if (rest_method(o.rest) == -1)
          return args.refuse("bad value '" + o.rest + "' for --rest: GET, POST, PUT or DELETE");
      }
      else if (args.is("--cacert"))
      {
        if (!args.value(o.cacert))
          return false;
      }
      else
        return args.unknown();
    }
    if (o.help)
      return true;
    if (o.subscribe)
    {
      if (o.positional.size() != 1)
        return args.refuse("--subscribe wants HOST:PORT before it");
      if (o.subjects.empty())
        return args.refuse("--subscribe wants at least one SUBJECT");
      if (o.notify || !o.rest.empty())
        return args.refuse("--subscribe goes with neither --notify nor --rest");
      return true;
    }
    if (o.count)
      return args.refuse("--count goes with --subscribe only");
    if (!o.rest.empty())
    {
      if (o.positional.empty())
        return args.refuse("--rest wants a URL");
      if (o.positional.size() > 2)
        return args.refuse("unexpected argument '" + o.positional[2] + "'");
      if (o.notify)
        return args.refuse("--notify goes with JSON-RPC calls, not --rest");
      int method = rest_method(o.rest);
      if (o.positional.size() == 2 && (method == HTTP_Request::METHOD_GET || method == HTTP_Request::METHOD_DELETE))
        return args.refuse("--rest " + o.rest + " takes no BODY");
      return true;
    }
    if (o.positional.size() < 2)
      return args.refuse(o.positional.empty() ? "no address given" : "no METHOD given");
    if (o.positional.size() > 3)
      return args.refuse("unexpected argument '" + o.positional[3] + "'");
    return true;
  }

  // Where the notifications that the host publishes to us end up: the
  // library hands every notification without a local handler to the
  // subscribers of "*", and this is one.
  class Printer : public JSON_RPC_Channel
  {
  public:
    Printer(long long limit, Waiter& waiter) : limit_(limit), printed_(0), waiter_(waiter) {}

    int send_object(JSON_RPC_Object_Ptr object) override
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::printf("%s\n", to_json(*object).c_str());
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
    Waiter& waiter_;
  };

  // A send that stopped for the params' sake is bad input, not a failure.
  int input_failed(const JSON_Source* params, int otherwise)
  {
    if (!params || params->error().empty())
      return otherwise;
    std::fprintf(stderr, "jsonrpc-call: %s\n", params->error().c_str());
    return EXIT_USAGE;
  }

  // One call: the request generated onto the channel while its params are
  // read, then its answer, printed to out, until it comes, the connection
  // closes, a signal comes or timeout seconds (negative: no limit) pass.
  // The exit status that goes with it. The call runs on a thread of its
  // own, so that a signal can end it: it closes the connection, which fails
  // the call at once.
  int call(TCP_Channel& channel, const std::string& method, JSON_Source* params, long long timeout, Waiter& waiter,
           FILE* out)
  {
    JSON_RPC_Object_Ptr answer;
    int error = 0;
    std::thread caller([&] {
      JSON_RPC_Session session(channel.weak());
      if (!session.request(method.c_str(), params, answer, timeout))
        error = errno;
      waiter.wake('a');
    });
    // Other wake-ups (a closed connection, a count reached early) are given
    // back afterwards.
    std::string others;
    int why;
    while ((why = waiter.wait()) != 'a' && why != SIGINT && why != SIGTERM)
      others += static_cast<char>(why);
    int signal = why == 'a' ? 0 : why;
    if (signal)
    {
      channel.close();
      while ((why = waiter.wait()) != 'a')
        others += static_cast<char>(why);
      others += 's';
    }
    caller.join();
    int status = EXIT_FAILED;
    if (answer.get())
    {
      std::fprintf(out, "%s\n", to_json(*answer).c_str());
      std::fflush(out);
      status = answer->type == JSON_RPC_Object::TYPE_RESPONSE ? EXIT_RESULT : EXIT_ERROR_RESPONSE;
    }
    else if ((status = input_failed(params, EXIT_FAILED)) != EXIT_FAILED)
      ;
    else if (signal)
      std::fprintf(stderr, "jsonrpc-call: no answer to '%s': stopped by signal %d\n", method.c_str(), signal);
    else if (error == ETIME)
      std::fprintf(stderr, "jsonrpc-call: no answer to '%s' within %lld s\n", method.c_str(), timeout);
    else if (error == ECONNRESET || error == ECONNABORTED || error == EPIPE)
      std::fprintf(stderr, "jsonrpc-call: no answer to '%s': the connection closed\n", method.c_str());
    else
      std::fprintf(stderr, "jsonrpc-call: the request was not sent: %s\n", std::strerror(error));
    for (char c : others)
      waiter.wake(c);
    return status;
  }

  // Over TCP to addr, or over the Unix domain socket at unix_path if it is not empty.
  int run_tcp(const Options& o, const ACE_INET_Addr& addr, const std::string& unix_path, JSON_Source* params,
              long long timeout, Waiter& waiter)
  {
    TCP_Options tcp = o.tcp;
    // A client is nobody's registered peer, and its own registration notices
    // would reach the printer.
    tcp.register_channel = false;
    // The answer is what its user asked for: held whatever its size.
    tcp.max_message_size = 0;
    tcp.on_close = [&waiter](TCP_Channel&) { waiter.wake('x'); };
    ACE_Time_Value connect_limit(static_cast<time_t>(o.connect_timeout));
    JSON_RPC_Channel_Strong_Ptr strong;
    if ((unix_path.empty() ? TCP_Connector::connect(strong, addr, tcp, &connect_limit)
                           : TCP_Connector::connect_unix(strong, unix_path, tcp)) == -1)
    {
      std::fprintf(stderr, "jsonrpc-call: can't connect to %s: %s\n", o.positional[0].c_str(), std::strerror(errno));
      return EXIT_FAILED;
    }
    TCP_Channel& channel = *TCP_Channel::cast(strong);
    int status;
    if (o.subscribe)
    {
      JSON_RPC_Channel_Strong_Ptr printer(new Printer(o.count, waiter));
      JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(printer), {"*"});
      JSON_Source subjects;
      subjects.open(json_spirit::write_string(json_spirit::Value(json_spirit::Array(o.subjects.begin(),
                                                                                    o.subjects.end()))),
                    "SUBJECT");
      // Standard output is for the notifications.
      status = call(channel, o.subscribe_method, &subjects, timeout, waiter, stderr);
      if (status == EXIT_RESULT)
        status = waiter.wait() == 'x' ? EXIT_FAILED : EXIT_RESULT;
      JSON_RPC_Notify_Manager::instance()->unsubscribe(JSON_RPC_Channel_Weak_Ptr(printer));
    }
    else if (o.notify)
    {
      Notification_Generator notification(o.positional[1], params);
      status = channel.send_generator(notification) == 0 ? EXIT_RESULT : input_failed(params, EXIT_FAILED);
      if (status == EXIT_FAILED)
        std::fprintf(stderr, "jsonrpc-call: the notification was not sent: %s\n", std::strerror(errno));
    }
    else
      status = call(channel, o.positional[1], params, timeout, waiter, stdout);
    channel.close();
    return status;
  }

  int run(const Options& o)
  {
    HTTP_Endpoint endpoint;
    std::string path;
    bool http = http_parse_url(o.positional[0], endpoint, path);
    if (!o.rest.empty() && !http)
    {
      std::fprintf(stderr, "jsonrpc-call: --rest wants an http:// or https:// URL, not '%s'\n",
                   o.positional[0].c_str());
      return EXIT_USAGE;
    }
    if ((!o.cacert.empty() || o.insecure) && !(http && endpoint.ssl))
    {
      std::fprintf(stderr, "jsonrpc-call: %s is for https:// URLs\n", o.insecure ? "--insecure" : "--cacert");
      return EXIT_USAGE;
    }
    if (!o.cacert.empty() && o.insecure)
    {
      std::fprintf(stderr, "jsonrpc-call: --cacert and --insecure exclude each other\n");
      return EXIT_USAGE;
    }
    ACE_INET_Addr addr;
    std::string unix_path = unix_socket_path(o.positional[0]);
    if (!http && unix_path.empty() && parse_tcp_address(o.positional[0], addr) == -1)
    {
      std::fprintf(stderr, "jsonrpc-call: bad address '%s'\n", o.positional[0].c_str());
      return EXIT_USAGE;
    }
    // The JSON operand: the params of a call, or the body of a REST request.
    size_t json_at = o.rest.empty() ? 2 : 1;
    std::unique_ptr<JSON_Source> params;
    if (!o.subscribe && o.positional.size() > json_at)
    {
      params.reset(new JSON_Source);
      if (!params->open(o.positional[json_at], o.rest.empty() ? "PARAMS" : "BODY"))
      {
        std::fprintf(stderr, "jsonrpc-call: %s\n", params->error().c_str());
        return EXIT_USAGE;
      }
      if (!http && params->streamed() && o.tcp.framing == TCP_Options::FRAMING_CONTENT_LENGTH)
      {
        std::string why = "more than 64 MiB, which content-length framing would hold whole to know its length; "
                          "use --framing ndjson (on both ends)";
        if (params->size() > static_cast<long long>(held_limit))
        {
          std::fprintf(stderr, "jsonrpc-call: %s: %s\n", o.positional[json_at].c_str() + 1, why.c_str());
          return EXIT_USAGE;
        }
        params->limit(held_limit, why);
      }
    }
    long long timeout = o.timeout;
    if (timeout == 0)
      JSON_RPC_Session().get_timeout_env(timeout);
    if (http)
    {
      std::unique_ptr<ACE_SSL_Context> context;
      if (!o.cacert.empty())
      {
        context.reset(new ACE_SSL_Context);
        context->set_mode(ACE_SSL_Context::SSLv23_client);
        // Only this file: the system's store is not consulted.
        if (context->load_trusted_ca(o.cacert.c_str(), nullptr, false) == -1)
        {
          std::fprintf(stderr, "jsonrpc-call: --cacert: no certificate could be read from '%s'\n", o.cacert.c_str());
          return EXIT_USAGE;
        }
      }
      ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
      HTTP_Call call;
      call.endpoint = endpoint;
      call.path = path;
      call.rest = !o.rest.empty();
      call.method = call.rest ? o.rest : o.positional[1];
      call.notify = o.notify;
      call.body = params.get();
      call.timeout = timeout > 2147483 ? 2147483 : static_cast<int>(timeout);
      call.connect_timeout = static_cast<int>(o.connect_timeout);
      call.context = context.get();
      call.insecure = o.insecure;
      return run_http(call);
    }
    Waiter waiter;
    // The library's own lines (a refused read, say) matter; its debug lines don't.
    ACE_LOG_MSG->priority_mask(LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                               ACE_Log_Msg::PROCESS);
    // The singletons the channel's thread works with, and their end.
    JSON_RPC_Service library;
    library.init(0, nullptr);
    int status = run_tcp(o, addr, unix_path, params.get(), timeout, waiter);
    library.fini();
    return status;
  }
}

int main(int argc, char** argv)
{
  Options o;
  Args args("jsonrpc-call", argc, argv);
  if (!parse(args, o))
    return EXIT_USAGE;
  if (o.help)
  {
    std::fputs(help, stdout);
    return EXIT_RESULT;
  }
  int status = run(o);
  if (o.peak_rss)
  {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::fprintf(stderr, "jsonrpc-call: peak RSS %ld KiB\n", usage.ru_maxrss);
  }
  return status;
}
