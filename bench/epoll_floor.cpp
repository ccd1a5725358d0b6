// The floor of the server benchmark: one thread, epoll and non-blocking
// sockets; each Content-Length framed message is answered with a fixed
// framed answer (the benchmark's params) carrying the request's id, with no
// JSON work. With --json it does the least JSON work that a server with
// json_spirit::Value as its document does: YAJL's pass over each body, and
// the answer's tree made from its values and written as text.
// Listens on 127.0.0.1 at a free port and prints "listening on
// 127.0.0.1:PORT"; runs until killed.
#include "floor_socket.h"

#include "yajl_pass.h"

#include "json_spirit/json_spirit_writer.h"
#include "tessel/yajl_gen.h"

#include <cstdlib>

#include <cstring>

#include <sys/epoll.h>

#include <memory>
#include <vector>

namespace
{
  // The echo's params as a tree made straight from its values: what any
  // reader of the text into json_spirit::Value makes, besides YAJL's pass.
  json_spirit::Value params_tree()
  {
    json_spirit::Object inner;
    inner.emplace_hint(inner.end(), "k", json_spirit::Value("v"));
    inner.emplace_hint(inner.end(), "n", json_spirit::Value(json_spirit::Array{1, 2, 3}));
    return json_spirit::Value(json_spirit::Array{"server bench", 12345, true, json_spirit::Value(),
                                                 json_spirit::Value(std::move(inner)),
                                                 "0123456789abcdefghijklmnopqrstuvwxyz0123456"});
  }

  // The least an echo costs with json_spirit::Value as its document: YAJL's
  // pass over the request, the answer's tree made, written and freed.
  bool least_answer(const char* body, size_t size, std::string& out)
  {
    if (!yajl_pass(body, size))
      return false;
    std::string id = echo_wire::id_text(body, size);
    json_spirit::Object answer;
    answer.emplace_hint(answer.end(), "id", json_spirit::Value(std::strtoll(id.c_str(), nullptr, 10)));
    answer.emplace_hint(answer.end(), "jsonrpc", json_spirit::Value("2.0"));
    answer.emplace_hint(answer.end(), "result", params_tree());
    std::string text;
    YAJL_String_Printer printer(&text);
    if (!JSON_Writer().write(json_spirit::Value(std::move(answer)), printer))
      return false;
    out += echo_wire::frame(text);
    return true;
  }

  struct Peer : floor_socket::Floor_Peer
  {
    bool watching_out = false;
  };

  class Floor
  {
  public:
    explicit Floor(floor_socket::Floor_Peer::Answer answer) : answer_(answer) {}

    bool open()
    {
      epoll_ = epoll_create1(EPOLL_CLOEXEC);
      return epoll_ >= 0 && (listener_ = floor_socket::listen_loopback()) >= 0 &&
             watch(listener_, EPOLL_CTL_ADD, EPOLLIN);
    }

    void run()
    {
      epoll_event events[256];
      for (;;)
      {
        // Out of descriptors, the listener rests for 100 ms rather than
        // wake the loop for ever.
        int n = epoll_wait(epoll_, events, 256, resting_ ? 100 : -1);
        if (n == 0 && resting_)
          resting_ = !watch(listener_, EPOLL_CTL_ADD, EPOLLIN);
        for (int i = 0; i < n; ++i)
        {
          int fd = events[i].data.fd;
          if (fd == listener_)
            accept_all();
          else if (events[i].events & (EPOLLERR | EPOLLHUP))
            drop(fd);
          else if (events[i].events & EPOLLOUT)
            write(fd);
          else
            read(fd);
        }
      }
    }

  private:
    bool watch(int fd, int op, unsigned events)
    {
      epoll_event e = {};
      e.events = events;
      e.data.fd = fd;
      return epoll_ctl(epoll_, op, fd, &e) == 0;
    }

    void accept_all()
    {
      bool exhausted = false;
      int fd;
      while ((fd = floor_socket::accept_one(listener_, exhausted)) >= 0)
      {
        if (static_cast<size_t>(fd) >= peers_.size())
          peers_.resize(static_cast<size_t>(fd) + 1);
        peers_[static_cast<size_t>(fd)].reset(new Peer);
        peers_[static_cast<size_t>(fd)]->answer = answer_;
        if (!watch(fd, EPOLL_CTL_ADD, EPOLLIN))
          drop(fd);
      }
      if (exhausted)
      {
        std::perror("epoll_floor: accept");
        resting_ = epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_, nullptr) == 0;
      }
    }

    void drop(int fd)
    {
      ::close(fd);
      peers_[static_cast<size_t>(fd)].reset();
    }

    void read(int fd)
    {
      if (!peers_[static_cast<size_t>(fd)]->read(fd))
        return drop(fd);
      write(fd);
    }

    void write(int fd)
    {
      Peer& p = *peers_[static_cast<size_t>(fd)];
      if (!p.write(fd))
        return drop(fd);
      bool writing = p.writing();
      if (writing != p.watching_out && watch(fd, EPOLL_CTL_MOD, writing ? EPOLLIN | EPOLLOUT : EPOLLIN))
        p.watching_out = writing;
    }

    int listener_ = -1, epoll_ = -1;
    bool resting_ = false;
    std::vector<std::unique_ptr<Peer>> peers_;
    floor_socket::Floor_Peer::Answer answer_;
  };
}

int main(int argc, char** argv)
{
  bool json = argc > 1 && std::strcmp(argv[1], "--json") == 0;
  Floor floor(json ? least_answer : nullptr);
  if (!floor.open())
  {
    std::perror("epoll_floor: listen");
    return 1;
  }
  floor.run();
}
