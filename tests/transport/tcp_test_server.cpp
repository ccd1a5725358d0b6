// A JSON-RPC server over TCP or a Unix domain socket with Content-Length
// framing, for the peers written elsewhere.
//
//   tcp_test_server [SOCKET_PATH]
//
// Prints "PORT <n>" (or "UNIX <path>") once it listens, and runs until its standard input
// ends or it gets SIGTERM or SIGINT. Methods:
//   echo       answers with the params
//   subscribe  subscribes the caller to the subjects in params (an array)
//   ping.me    a notification: calls "client.hello" back on the caller's
//              connection from a thread of its own, with the params, and then
//              sends "ping.result" {"ok": bool, "response": the answer}
#include "tcp_test_support.h"

#include <ace/Log_Msg.h>

#include <cstdio>
#include <mutex>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tcp_test;

namespace
{
  std::mutex callers_mutex;
  std::vector<std::thread> callers;

  // A call back to the peer can't wait on the thread that reads its answer.
  void call_back(JSON_RPC_Channel_Strong_Ptr channel, json_spirit::Value params)
  {
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
    JSON_RPC_Object_Ptr response;
    bool ok = session.request(JSON_RPC_Session::make_rpc_request("client.hello", std::move(params)), response, 10);
    json_spirit::Object report;
    report["ok"] = ok && response->type == JSON_RPC_Object::TYPE_RESPONSE;
    if (ok && response->type == JSON_RPC_Object::TYPE_RESPONSE)
      report["response"] = static_cast<const JSON_RPC_Response&>(*response).result;
    else if (ok)
      report["response"] = static_cast<const JSON_RPC_Response_Error&>(*response).message;
    session.notify(make_message("ping.result", report));
  }

}

int main(int argc, char** argv)
{
  // The signals are taken by signalfd, so no thread may receive them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  int signals = signalfd(-1, &stop_signals, SFD_CLOEXEC);

  // Everything the transport threads use exists before they start.
  open_singletons();
  add_handler("echo", echo);
  add_handler("subscribe", [](JSON_RPC_Channel_Strong_Ptr c, const JSON_RPC_Request& r) {
    std::vector<std::string> subjects;
    for (const json_spirit::Value& s : r.params.get_array())
      subjects.push_back(s.get_str());
    JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(c), subjects);
    return answer(c.get(), r, true);
  });
  add_handler("ping.me", [](JSON_RPC_Channel_Strong_Ptr c, const JSON_RPC_Request& r) {
    std::lock_guard<std::mutex> guard(callers_mutex);
    callers.emplace_back(call_back, c, r.params);
    return 0;
  });

  // On a free loopback port, or on the Unix socket the argument names.
  TCP_Acceptor acceptor;
  if (argc > 1 ? acceptor.open_unix(argv[1], TCP_Options()) == -1
               : acceptor.open(ACE_INET_Addr(static_cast<unsigned short>(0), "127.0.0.1"), TCP_Options()) == -1)
    return 1;
  if (argc > 1)
    std::printf("UNIX %s\n", argv[1]);
  else
    std::printf("PORT %u\n", static_cast<unsigned>(acceptor.port()));
  std::fflush(stdout);

  struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}};
  for (;;)
  {
    if (poll(fds, 2, -1) < 0)
      continue;
    if (fds[1].revents)
      break;
    char buffer[256];
    if (fds[0].revents && read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
      break;
  }

  acceptor.close();
  {
    std::lock_guard<std::mutex> guard(callers_mutex);
    for (std::thread& caller : callers)
      caller.join();
  }
  close_singletons();
  return 0;
}
