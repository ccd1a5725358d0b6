#ifndef TESTS_FORWARD_HOST_PROCESS_H
#define TESTS_FORWARD_HOST_PROCESS_H

// jsonrpc-host processes on loopback and a plain NDJSON client for them,
// for the tests of the proxy and for the memory benchmark.

#include "tessel/yajl_handler.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace forward_test
{
  inline std::string replace_all(std::string text, const std::string& from, const std::string& to)
  {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
      text.replace(at, from.size(), to);
    return text;
  }

  inline std::string read_file(const std::string& path)
  {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  inline void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

  /// Reads a response of big.result as it streams in, with no tree: its id
  /// and whether the result is the array 0, 1, 2, ... (each mod 1000000).
  class Big_Result_Check : public YAJL_Handler
  {
  public:
    Big_Result_Check() : handle_(yajl_alloc(get_yajl_default_callbacks(), nullptr, static_cast<YAJL_Handler*>(this))) {}
    ~Big_Result_Check() override { yajl_free(handle_); }
    Big_Result_Check(const Big_Result_Check&) = delete;
    Big_Result_Check& operator=(const Big_Result_Check&) = delete;

    bool feed(const char* data, size_t length)
    {
      bytes += length;
      return yajl_parse(handle_, reinterpret_cast<const unsigned char*>(data), length) == yajl_status_ok;
    }
    /// True for a whole response whose result was in order.
    bool finish() { return yajl_complete_parse(handle_) == yajl_status_ok && depth_ == 0 && result && in_order; }

    bool handle_map_key_i(char const* text, unsigned long long length) override
    {
      if (depth_ == 1)
        key_.assign(text, length);
      return true;
    }
    bool handle_number_i(char const* text, unsigned long long length) override
    {
      if (depth_ == 1 && key_ == "id")
        id.assign(text, length);
      else if (depth_ == 2 && key_ == "result")
      {
        std::string digits(text, length);
        if (std::strtoull(digits.c_str(), nullptr, 10) != elements % 1000000)
          in_order = false;
        ++elements;
      }
      return true;
    }
    bool handle_string_i(char const* text, unsigned long long length) override
    {
      if (depth_ == 1 && key_ == "id")
        id = "\"" + std::string(text, length) + "\"";
      return depth_ != 2 || key_ != "result" ? true : (in_order = false, true);
    }
    bool handle_start_map_i() override { return open(false); }
    bool handle_start_array_i() override { return open(true); }
    bool handle_end_map_i() override { return --depth_, true; }
    bool handle_end_array_i() override { return --depth_, true; }

    std::string id;
    unsigned long long elements = 0, bytes = 0;
    bool result = false, in_order = true;

  private:
    bool open(bool array)
    {
      if (depth_ == 1 && key_ == "result")
        result = array;
      else if (depth_ >= 2 && key_ == "result")
        in_order = false;
      ++depth_;
      return true;
    }

    yajl_handle handle_;
    int depth_ = 0;
    std::string key_;
  };

  /// A directory laid out like the repository root after the build
  /// (build/lib and examples), where the example configurations run as
  /// they are. Removed with what it holds.
  class Work_Dir
  {
  public:
    Work_Dir(const std::string& parent, const std::string& lib_dir, const std::string& examples_dir)
    {
      std::string pattern = parent + "/forward.XXXXXX";
      std::vector<char> name(pattern.begin(), pattern.end());
      name.push_back('\0');
      if (mkdtemp(name.data()))
        path = name.data();
      ok = !path.empty() && mkdir((path + "/build").c_str(), 0755) == 0 &&
           symlink(lib_dir.c_str(), (path + "/build/lib").c_str()) == 0 &&
           symlink(examples_dir.c_str(), (path + "/examples").c_str()) == 0;
    }
    ~Work_Dir()
    {
      if (!path.empty())
        nftw(
          path.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
          FTW_DEPTH | FTW_PHYS);
    }
    Work_Dir(const Work_Dir&) = delete;
    Work_Dir& operator=(const Work_Dir&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
    bool ok = false;
  };

  /// proxy.svc.conf in dir: examples/proxy.svc.conf with its method table
  /// (proxy.json) pointed at an upstream on port, with the given framing.
  inline void write_proxy_conf(const Work_Dir& dir, unsigned short port, const std::string& link_framing)
  {
    std::string table = replace_all(read_file(dir.file("examples/conf/proxy.json")), "127.0.0.1:7001",
                                    "127.0.0.1:" + std::to_string(port));
    write_file(dir.file("proxy.json"), replace_all(table, "--framing ndjson", "--framing " + link_framing));
    write_file(dir.file("proxy.svc.conf"),
               replace_all(read_file(dir.file("examples/proxy.svc.conf")), "examples/conf/proxy.json", "proxy.json"));
  }

  /// jsonrpc-host in a child process, run in a work directory, with its
  /// log in NAME.err there; args name a --listen address on 127.0.0.1.
  /// Stopped with SIGTERM when it goes.
  class Host
  {
  public:
    Host(const std::string& program, const Work_Dir& dir, const std::string& name, std::vector<std::string> args)
      : log_path(dir.file(name + ".err"))
    {
      int out[2];
      if (pipe2(out, O_CLOEXEC) != 0)
        return;
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_addchdir_np(&actions, dir.path.c_str());
      posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      args.insert(args.begin(), program);
      std::vector<char*> argv;
      for (std::string& a : args)
        argv.push_back(&a[0]);
      argv.push_back(nullptr);
      if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
      posix_spawn_file_actions_destroy(&actions);
      ::close(out[1]);
      // Kept open: the host may still write to its standard output.
      output_ = fdopen(out[0], "r");
      if (pid != -1 && output_ && std::fscanf(output_, "listening on 127.0.0.1:%hu", &port) != 1)
        port = 0;
    }

    ~Host() { stop(); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

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
      if (output_)
      {
        std::fclose(output_);
        output_ = nullptr;
      }
      return status;
    }

    /// Peak resident memory in kB, from the kernel's accounting of the
    /// process (VmHWM); -1 if it can't be read.
    long peak_rss_kb() const
    {
      std::ifstream in("/proc/" + std::to_string(pid) + "/status");
      std::string line;
      while (std::getline(in, line))
        if (line.compare(0, 6, "VmHWM:") == 0)
          return std::strtol(line.c_str() + 6, nullptr, 10);
      return -1;
    }

    std::string log() const { return read_file(log_path); }

    pid_t pid = -1;
    unsigned short port = 0;
    std::string log_path;

  private:
    FILE* output_ = nullptr;
  };

  /// One NDJSON connection over a plain socket. Reads give up after
  /// `limit_ms` without input, which turns a hang into a failure.
  class Line_Client
  {
  public:
    explicit Line_Client(unsigned short port, int limit_ms = 60000) : limit_ms_(limit_ms)
    {
      fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in addr = {};
      addr.sin_family = AF_INET;
      addr.sin_port = htons(port);
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
      {
        ::close(fd_);
        fd_ = -1;
      }
    }
    ~Line_Client() { close(); }
    Line_Client(const Line_Client&) = delete;
    Line_Client& operator=(const Line_Client&) = delete;

    bool connected() const { return fd_ >= 0; }
    void close()
    {
      if (fd_ >= 0)
        ::close(fd_);
      fd_ = -1;
    }

    bool send(const char* data, size_t length)
    {
      while (length > 0)
      {
        ssize_t n = ::send(fd_, data, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
          continue;
        if (n <= 0)
          return false;
        data += n;
        length -= static_cast<size_t>(n);
      }
      return true;
    }
    bool send(const std::string& text) { return send(text.data(), text.size()); }

    /// Hands the bytes of the next line to `piece` as they arrive, without
    /// the newline; false at the end, the hang bound or a false `piece`.
    template <class Piece>
    bool stream_line(Piece piece)
    {
      for (;;)
      {
        size_t nl = buffer_.find('\n');
        if (nl != std::string::npos)
        {
          bool ok = piece(buffer_.data(), nl);
          buffer_.erase(0, nl + 1);
          return ok;
        }
        if (!buffer_.empty() && !piece(buffer_.data(), buffer_.size()))
          return false;
        buffer_.clear();
        char chunk[65536];
        struct pollfd p = {fd_, POLLIN, 0};
        if (::poll(&p, 1, limit_ms_) <= 0)
          return !(timed_out = true);
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0)
          return false;
        buffer_.assign(chunk, static_cast<size_t>(n));
      }
    }

    /// The next line, without its newline; false at the end or the bound.
    bool read_line(std::string& line)
    {
      line.clear();
      return stream_line([&](const char* data, size_t n) {
        line.append(data, n);
        return true;
      });
    }

    /// Reads and drops up to `bytes` bytes; false at the end or the bound.
    bool skip(size_t bytes)
    {
      while (bytes > 0)
      {
        char chunk[65536];
        struct pollfd p = {fd_, POLLIN, 0};
        if (::poll(&p, 1, limit_ms_) <= 0)
          return !(timed_out = true);
        ssize_t n = ::recv(fd_, chunk, std::min(sizeof chunk, bytes), 0);
        if (n <= 0)
          return false;
        bytes -= static_cast<size_t>(n);
      }
      return true;
    }

    /// Set when a read gave up at the hang bound rather than at the end.
    bool timed_out = false;

  private:
    int fd_ = -1;
    int limit_ms_;
    std::string buffer_;
  };
}

#endif
