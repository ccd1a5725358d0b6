// jsonrpc-call: calls one method on a JSON-RPC host over TCP, or subscribes
// to subjects and prints what is published.
//
//   jsonrpc-call [OPTIONS] HOST:PORT METHOD [JSON-PARAMS]
//   jsonrpc-call [OPTIONS] HOST:PORT --subscribe SUBJECT...
//   jsonrpc-call [OPTIONS] http[s]://HOST[:PORT][/PATH] METHOD [JSON-PARAMS]
//   jsonrpc-call [OPTIONS] --rest GET|POST|PUT|DELETE http[s]://HOST[:PORT]/PATH [JSON-BODY]
//
// Over HTTP a call is one POST (JSON-RPC over HTTP), and --rest speaks to
// a JSON REST service; both print the response document on standard output
// and the HTTP status on standard error.
//
//   --framing content-length|ndjson   as the host frames (content-length)
//   --timeout SECONDS                 for the connection and the answer
//                                     (default: JSON_RPC_REQUEST_TIMEOUT, or 60)
//   --notify                          send METHOD as a notification; no answer
//   --count N                         with --subscribe: stop after N notifications
//   --subscribe-method NAME           the host's method that subscribes (subscribe)
//   --rest VERB                       a REST request instead of a JSON-RPC call
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

#include "json_rpc/json_restful_client.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_http_session.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_session.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
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
    "       jsonrpc-call [OPTIONS] http[s]://HOST[:PORT][/PATH] METHOD [JSON-PARAMS]\n"
    "       jsonrpc-call [OPTIONS] --rest GET|POST|PUT|DELETE http[s]://HOST[:PORT]/PATH [JSON-BODY]\n"
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
    std::string rest;
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
      else if (a == "--rest" && has_value)
        o.rest = argv[++i];
      else if (a.size() > 2 && a.compare(0, 2, "--") == 0)
        return false;
      else
        o.positional.push_back(a);
    }
    if (o.subscribe)
      return o.positional.size() == 1 && !o.subjects.empty() && !o.notify && o.rest.empty();
    if (!o.rest.empty())
      return (o.positional.size() == 1 || o.positional.size() == 2) && !o.notify;
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

  // http[s]://HOST[:PORT][/PATH], HOST possibly an IPv6 address in brackets.
  struct URL
  {
    bool ssl = false;
    std::string host;
    unsigned short port = 0;
    std::string path = "/";
  };

  bool parse_url(const std::string& text, URL& url)
  {
    size_t rest;
    if (text.compare(0, 7, "http://") == 0)
      rest = 7;
    else if (text.compare(0, 8, "https://") == 0)
    {
      url.ssl = true;
      rest = 8;
    }
    else
      return false;
    size_t slash = text.find('/', rest);
    std::string authority = text.substr(rest, slash == std::string::npos ? std::string::npos : slash - rest);
    if (slash != std::string::npos)
      url.path = text.substr(slash);
    size_t colon = authority.rfind(':');
    if (colon != std::string::npos && authority.find(']', colon) == std::string::npos)
    {
      long long port;
      if (!parse_number(authority.c_str() + colon + 1, port) || port < 1 || port > 65535)
        return false;
      url.port = static_cast<unsigned short>(port);
      authority.resize(colon);
    }
    else
      url.port = url.ssl ? 443 : 80;
    if (authority.size() > 2 && authority.front() == '[' && authority.back() == ']')
      authority = authority.substr(1, authority.size() - 2);
    url.host = authority;
    return !url.host.empty();
  }

  int print_http(bool exchanged, const HTTP_Response& response, const json_spirit::Value& doc, bool ok)
  {
    if (!exchanged)
    {
      std::fprintf(stderr, "jsonrpc-call: the exchange failed (see the log above)\n");
      return EXIT_FAILED;
    }
    std::fprintf(stderr, "HTTP status %d\n", response.status());
    std::printf("%s\n", JSON_Dump(doc, false).c_str());
    std::fflush(stdout);
    return ok ? EXIT_RESULT : EXIT_ERROR_RESPONSE;
  }

  // JSON-RPC over HTTP: one POST whose body is the request.
  int run_http_rpc(const Options& o, const URL& url, const json_spirit::Value& params, bool have_params,
                   long long timeout)
  {
    HTTP_Session_Ptr session = HTTP_Session_Factory::create(url.host.c_str(), url.port, url.ssl, nullptr, 3, nullptr,
                                                            false, static_cast<int>(timeout),
                                                            static_cast<int>(timeout), 0, 0);
    if (!session.get())
    {
      std::fprintf(stderr, "jsonrpc-call: no HTTP session for %s\n", o.positional[0].c_str());
      return EXIT_FAILED;
    }
    JSON_RPC_HTTP_Session rpc(session, url.path.c_str(), 0, 0);
    json_spirit::Value body(rpc.make_json_rpc_body(o.positional[1].c_str(), have_params ? &params : nullptr));
    if (o.notify)
      body.get_obj().erase("id");
    HTTP_Request request(HTTP_Request::METHOD_POST, url.path.c_str());
    HTTP_Response response;
    json_spirit::Value doc;
    bool exchanged = rpc.request(request, &body, response, &doc);
    bool ok = response.status() >= 200 && response.status() <= 299 && doc.type() == json_spirit::obj_type &&
              doc.get_obj().count("error") == 0;
    if (o.notify && exchanged)
      ok = response.status() >= 200 && response.status() <= 299;
    return print_http(exchanged, response, doc, ok);
  }

  int run_rest(const Options& o, const URL& url, const json_spirit::Value& body, bool have_body, long long timeout)
  {
    static const struct
    {
      const char* name;
      int method;
    } verbs[] = {{"GET", HTTP_Request::METHOD_GET},
                 {"POST", HTTP_Request::METHOD_POST},
                 {"PUT", HTTP_Request::METHOD_PUT},
                 {"DELETE", HTTP_Request::METHOD_DELETE}};
    int method = -1;
    for (const auto& v : verbs)
      if (o.rest == v.name)
        method = v.method;
    if (method == -1)
    {
      std::fprintf(stderr, "jsonrpc-call: --rest takes GET, POST, PUT or DELETE, not '%s'\n", o.rest.c_str());
      return EXIT_USAGE;
    }
    JSON_RESTful_Client client(true);
    if (!client.reset(url.host.c_str(), url.port, url.ssl, static_cast<int>(timeout), static_cast<int>(timeout), 0,
                      0, 0))
    {
      std::fprintf(stderr, "jsonrpc-call: no HTTP session for %s\n", o.positional[0].c_str());
      return EXIT_FAILED;
    }
    HTTP_Request request(method, url.path.c_str());
    HTTP_Response response;
    json_spirit::Value out;
    const json_spirit::Value* b = have_body ? &body : nullptr;
    bool ok;
    switch (method)
    {
    case HTTP_Request::METHOD_GET: ok = client.get(request, response, &out); break;
    case HTTP_Request::METHOD_POST: ok = client.post(request, b, response, &out); break;
    case HTTP_Request::METHOD_PUT: ok = client.put(request, b, response, &out); break;
    default: ok = client.del(request, response, &out); break;
    }
    // A refused status still brings the server's document: show it.
    return print_http(ok || response.status() != 0, response, out, ok);
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
  URL url;
  bool http = parse_url(o.positional[0], url);
  if (!o.rest.empty() && !http)
  {
    std::fprintf(stderr, "jsonrpc-call: --rest wants an http:// or https:// URL, not '%s'\n", o.positional[0].c_str());
    return EXIT_USAGE;
  }
  ACE_INET_Addr addr;
  if (!http && !program::parse_address(o.positional[0].c_str(), addr))
  {
    std::fprintf(stderr, "jsonrpc-call: bad address '%s'\n", o.positional[0].c_str());
    return EXIT_USAGE;
  }
  // The JSON argument: the params of a call, or the body of a REST request.
  size_t json_at = o.rest.empty() ? 2 : 1;
  bool have_json = o.positional.size() > json_at;
  json_spirit::Value params;
  if (have_json && !json_spirit::read_string(o.positional[json_at], params))
  {
    std::fprintf(stderr, "jsonrpc-call: %s is not one JSON document: %s\n", o.rest.empty() ? "JSON-PARAMS" : "JSON-BODY",
                 o.positional[json_at].c_str());
    return EXIT_USAGE;
  }
  if (http)
  {
    long long timeout = o.timeout;
    if (timeout == 0)
      JSON_RPC_Session().get_timeout_env(timeout);
    ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
    return o.rest.empty() ? run_http_rpc(o, url, params, have_json, timeout)
                          : run_rest(o, url, params, have_json, timeout);
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
