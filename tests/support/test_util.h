#ifndef TESTS_SUPPORT_TEST_UTIL_H
#define TESTS_SUPPORT_TEST_UTIL_H

// Files, child processes and plain loopback sockets, shared by the tests
// and the benchmarks (which is why it is header-only). Every wait is
// bounded, so that a hang shows as a failure rather than as a stuck run.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

inline std::string read_file(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_file(const std::string& path, const std::string& text)
{
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string replace_all(std::string text, const std::string& from, const std::string& to)
{
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

/// Feeds text to a reader in pieces of `piece` bytes (0: whole) and, if
/// `finish`, then the end; false at the first refusal.
template <class Reader>
bool read_in_pieces(Reader& reader, const std::string& text, size_t piece = 0, bool finish = true)
{
  if (piece == 0)
    piece = std::max<size_t>(text.size(), 1);
  for (size_t at = 0; at < text.size(); at += piece)
    if (!reader.read(text.data() + at, std::min(piece, text.size() - at)))
      return false;
  return !finish || reader.read(nullptr, 0);
}

/// Polls until cond holds; false after the bound.
inline bool eventually(const std::function<bool()>& cond, int seconds = 20)
{
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!cond())
  {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// A fresh folder, removed with everything in it (links are not followed).
class Temp_Dir
{
public:
  explicit Temp_Dir(const std::string& parent = std::filesystem::temp_directory_path().string())
  {
    std::string pattern = parent + "/test.XXXXXX";
    if (mkdtemp(&pattern[0]))
      path_ = pattern;
    chmod(path_.c_str(), 0755);
  }
  ~Temp_Dir()
  {
    std::error_code ignored;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ignored);
  }
  Temp_Dir(const Temp_Dir&) = delete;
  Temp_Dir& operator=(const Temp_Dir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  /// Writes the file and gives its path.
  std::string write(const std::string& name, const std::string& text) const
  {
    write_file(file(name), text);
    return file(name);
  }

private:
  std::string path_;
};

/// A program in a child process, with pipes on its standard input and
/// output; its standard error goes to a file if one is named. Stopped with
/// SIGTERM when it goes.
class Child
{
public:
  explicit Child(std::vector<std::string> argv, const std::string& dir = "", const std::string& err_path = "")
  {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
      return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!dir.empty())
      posix_spawn_file_actions_addchdir_np(&actions, dir.c_str());
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (!err_path.empty())
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (std::string& a : argv)
      args.push_back(&a[0]);
    args.push_back(nullptr);
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
      pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~Child() { stop(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// The number after `marker` on the child's output, once its line is
  /// whole; 0 if it does not come within the time given.
  unsigned short port_after(const std::string& marker, int seconds = 60)
  {
    std::string seen;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (pid != -1 && std::chrono::steady_clock::now() < until)
    {
      struct pollfd p = {out_, POLLIN, 0};
      char buffer[256];
      ssize_t n = ::poll(&p, 1, 100) > 0 ? ::read(out_, buffer, sizeof buffer) : -2;
      if (n == 0 || n == -1)
        return 0;
      if (n > 0)
        seen.append(buffer, static_cast<size_t>(n));
      size_t at = seen.find(marker);
      if (at != std::string::npos && seen.find('\n', at) != std::string::npos)
        return static_cast<unsigned short>(std::atoi(seen.c_str() + at + marker.size()));
    }
    return 0;
  }

  bool running() const { return pid != -1 && waitpid(pid, nullptr, WNOHANG) == 0; }

  /// Sends the signal and waits: the wait status, or -1 if it had ended.
  int stop(int signal = SIGTERM)
  {
    int status = -1;
    if (pid != -1)
    {
      ::kill(pid, signal);
      waitpid(pid, &status, 0);
      pid = -1;
    }
    for (int* fd : {&in_, &out_})
      if (*fd != -1)
        ::close(*fd), *fd = -1;
    return status;
  }

  /// Peak resident memory in kB, from the kernel's accounting (VmHWM).
  long peak_rss_kb() const
  {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
      if (line.compare(0, 6, "VmHWM:") == 0)
        return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
  }

  pid_t pid = -1;

private:
  int in_ = -1, out_ = -1;
};

/// Sends all the bytes; false if the socket fails first.
inline bool send_all(int fd, const std::string& bytes)
{
  for (size_t done = 0; done < bytes.size();)
  {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

/// A socket connected to 127.0.0.1:port, or -1. A receive buffer other
/// than 0 is set before the connect, so that it bounds the window.
inline int loopback_connect(unsigned short port, int receive_buffer = 0)
{
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  if (receive_buffer)
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
  {
    ::close(fd);
    return -1;
  }
  return fd;
}

/// A plain connection to 127.0.0.1:port. A read gives up after `limit_ms`
/// without input.
class Socket_Client
{
public:
  explicit Socket_Client(unsigned short port, int limit_ms = 60000) : limit_ms_(limit_ms)
  {
    fd_ = loopback_connect(port);
    // Small writes go out as they are, to cut messages anywhere.
    int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  ~Socket_Client() { close(); }
  Socket_Client(const Socket_Client&) = delete;
  Socket_Client& operator=(const Socket_Client&) = delete;

  bool connected() const { return fd_ >= 0; }
  void close()
  {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = -1;
  }

  bool send(const std::string& bytes) { return send_all(fd_, bytes); }

  /// Reads into `in` until it holds `part`; false at the end or the bound.
  bool read_until(const std::string& part)
  {
    while (in.find(part) == std::string::npos)
      if (receive() <= 0)
        return false;
    return true;
  }

  /// Reads into `in` until the peer closes; false at the bound.
  bool read_to_eof()
  {
    while (receive() > 0)
    {
    }
    return !timed_out;
  }

  /// Hands the bytes of the next line to `piece` as they arrive, without
  /// the newline; false at the end, the bound or a false `piece`.
  template <class Piece>
  bool stream_line(Piece piece)
  {
    for (;;)
    {
      size_t nl = in.find('\n');
      if (nl != std::string::npos)
      {
        bool ok = piece(in.data(), nl);
        in.erase(0, nl + 1);
        return ok;
      }
      if (!in.empty() && !piece(in.data(), in.size()))
        return false;
      in.clear();
      if (receive() <= 0)
        return false;
    }
  }

  /// The next line, without its newline.
  bool read_line(std::string& line)
  {
    line.clear();
    return stream_line([&](const char* data, size_t n) { return line.append(data, n), true; });
  }

  /// Reads and drops `bytes` bytes.
  bool skip(size_t bytes)
  {
    while (in.size() < bytes)
    {
      bytes -= in.size();
      in.clear();
      if (receive() <= 0)
        return false;
    }
    in.erase(0, bytes);
    return true;
  }

  /// What was read and not yet taken.
  std::string in;
  /// Set when a read gave up at the bound rather than at the end.
  bool timed_out = false;

private:
  ssize_t receive()
  {
    char chunk[65536];
    struct pollfd p = {fd_, POLLIN, 0};
    int ready;
    while ((ready = ::poll(&p, 1, limit_ms_)) < 0 && errno == EINTR)
    {
    }
    if (ready <= 0)
      return timed_out = true, -1;
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n > 0)
      in.append(chunk, static_cast<size_t>(n));
    return n;
  }

  int fd_ = -1;
  int limit_ms_;
};

/// A socket listening on 127.0.0.1 at a port the kernel chose, which goes
/// to `port`; -1 on failure.
inline int loopback_listener(unsigned short& port, int backlog = 16)
{
  int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(s, backlog) != 0 ||
      ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &n) != 0)
  {
    ::close(s);
    return -1;
  }
  port = ntohs(a.sin_port);
  return s;
}

/// A port that was free a moment ago.
inline unsigned short free_port()
{
  unsigned short port = 0;
  ::close(loopback_listener(port));
  return port;
}

#endif
