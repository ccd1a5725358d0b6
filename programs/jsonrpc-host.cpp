// jsonrpc-host: serves, over TCP, the handler libraries that a service
// configuration file boots, or checks that configuration (--check). Its
// options and exit statuses are in the help text below.
#include "program_args.h"
#include "program_util.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "transport/tcp_acceptor.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Service_Config.h>
#include <ace/Thread_Manager.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
  const char help[] =
    "Usage: jsonrpc-host --listen HOST:PORT --svc-conf FILE [OPTIONS]\n"
    "       jsonrpc-host --check --svc-conf FILE\n"
    "\n"
    "Serves over TCP the handler libraries that a service configuration file\n"
    "boots. The file is read by ACE's service configurator; the JSON-RPC\n"
    "service is its dynamic line naming _make_JSON_RPC_Service in libjson_rpc,\n"
    "whose options -j, -f and -r name the files of method handlers, params\n"
    "filters and REST creators. After loading, one line on standard error says\n"
    "how many of each loaded and how many loads failed. Once it listens, the\n"
    "program prints \"listening on ADDRESS:PORT\" on standard output (port 0\n"
    "picks a free one). A load that fails is logged, and the program serves\n"
    "what did load. At start it raises its limit of open descriptors to the\n"
    "most the system lets it have.\n"
    "\n"
    "It serves until SIGINT or SIGTERM, then stops in this order: it accepts\n"
    "and reads no more; the requests in flight have up to the drain time to be\n"
    "answered; those left are answered with error -32001 \"Server shutting\n"
    "down\"; each peer gets what is queued for it and its connection is\n"
    "closed; the thread pool is deactivated, waiting for the calls it runs;\n"
    "calls on threads of their own get the drain time once more to end (past\n"
    "it, the host exits at once, unloading nothing); the service and the\n"
    "handler libraries are unloaded. A second signal during the drain closes\n"
    "every connection at once, unanswered.\n"
    "\n"
    "Options:\n"
    "  --listen ADDRESS         an address to listen on, as often as wanted:\n"
    "                           [tcp://]HOST:PORT ([IPV6]:PORT for IPv6), or\n"
    "                           unix:PATH for a Unix domain socket (a stale file\n"
    "                           is replaced, the file removed at the end); with\n"
    "                           ?framing=ndjson or ?framing=content-length after\n"
    "                           it for a framing other than --framing's\n"
    "  --unix-mode OCTAL        permissions of that socket's file (default 660)\n"
    "  --svc-conf FILE          the service configuration file\n"
    "  --framing content-length|ndjson\n"
    "                           how messages are framed (default content-length)\n"
    "  --max-message-size BYTES most bytes of a message held to be assembled\n"
    "                           (default 67108864, 64 MiB; 0: no limit); params\n"
    "                           that stream to a filter and forwarded responses\n"
    "                           do not count\n"
    "  --max-connections N      connections open at once; one more is closed\n"
    "                           as soon as it is accepted (default 0: no limit)\n"
    "  --max-in-flight N        requests of one connection read and not yet\n"
    "                           answered, past which it is not read until\n"
    "                           answers go out (default 1024; 0: no limit)\n"
    "  --io-threads N           threads that serve the connections (default 0:\n"
    "                           one for each processor)\n"
    "  --drain-time SECONDS     on SIGINT or SIGTERM, how long the requests in\n"
    "                           flight have to be answered (default 10; 0: those\n"
    "                           in flight are answered with -32001 at once)\n"
    "  --check                  load the configuration and every handler file,\n"
    "                           print what loaded and what failed, and exit\n"
    "                           without listening\n"
    "  -v, --verbose            also log each connection and each call\n"
    "  --debug                  the same as --verbose\n"
    "  -h, --help               print this text\n"
    "\n"
    "Exit status:\n"
    "  0  stopped by SIGINT or SIGTERM; with --check, everything loaded\n"
    "  1  could not start (an unreadable file, an address in use); with\n"
    "     --check, something failed to load or was skipped\n"
    "  2  bad usage: an unknown option, a bad value, a missing one\n";

  // One --listen: where, and the options of its connections.
  struct Listener
  {
    std::string unix_path; // or else addr
    ACE_INET_Addr addr;
    TCP_Options tcp;
  };

  // Reads "[tcp://]HOST:PORT" or "unix:PATH", with "?framing=ndjson" or
  // "?framing=content-length" after it for a framing of its own; "" when
  // good, else why not.
  std::string parse_listener(std::string text, const TCP_Options& defaults, Listener& l)
  {
    l.tcp = defaults;
    size_t query = text.find("?framing=");
    if (query != std::string::npos)
    {
      std::string framing = text.substr(query + 9);
      if (framing == "ndjson")
        l.tcp.framing = TCP_Options::FRAMING_NDJSON;
      else if (framing == "content-length")
        l.tcp.framing = TCP_Options::FRAMING_CONTENT_LENGTH;
      else
        return "the framing is ndjson or content-length";
      text.erase(query);
    }
    for (const char* later : {"http://", "https://", "tcp+tls://"})
      if (text.compare(0, std::strlen(later), later) == 0)
        return std::string(later) + " is not served yet";
    if (text.compare(0, 6, "tcp://") == 0)
      text.erase(0, 6);
    l.unix_path = unix_socket_path(text);
    if (l.unix_path.empty() && parse_tcp_address(text, l.addr) == -1)
      return "HOST:PORT, [IPV6]:PORT, tcp://HOST:PORT or unix:PATH";
    return "";
  }

  struct Options
  {
    std::vector<std::string> listen;
    std::string svc_conf;
    TCP_Options tcp;
    std::vector<Listener> listeners;
    int drain_seconds = 10;
    bool verbose = false;
    bool check = false;
    bool help = false;
  };

  // Beyond these a value is surely a slip.
  const long long max_io_threads = 1024;
  const long long max_drain_seconds = 24 * 3600;

  // The option's value, a whole number from 0 to high.
  template <typename T>
  bool count(program::Args& args, T& out, long long high = LLONG_MAX)
  {
    long long n;
    if (!args.number(n, 0, high))
      return false;
    out = static_cast<T>(n);
    return true;
  }

  bool parse(program::Args& args, Options& o)
  {
    std::string text;
    while (args.next())
    {
      if (!args.option())
        return args.refuse("unexpected argument '" + args.arg() + "'");
      if (args.is("--help", "-h") || args.is("--verbose", "-v") || args.is("--debug") || args.is("--check"))
      {
        if (!args.flag())
          return false;
        bool& flag = args.is("--help", "-h") ? o.help : args.is("--check") ? o.check : o.verbose;
        flag = true;
      }
      else if (args.is("--listen"))
      {
        std::string address;
        if (!args.value(address))
          return false;
        o.listen.push_back(address);
      }
      else if (args.is("--svc-conf"))
      {
        if (!args.value(o.svc_conf))
          return false;
      }
      else if (args.is("--framing"))
      {
        if (!args.value(text))
          return false;
        if (!program::parse_framing(text.c_str(), o.tcp.framing))
          return args.refuse("bad value '" + text + "' for --framing: content-length or ndjson");
      }
      else if (args.is("--max-connections"))
      {
        if (!count(args, o.tcp.max_connections))
          return false;
      }
      else if (args.is("--max-message-size"))
      {
        if (!count(args, o.tcp.max_message_size))
          return false;
      }
      else if (args.is("--max-in-flight"))
      {
        if (!count(args, o.tcp.max_requests_in_flight))
          return false;
      }
      else if (args.is("--unix-mode"))
      {
        std::string mode;
        if (!args.value(mode))
          return false;
        char* end = nullptr;
        unsigned long bits = std::strtoul(mode.c_str(), &end, 8);
        if (mode.empty() || *end || bits > 0777)
          return args.refuse("bad value '" + mode + "' for --unix-mode: octal permissions such as 660");
        o.tcp.unix_mode = static_cast<unsigned int>(bits);
      }
      else if (args.is("--io-threads"))
      {
        if (!count(args, o.tcp.io_threads, max_io_threads))
          return false;
      }
      else if (args.is("--drain-time"))
      {
        if (!count(args, o.drain_seconds, max_drain_seconds))
          return false;
      }
      else
        return args.unknown();
    }
    if (o.help)
      return true;
    if (o.svc_conf.empty())
      return args.refuse("--svc-conf FILE is needed");
    if (o.listen.empty() && !o.check)
      return args.refuse("--listen HOST:PORT is needed");
    // Each listener's address and framing, checked before anything loads.
    for (const std::string& text : o.listen)
    {
      Listener l;
      std::string why = parse_listener(text, o.tcp, l);
      if (!why.empty())
        return args.refuse("bad value '" + text + "' for --listen: " + why);
      o.listeners.push_back(l);
    }
    return true;
  }

  // Counts what goes wrong while the configuration loads: every line at
  // warning priority or above is a load that failed or was skipped.
  class Load_Tally : public ACE_Log_Msg_Callback
  {
  public:
    Load_Tally() : failures(0) {}
    void log(ACE_Log_Record& record) override
    {
      if (record.type() >= LM_WARNING && record.type() != LM_STARTUP && record.type() != LM_SHUTDOWN)
        ++failures;
    }
    std::atomic<int> failures;
  };

  // A graceful stop on the first signal, of every listener at once; a
  // second signal, or the end of the drains, wakes the waiter again.
  void drain(std::vector<std::unique_ptr<TCP_Acceptor>>& acceptors, program::Waiter& waiter, int signal, int seconds)
  {
    ACE_DEBUG((LM_NOTICE, "Stopping on signal %d: draining for up to %d s.\n", signal, seconds));
    const char drained = 'd';
    std::atomic<size_t> left(acceptors.size());
    std::vector<std::thread> drainers;
    for (std::unique_ptr<TCP_Acceptor>& acceptor : acceptors)
    {
      TCP_Acceptor* a = acceptor.get();
      auto run = [&, a]() {
        a->drain(ACE_Time_Value(seconds));
        if (--left == 0)
          waiter.wake(drained);
      };
      try
      {
        drainers.emplace_back(run);
      }
      catch (const std::system_error&)
      {
        // No thread to spare: this one drains here, and no signal cuts it short.
        run();
      }
    }
    if (left > 0)
    {
      int next = waiter.wait();
      if (next != drained)
      {
        ACE_DEBUG((LM_NOTICE, "Signal %d: closing every connection now.\n", next));
        for (std::unique_ptr<TCP_Acceptor>& acceptor : acceptors)
          acceptor->cut();
      }
    }
    for (std::thread& drainer : drainers)
      drainer.join();
  }

  const char* plural(size_t n, const char* one, const char* many) { return n == 1 ? one : many; }

  // The service configuration, with the tally of what failed; -1 if the
  // file can't be read at all.
  int load(const Options& o, const char* program)
  {
    if (access(o.svc_conf.c_str(), R_OK) != 0)
    {
      ACE_ERROR((LM_ERROR, "Can't read service configuration file '%C': %m\n", o.svc_conf.c_str()));
      return -1;
    }
    Load_Tally tally;
    ACE_LOG_MSG->msg_callback(&tally);
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_Service_Config::open(program, ACE_DEFAULT_LOGGER_KEY, true, true, false);
    int failed = ACE_Service_Config::process_file(o.svc_conf.c_str());
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_LOG_MSG->msg_callback(nullptr);
    if (failed > 0)
      ACE_ERROR((LM_ERROR, "%d directive(s) of '%C' failed.\n", failed, o.svc_conf.c_str()));
    return tally.failures + (failed > 0 ? failed : 0);
  }

  void summary(int failures)
  {
    size_t methods = JSON_RPC_Request_Map::instance()->objects.size();
    size_t filters = JSON_RPC_Params_Handler_Map::instance()->objects.size();
    size_t creators = JSON_RESTful_Handler_Creator_Map::instance()->objects.size();
    ACE_DEBUG((LM_NOTICE, "Loaded %B %C, %B %C and %B %C; %d %C.\n", static_cast<ACE_UINT64>(methods),
               plural(methods, "method", "methods"), static_cast<ACE_UINT64>(filters),
               plural(filters, "params filter", "params filters"), static_cast<ACE_UINT64>(creators),
               plural(creators, "REST creator", "REST creators"), failures, plural(failures, "failure", "failures")));
  }
}

int main(int argc, char** argv)
{
  Options options;
  program::Args args("jsonrpc-host", argc, argv);
  if (!parse(args, options))
    return 2;
  if (options.help)
  {
    std::fputs(help, stdout);
    return 0;
  }
  // Every connection takes a descriptor: as many as the system allows.
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max)
  {
    files.rlim_cur = files.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &files) != 0)
      std::perror("jsonrpc-host: raising the limit of open descriptors");
  }
  // Before any thread starts, so that only the waiter sees the signals.
  program::Waiter waiter;
  if (!waiter.ok())
  {
    std::perror("jsonrpc-host: signals");
    return 1;
  }
  // Each connection and call is logged at info and debug priority: only
  // when asked. A check shows what it loaded, which is logged at debug.
  unsigned long quiet = LM_SHUTDOWN | LM_NOTICE | LM_WARNING | LM_STARTUP | LM_ERROR | LM_CRITICAL | LM_ALERT |
                        LM_EMERGENCY;
  unsigned long loud = quiet | LM_TRACE | LM_DEBUG | LM_INFO;
  ACE_LOG_MSG->priority_mask(options.verbose || options.check ? loud : quiet, ACE_Log_Msg::PROCESS);

  int failures = load(options, argv[0]);
  if (failures < 0)
    return 1;

  // The transport's threads need the library's singletons. The service has
  // made them unless it failed; this makes what is missing, and takes down
  // at the end whatever no service has.
  JSON_RPC_Service leftovers;
  leftovers.init(0, nullptr);
  summary(failures);

  // One set of I/O threads serves every listener.
  std::shared_ptr<TCP_Reactor> reactor;
  std::vector<std::unique_ptr<TCP_Acceptor>> acceptors;
  int status = 0;
  if (options.check)
  {
    status = failures ? 1 : 0;
    std::printf("%s: %s\n", options.svc_conf.c_str(), failures ? "failed to load (see above)" : "loaded");
  }
  else if (!(reactor = TCP_Reactor::make(options.tcp.io_threads)))
    status = 1;
  for (size_t i = 0; i < options.listeners.size() && !options.check && status == 0; ++i)
  {
    Listener& l = options.listeners[i];
    l.tcp.reactor = reactor;
    acceptors.emplace_back(new TCP_Acceptor);
    TCP_Acceptor& acceptor = *acceptors.back();
    if ((l.unix_path.empty() ? acceptor.open(l.addr, l.tcp) : acceptor.open_unix(l.unix_path, l.tcp)) == -1)
    {
      ACE_ERROR((LM_ERROR, "Can't listen on %C: %m\n", options.listen[i].c_str()));
      status = 1;
      break;
    }
    // In the form --listen and jsonrpc-call take.
    std::string address = acceptor.address();
    std::printf("listening on %s\n", address.c_str());
    std::fflush(stdout);
    ACE_DEBUG((LM_NOTICE, "Listening on %C (%C framing).\n", address.c_str(),
               l.tcp.framing == TCP_Options::FRAMING_NDJSON ? "NDJSON" : "Content-Length"));
  }
  if (!options.check && status == 0)
  {
    ACE_LOG_MSG->priority_mask(options.verbose ? loud : quiet, ACE_Log_Msg::PROCESS);
    drain(acceptors, waiter, waiter.wait(), options.drain_seconds);
  }

  // Transports first: the tables give plain pointers to handlers. After a
  // drain this has nothing left to close.
  for (std::unique_ptr<TCP_Acceptor>& acceptor : acceptors)
    acceptor->close(true);
  if (reactor)
    reactor->stop();
  // Calls on threads of their own use their handlers, which the service's
  // end destroys: they get the drain time once more to finish. Past it,
  // the process ends without unloading anything under them.
  JSON_RPC_Thread_Pool_Handler::deactivate();
  ACE_Time_Value calls_end = ACE_OS::gettimeofday() + ACE_Time_Value(options.check ? 0 : options.drain_seconds);
  if (ACE_Thread_Manager::instance()->wait(&calls_end) == -1)
  {
    ACE_ERROR((LM_WARNING, "Calls still running after the drain time; exiting without unloading the handlers.\n"));
    std::fflush(stdout);
    _exit(status);
  }
  ACE_Service_Config::close();
  JSON_RPC_Thread_Pool_Handler::deactivate();
  leftovers.fini();
  // Made by the first REST record, and closed by no service.
  JSON_RESTful_Handler_Creator_Map::close_instance();
  if (status == 0 && !options.check)
    ACE_DEBUG((LM_NOTICE, "Stopped.\n"));
  return status;
}
