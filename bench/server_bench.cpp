// How many peers a server holds and how fast it answers them: one load
// client (a thread per connection, sequential echo calls with
// Content-Length framing) against, in the same run,
//   host         jsonrpc-host with examples/svc.conf, whose echo is direct
//   epoll floor  epoll_floor: one thread, epoll, a fixed answer, no JSON
//   least        epoll_floor --json: the same with the least JSON work of
//                json_spirit::Value as the document (read, answer made, written)
//   sourcegraph  Go's sourcegraph/jsonrpc2 (go_echo), if go was found
//   ace, ace:N   ace_floor: the epoll floor on ACE's Dev_Poll reactor,
//                with 1 or N reactor threads (only when listed)
// Each figure comes from a fresh server process:
//   load   at each connection count, the connections opened as for idle,
//          then after a warm-up a timed window: calls/s, p50 and p99
//          latency, the server's CPU time per call (utime+stime from
//          /proc/PID/stat around the window), and at the window's end its
//          VmRSS, VmHWM and thread count; medians of --repeat runs
//   idle   N connections opened one after the other, each making one call
//          so that the server has surely taken it, then left open: the
//          server's VmRSS, VmHWM and threads
//   storm  N clients released at once, each connecting and making one
//          call under a bound: the time until all are answered, and how
//          many got no answer within the bound
// The load client checks the id of each answer and that it is a result;
// failures are counted, never timing.
//
// Usage: server_bench [--connections 1,8,64,256,1000] [--warmup S]
//        [--window S] [--idle N] [--storm N] [--storm-limit S]
//        [--call-limit S] [--repeat N] [--servers host,floor,least,sourcegraph]
//        (further kinds for --servers: ace, ace:N, host:N with N I/O threads)
// (defaults: those shown, 0.5 s warm-up, 2 s window, 10000 idle, a storm
// of 1000 within 60 s, 10 s per call, 3 repetitions taking turns)
#include "echo_wire.h"
#include "host_process.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace forward_test;
using Clock = std::chrono::steady_clock;

namespace
{
  struct Options
  {
    std::vector<int> connections = {1, 8, 64, 256, 1000};
    double warmup = 0.5, window = 2, storm_limit = 60, call_limit = 10;
    int idle = 10000, storm = 1000, repeat = 3;
    std::vector<std::string> servers = {"host", "floor", "least", "sourcegraph"};

    std::string command_line(const char* program) const
    {
      std::ostringstream s;
      s << program << " --connections ";
      for (size_t i = 0; i < connections.size(); ++i)
        s << (i ? "," : "") << connections[i];
      s << " --warmup " << warmup << " --window " << window << " --idle " << idle << " --storm " << storm
        << " --storm-limit " << storm_limit << " --call-limit " << call_limit << " --repeat " << repeat
        << " --servers ";
      for (size_t i = 0; i < servers.size(); ++i)
        s << (i ? "," : "") << servers[i];
      return s.str();
    }
  };

  template <class T>
  bool parse_list(const std::string& text, std::vector<T>& out)
  {
    out.clear();
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ','))
    {
      std::istringstream one(item);
      T value;
      if (!(one >> value))
        return false;
      out.push_back(value);
    }
    return !out.empty();
  }

  /// The reactor threads of an "ace" or "ace:N" kind (N from 1 to 64);
  /// 0 for any other kind.
  // The N of "NAME:N" (1 for a bare NAME), or 0 for another kind.
  int threads_of(const std::string& kind, const std::string& name)
  {
    if (kind == name)
      return 1;
    if (kind.compare(0, name.size() + 1, name + ":") != 0 || kind.size() == name.size() + 1)
      return 0;
    char* end = nullptr;
    long n = std::strtol(kind.c_str() + name.size() + 1, &end, 10);
    return *end == 0 && n >= 1 && n <= 64 ? static_cast<int>(n) : 0;
  }

  int ace_threads(const std::string& kind) { return threads_of(kind, "ace"); }
  // "host:N": the host with N I/O threads (plain "host": as many as CPUs).
  int host_threads(const std::string& kind) { return kind == "host" ? 0 : threads_of(kind, "host"); }

  bool parse(int argc, char** argv, Options& o)
  {
    for (int i = 1; i + 1 < argc; i += 2)
    {
      std::string a = argv[i];
      std::istringstream value(argv[i + 1]);
      bool ok = a == "--connections" ? parse_list(argv[i + 1], o.connections)
                : a == "--servers"   ? parse_list(argv[i + 1], o.servers)
                : a == "--warmup"    ? static_cast<bool>(value >> o.warmup)
                : a == "--window"    ? static_cast<bool>(value >> o.window)
                : a == "--idle"      ? static_cast<bool>(value >> o.idle)
                : a == "--storm"     ? static_cast<bool>(value >> o.storm)
                : a == "--storm-limit" ? static_cast<bool>(value >> o.storm_limit)
                : a == "--call-limit"  ? static_cast<bool>(value >> o.call_limit)
                : a == "--repeat"      ? static_cast<bool>(value >> o.repeat)
                                       : false;
      if (!ok)
        return false;
    }
    for (const std::string& s : o.servers)
      if (s != "host" && s != "floor" && s != "least" && s != "sourcegraph" && !ace_threads(s) && !host_threads(s))
        return false;
    for (int n : o.connections)
      if (n <= 0)
        return false;
    return argc % 2 == 1 && o.window > 0 && o.warmup >= 0 && o.repeat > 0 && o.idle >= 0 && o.storm >= 0 &&
           o.storm_limit > 0 && o.call_limit > 0;
  }

  Clock::time_point after(double seconds)
  {
    return Clock::now() + std::chrono::microseconds(static_cast<long long>(seconds * 1e6));
  }

  double seconds_between(Clock::time_point from, Clock::time_point to)
  {
    return std::chrono::duration<double>(to - from).count();
  }

  // ------------------------------------------------------------- /proc

  /// The number after `key` in /proc/PID/status (kB for the Vm fields),
  /// or -1.
  long status_field(pid_t pid, const std::string& key)
  {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
      if (line.compare(0, key.size(), key) == 0)
        return std::strtol(line.c_str() + key.size(), nullptr, 10);
    return -1;
  }

  /// utime+stime of every thread of the process, in seconds; -1 if gone.
  double cpu_seconds(pid_t pid)
  {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    // The command name may hold spaces; the fields count from after it.
    size_t at = stat.rfind(')');
    if (at == std::string::npos)
      return -1;
    std::istringstream fields(stat.substr(at + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i)
      if (i == 14)
        utime = std::stoull(field);
      else if (i == 15)
        stime = std::stoull(field);
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

  /// The soft "Max open files" of /proc/PID/limits, or -1.
  long open_files_limit(pid_t pid)
  {
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/limits"));
    std::string line;
    while (std::getline(in, line))
      if (line.compare(0, 14, "Max open files") == 0)
        return std::strtol(line.c_str() + 14, nullptr, 10);
    return -1;
  }

  struct Memory_Figures
  {
    explicit Memory_Figures(pid_t pid)
      : rss_kb(status_field(pid, "VmRSS:")), hwm_kb(status_field(pid, "VmHWM:")),
        threads(status_field(pid, "Threads:"))
    {
    }
    long rss_kb, hwm_kb, threads;
  };

  // ------------------------------------------------------------- servers

  std::string label(const std::string& kind)
  {
    if (int threads = ace_threads(kind))
      return threads == 1 ? "ACE Dev_Poll floor" : "ACE Dev_Poll floor, " + std::to_string(threads) + " threads";
    if (int threads = host_threads(kind))
      return "host echo, " + std::to_string(threads) + " I/O thread" + (threads == 1 ? "" : "s");
    return kind == "host"    ? "host echo"
           : kind == "floor" ? "epoll floor"
           : kind == "least" ? "epoll floor, least JSON work"
                             : "sourcegraph/jsonrpc2";
  }

  /// A fresh server of a kind, in a work directory laid out like the
  /// repository root; `why` says what kept it from starting.
  struct Server
  {
    explicit Server(const std::string& kind) : dir(WORK_PARENT, EXAMPLES_LIB_DIR, EXAMPLES_DIR)
    {
      std::vector<std::string> args;
      std::string program;
      if (kind == "host" || host_threads(kind))
      {
        program = JSONRPC_HOST;
        args = {"--listen", "127.0.0.1:0", "--framing", "content-length", "--svc-conf", "examples/svc.conf"};
        if (int threads = host_threads(kind))
          args.insert(args.end(), {"--io-threads", std::to_string(threads)});
      }
      else if (kind == "floor" || kind == "least")
      {
        program = EPOLL_FLOOR;
        if (kind == "least")
          args = {"--json"};
      }
      else if (int threads = ace_threads(kind))
      {
        program = ACE_FLOOR;
        args = {std::to_string(threads)};
      }
      else
      {
        program = GO_ECHO;
        args = {"-listen", "127.0.0.1:0"};
      }
      if (program.empty())
      {
        why = "skipped: go or sourcegraph/jsonrpc2 was missing when this was built "
              "(golang-go, golang-github-sourcegraph-jsonrpc2-dev)";
        return;
      }
      if (!dir.ok)
      {
        why = "failed: no work directory under " WORK_PARENT;
        return;
      }
      process.reset(new Host(program, dir, kind, args));
      if (!process->port)
      {
        std::string log = process->log();
        why = "failed: did not start: " + log.substr(0, log.find('\n'));
        process.reset();
      }
    }

    /// Why the server is not running (any more), or "".
    std::string gone()
    {
      if (!why.empty())
        return why;
      if (!process->running())
      {
        std::string log = process->log();
        why = "failed: the server ended: " + log.substr(0, log.find('\n'));
      }
      return why;
    }

    pid_t pid() const { return process->pid; }
    unsigned short port() const { return process->port; }

    Work_Dir dir;
    std::unique_ptr<Host> process;
    std::string why;
  };

  // ------------------------------------------------------------- client

  /// A loopback connection making echo calls; every wait is bounded by a
  /// deadline. After a failure it is closed and `error` says why.
  class Call_Connection
  {
  public:
    ~Call_Connection() { close(); }
    Call_Connection() = default;
    Call_Connection(const Call_Connection&) = delete;
    Call_Connection& operator=(const Call_Connection&) = delete;

    bool connect(unsigned short port, Clock::time_point deadline)
    {
      fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      if (fd_ < 0)
        return fail("socket: " + std::string(std::strerror(errno)));
      int one = 1;
      setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      sockaddr_in a = {};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      a.sin_port = htons(port);
      if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
        return true;
      if (errno != EINPROGRESS)
        return fail("connect: " + std::string(std::strerror(errno)));
      if (!wait(POLLOUT, deadline))
        return fail("connect: no answer in time");
      int error = 0;
      socklen_t size = sizeof error;
      getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size);
      return error == 0 || fail("connect: " + std::string(std::strerror(error)));
    }

    /// One call and its answer, checked.
    bool call(unsigned long long id, Clock::time_point deadline)
    {
      if (fd_ < 0)
        return false;
      std::string request = echo_wire::request(id);
      for (size_t sent = 0; sent < request.size();)
      {
        ssize_t n = ::send(fd_, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n > 0)
          sent += static_cast<size_t>(n);
        else if (errno == EAGAIN)
        {
          if (!wait(POLLOUT, deadline))
            return fail("send: no room in time");
        }
        else if (errno != EINTR)
          return fail("send: " + std::string(std::strerror(errno)));
      }
      size_t body_at = 0, body_size = 0;
      int whole;
      while ((whole = echo_wire::next_message(in_.data(), in_.size(), body_at, body_size)) == 0)
      {
        char buffer[4096];
        ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n > 0)
          in_.append(buffer, static_cast<size_t>(n));
        else if (n == 0)
          return fail("the server closed the connection");
        else if (errno == EAGAIN ? !wait(POLLIN, deadline) : errno != EINTR)
          return fail(errno == EAGAIN ? "no answer in time" : "recv: " + std::string(std::strerror(errno)));
      }
      if (whole < 0)
        return fail("an answer without a Content-Length of at most 1 MiB");
      bool ok = echo_wire::answers(in_.data() + body_at, body_size, id);
      std::string body = in_.substr(body_at, body_size);
      in_.erase(0, body_at + body_size);
      return ok || fail("not the answer to id " + std::to_string(id) + ": " + body.substr(0, 120));
    }

    void close()
    {
      if (fd_ >= 0)
        ::close(fd_);
      fd_ = -1;
    }

    std::string error;

  private:
    bool wait(short events, Clock::time_point deadline)
    {
      for (;;)
      {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
          return false;
        struct pollfd p = {fd_, events, 0};
        int n = ::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000)));
        if (n > 0)
          return true;
        if (n < 0 && errno != EINTR)
          return false;
      }
    }

    bool fail(const std::string& why)
    {
      error = why;
      close();
      return false;
    }

    int fd_ = -1;
    std::string in_;
  };

  /// A step that threads wait for, set by the main thread.
  class Phase
  {
  public:
    void set(int step)
    {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        step_ = step;
      }
      changed_.notify_all();
    }
    int get() const { return step_.load(std::memory_order_relaxed); }
    void wait_for(int step)
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [&] { return step_ >= step; });
    }

  private:
    std::atomic<int> step_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
  };

  /// Failures, counted by reason.
  class Failures
  {
  public:
    void add(const std::string& why)
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++count_;
      ++reasons_[why];
    }
    long count() const { return count_; }
    /// "0", or the count and how many for each reason.
    std::string text() const
    {
      std::string t = std::to_string(count_);
      for (auto r = reasons_.begin(); r != reasons_.end(); ++r)
        t += (r == reasons_.begin() ? " (" : ", ") + std::to_string(r->second) + " " + r->first;
      return count_ ? t + ")" : t;
    }

  private:
    std::mutex mutex_;
    long count_ = 0;
    std::map<std::string, long> reasons_;
  };

  double percentile(std::vector<float>& values, double p)
  {
    if (values.empty())
      return 0;
    size_t k = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(k), values.end());
    return values[k];
  }

  /// count connections opened one after the other, each making a call
  /// answered before the next opens: the server takes them at its own
  /// pace. A server that stops taking them (20 failures in a row) ends it
  /// early.
  std::vector<std::unique_ptr<Call_Connection>> open_answered(unsigned short port, int count, const Options& o,
                                                              Failures& failures)
  {
    std::vector<std::unique_ptr<Call_Connection>> open;
    for (int i = 0, failed_in_a_row = 0; i < count && failed_in_a_row < 20; ++i)
    {
      std::unique_ptr<Call_Connection> c(new Call_Connection);
      if (c->connect(port, after(o.call_limit)) && c->call(1, after(o.call_limit)))
      {
        open.push_back(std::move(c));
        failed_in_a_row = 0;
      }
      else
      {
        ++failed_in_a_row;
        failures.add(c->error);
      }
    }
    return open;
  }

  // ------------------------------------------------------------- runs

  struct Load_Row
  {
    std::string why; // "" when measured
    double calls_per_s = 0, p50_us = 0, p99_us = 0, cpu_us_per_call = 0;
    long connected = 0, rss_kb = -1, hwm_kb = -1, threads = -1;
  };

  /// Each figure's median over the repetitions of a point; the first
  /// failed repetition if there is one.
  Load_Row median_row(const std::vector<Load_Row>& runs)
  {
    for (const Load_Row& r : runs)
      if (!r.why.empty())
        return r;
    auto median = [&](auto field) {
      std::vector<double> values;
      for (const Load_Row& r : runs)
        values.push_back(static_cast<double>(r.*field));
      std::sort(values.begin(), values.end());
      return values[values.size() / 2];
    };
    Load_Row row;
    row.calls_per_s = median(&Load_Row::calls_per_s);
    row.p50_us = median(&Load_Row::p50_us);
    row.p99_us = median(&Load_Row::p99_us);
    row.cpu_us_per_call = median(&Load_Row::cpu_us_per_call);
    row.connected = static_cast<long>(median(&Load_Row::connected));
    row.rss_kb = static_cast<long>(median(&Load_Row::rss_kb));
    row.hwm_kb = static_cast<long>(median(&Load_Row::hwm_kb));
    row.threads = static_cast<long>(median(&Load_Row::threads));
    return row;
  }

  enum Load_Step { CONNECTED, WARMING, TIMED, STOPPED, CLOSING };

  /// One load point on a fresh server; its failures go to `failures`.
  Load_Row run_load(const std::string& kind, int connections, const Options& o, Failures& failures)
  {
    Load_Row row;
    Server server(kind);
    if (!(row.why = server.gone()).empty())
      return row;
    // This measures calls; the storm measures bursts of connections.
    std::vector<std::unique_ptr<Call_Connection>> open = open_answered(server.port(), connections, o, failures);
    row.connected = static_cast<long>(open.size());
    Phase phase;
    std::vector<std::vector<float>> latencies(open.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < open.size(); ++i)
      threads.emplace_back([&, i] {
        Call_Connection& c = *open[i];
        phase.wait_for(WARMING);
        std::vector<float>& mine = latencies[i];
        bool ok = true;
        for (unsigned long long id = 2; ok && phase.get() < STOPPED; ++id)
        {
          auto start = Clock::now();
          ok = c.call(id, start + std::chrono::milliseconds(static_cast<long long>(o.call_limit * 1000)));
          if (ok && phase.get() == TIMED)
            mine.push_back(static_cast<float>(seconds_between(start, Clock::now()) * 1e6));
        }
        if (!ok)
          failures.add(c.error);
        phase.wait_for(CLOSING);
      });
    phase.set(WARMING);
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long long>(o.warmup * 1e6)));
    double cpu_before = cpu_seconds(server.pid());
    auto start = Clock::now();
    phase.set(TIMED);
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long long>(o.window * 1e6)));
    phase.set(STOPPED);
    double cpu_after = cpu_seconds(server.pid());
    double elapsed = seconds_between(start, Clock::now());
    Memory_Figures memory(server.pid());
    phase.set(CLOSING);
    for (std::thread& t : threads)
      t.join();

    std::vector<float> all;
    for (const std::vector<float>& l : latencies)
      all.insert(all.end(), l.begin(), l.end());
    if (!(row.why = server.gone()).empty())
      return row;
    if (all.empty())
    {
      row.why = "failed: no call answered";
      return row;
    }
    row.calls_per_s = static_cast<double>(all.size()) / elapsed;
    row.cpu_us_per_call = (cpu_after - cpu_before) * 1e6 / static_cast<double>(all.size());
    row.p50_us = percentile(all, 0.50);
    row.p99_us = percentile(all, 0.99);
    row.rss_kb = memory.rss_kb;
    row.hwm_kb = memory.hwm_kb;
    row.threads = memory.threads;
    return row;
  }

  struct Idle_Row
  {
    std::string why;
    long answered = 0;
    double seconds = 0;
    long rss_kb = -1, hwm_kb = -1, threads = -1;
  };

  Idle_Row run_idle(const std::string& kind, int count, const Options& o)
  {
    Idle_Row row;
    rlimit mine = {};
    getrlimit(RLIMIT_NOFILE, &mine);
    if (mine.rlim_cur < static_cast<rlim_t>(count) + 64)
    {
      row.why = "skipped: the load client's fd limit is " + std::to_string(mine.rlim_cur);
      return row;
    }
    Server server(kind);
    if (!(row.why = server.gone()).empty())
      return row;
    long limit = open_files_limit(server.pid());
    if (limit >= 0 && limit < count + 16)
    {
      row.why = "skipped: the server's fd limit is " + std::to_string(limit);
      return row;
    }
    auto start = Clock::now();
    Failures failures;
    std::vector<std::unique_ptr<Call_Connection>> open = open_answered(server.port(), count, o, failures);
    row.seconds = seconds_between(start, Clock::now());
    row.answered = static_cast<long>(open.size());
    // What the server keeps once the peers are quiet.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Memory_Figures memory(server.pid());
    row.rss_kb = memory.rss_kb;
    row.hwm_kb = memory.hwm_kb;
    row.threads = memory.threads;
    if (!(row.why = server.gone()).empty())
      return row;
    if (row.answered < count)
      row.why = "failed: " + std::to_string(row.answered) + " of " + std::to_string(count) +
                " connected and answered; failures " + failures.text() + "; server fd limit " + std::to_string(limit);
    return row;
  }

  struct Storm_Row
  {
    std::string why;
    long answered = 0, unanswered = 0;
    double all_s = 0, p50_s = 0;
    long hwm_kb = -1;
    std::string no_answer;
  };

  Storm_Row run_storm(const std::string& kind, int count, const Options& o)
  {
    Storm_Row row;
    Server server(kind);
    if (!(row.why = server.gone()).empty())
      return row;
    Phase phase;
    std::atomic<int> ready{0};
    Clock::time_point start;
    std::vector<float> times(static_cast<size_t>(count), -1);
    Failures failures;
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
      threads.emplace_back([&, i] {
        ++ready;
        phase.wait_for(1);
        Call_Connection c;
        auto deadline = start + std::chrono::milliseconds(static_cast<long long>(o.storm_limit * 1000));
        if (c.connect(server.port(), deadline) && c.call(1, deadline))
          times[static_cast<size_t>(i)] = static_cast<float>(seconds_between(start, Clock::now()));
        else
          failures.add(c.error);
      });
    eventually([&] { return ready == count; }, 60);
    start = Clock::now();
    phase.set(1);
    for (std::thread& t : threads)
      t.join();
    row.hwm_kb = status_field(server.pid(), "VmHWM:");
    if (!(row.why = server.gone()).empty())
      return row;
    std::vector<float> answered;
    for (float t : times)
      if (t >= 0)
        answered.push_back(t);
    row.answered = static_cast<long>(answered.size());
    row.unanswered = failures.count();
    row.no_answer = failures.text();
    if (!answered.empty())
    {
      row.all_s = *std::max_element(answered.begin(), answered.end());
      row.p50_s = percentile(answered, 0.5);
    }
    return row;
  }

  // ------------------------------------------------------------- output

  std::string number(double value, int decimals)
  {
    char text[48];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
  }

  std::string mb(long kb) { return kb < 0 ? "-" : number(static_cast<double>(kb) / 1024, 1); }

  /// A table: a header, then rows; a row of one cell after its server's
  /// name is a note (skipped, failed) that spans the rest.
  void print_table(const std::string& title, const std::vector<std::string>& header,
                   const std::vector<std::vector<std::string>>& rows)
  {
    std::vector<size_t> width(header.size());
    for (size_t i = 0; i < header.size(); ++i)
      width[i] = header[i].size();
    for (const auto& row : rows)
      for (size_t i = 0; i < row.size() && (i == 0 || row.size() == header.size()); ++i)
        width[i] = std::max(width[i], row[i].size());
    std::printf("\n== %s ==\n", title.c_str());
    auto print_row = [&](const std::vector<std::string>& row) {
      for (size_t i = 0; i < row.size(); ++i)
        if (i == 0 || row.size() < header.size())
          std::printf("%-*s", static_cast<int>(width[0]) + 2, row[i].c_str());
        else
          std::printf("%*s  ", static_cast<int>(width[i]), row[i].c_str());
      std::printf("\n");
    };
    print_row(header);
    for (const auto& row : rows)
      print_row(row);
    std::fflush(stdout);
  }

  std::string ratio(double a, double b, int decimals = 2)
  {
    return a > 0 && b > 0 ? number(a / b, decimals) : "n/a";
  }
}

int main(int argc, char** argv)
{
  Options o;
  if (!parse(argc, argv, o))
  {
    std::fprintf(stderr,
                 "usage: server_bench [--connections 1,8,64,256,1000] [--warmup S] [--window S] [--idle N]\n"
                 "                    [--storm N] [--storm-limit S] [--call-limit S] [--repeat N]\n"
                 "                    [--servers host,floor,sourcegraph] (further kinds: ace, ace:N)\n");
    return 2;
  }
  // The servers inherit the raised limit.
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  getrlimit(RLIMIT_NOFILE, &files);
  signal(SIGPIPE, SIG_IGN);

  std::printf("# reproduce: %s\n", o.command_line(argv[0]).c_str());
  std::printf("# %u CPUs; fd limit %llu for the load client and the servers; loopback; nothing pinned\n",
              std::thread::hardware_concurrency(), static_cast<unsigned long long>(files.rlim_cur));
  std::printf("# load: %.1f s warm-up, %.1f s timed window per point; a fresh server per point\n", o.warmup,
              o.window);
  std::fflush(stdout);

  // (kind, connections) -> row, for the ratios.
  std::map<std::pair<std::string, int>, Load_Row> load;
  for (int n : o.connections)
  {
    // The servers take turns, so that a busy moment of the machine falls
    // on one repetition of each rather than on all of one.
    std::map<std::string, std::vector<Load_Row>> runs;
    std::map<std::string, Failures> failures;
    for (int repetition = 0; repetition < o.repeat; ++repetition)
      for (const std::string& kind : o.servers)
        runs[kind].push_back(run_load(kind, n, o, failures[kind]));
    std::vector<std::vector<std::string>> rows;
    for (const std::string& kind : o.servers)
    {
      Load_Row r = load[{kind, n}] = median_row(runs[kind]);
      std::string failed = failures[kind].text();
      if (!r.why.empty())
        rows.push_back({label(kind), r.why + (failures[kind].count() ? "; failed calls " + failed : "")});
      else
        rows.push_back({label(kind), std::to_string(r.connected), number(r.calls_per_s, 0), number(r.p50_us, 1),
                        number(r.p99_us, 1), number(r.cpu_us_per_call, 1), mb(r.rss_kb), mb(r.hwm_kb),
                        std::to_string(r.threads), failed});
    }
    print_table("Load: " + std::to_string(n) + " connection" + (n == 1 ? "" : "s") + ", sequential echo calls" +
                  (o.repeat > 1 ? " (medians of " + std::to_string(o.repeat) + " runs; failures of all)" : ""),
                {"server", "conns", "calls/s", "p50 us", "p99 us", "CPU us/call", "RSS MB", "HWM MB", "threads",
                 "failed"},
                rows);
  }

  std::map<std::string, Idle_Row> idle;
  if (o.idle > 0)
  {
    std::vector<std::vector<std::string>> rows;
    for (const std::string& kind : o.servers)
    {
      Idle_Row r = idle[kind] = run_idle(kind, o.idle, o);
      std::vector<std::string> row = {label(kind), std::to_string(r.answered), number(r.seconds, 1), mb(r.rss_kb),
                                      mb(r.hwm_kb), r.threads < 0 ? "-" : std::to_string(r.threads)};
      if (!r.why.empty() && r.rss_kb < 0)
        row = {label(kind), r.why};
      rows.push_back(row);
      if (!r.why.empty() && r.rss_kb >= 0)
        rows.push_back({"", "  " + r.why});
    }
    print_table(std::to_string(o.idle) + " idle connections (each made one call, then left open)",
                {"server", "answered", "open s", "RSS MB", "HWM MB", "threads"}, rows);
  }

  std::map<std::string, Storm_Row> storm;
  if (o.storm > 0)
  {
    std::vector<std::vector<std::string>> rows;
    for (const std::string& kind : o.servers)
    {
      Storm_Row r = storm[kind] = run_storm(kind, o.storm, o);
      if (!r.why.empty())
        rows.push_back({label(kind), r.why});
      else
        rows.push_back({label(kind), std::to_string(r.answered), r.no_answer, number(r.all_s, 3),
                        number(r.p50_s, 3), mb(r.hwm_kb)});
    }
    print_table("Storm: " + std::to_string(o.storm) + " clients connect and call at once (limit " +
                  number(o.storm_limit, 0) + " s)",
                {"server", "answered", "no answer", "last answer s", "p50 s", "HWM MB"}, rows);
  }

  std::vector<std::vector<std::string>> rows;
  for (int n : {8, 64, 256})
    if (load.count({"host", n}) && load.count({"floor", n}))
      rows.push_back({"CPU per call, host / epoll floor, " + std::to_string(n) + " connections",
                      ratio(load[{"host", n}].cpu_us_per_call, load[{"floor", n}].cpu_us_per_call)});
  // The same floor with the least JSON work that json_spirit::Value as the
  // document allows: no server of this data model gets below it.
  for (int n : {8, 64, 256})
    if (load.count({"least", n}) && load.count({"floor", n}))
      rows.push_back({"CPU per call, least JSON work / epoll floor, " + std::to_string(n) + " connections",
                      ratio(load[{"least", n}].cpu_us_per_call, load[{"floor", n}].cpu_us_per_call)});
  for (int n : {8, 64, 256})
    if (load.count({"host", n}) && load.count({"least", n}))
      rows.push_back({"CPU per call, host / least JSON work, " + std::to_string(n) + " connections",
                      ratio(load[{"host", n}].cpu_us_per_call, load[{"least", n}].cpu_us_per_call)});
  // What the reactor costs beyond the loop of the floor's own.
  for (const std::string& kind : o.servers)
    if (int threads = ace_threads(kind))
    {
      std::string ace = "ACE floor" + (threads > 1 ? " (" + std::to_string(threads) + " threads)" : std::string());
      for (int n : {8, 64, 256})
        if (load.count({kind, n}) && load.count({"floor", n}))
        {
          const Load_Row &a = load[{kind, n}], &f = load[{"floor", n}];
          std::string at = ", " + std::to_string(n) + " connections";
          rows.push_back(
            {"CPU per call: " + ace + " / epoll floor" + at, ratio(a.cpu_us_per_call, f.cpu_us_per_call)});
          rows.push_back({"calls/s: " + ace + " / epoll floor" + at, ratio(a.calls_per_s, f.calls_per_s)});
        }
    }
  // The floors against Go too: with client and server on the same CPUs, how
  // far past Go any server gets is bounded by the load client.
  for (const char* kind : {"host", "least", "floor"})
    for (int n : o.connections)
      if (load.count({kind, n}) && load.count({"sourcegraph", n}))
        rows.push_back({std::string("calls/s, ") + (kind == std::string("host") ? "host" : label(kind)) +
                          " / sourcegraph, " + std::to_string(n) + (n == 1 ? " connection" : " connections"),
                        ratio(load[{kind, n}].calls_per_s, load[{"sourcegraph", n}].calls_per_s)});
  if (idle.count("host"))
  {
    const Idle_Row& r = idle["host"];
    std::string note = r.why.empty() ? "" : " (" + r.why.substr(0, r.why.find(';')) + ")";
    rows.push_back({std::to_string(o.idle) + " idle: host RSS MB", mb(r.rss_kb) + note});
    rows.push_back({std::to_string(o.idle) + " idle: host threads",
                    (r.threads < 0 ? "-" : std::to_string(r.threads)) + note});
  }
  if (storm.count("host") && storm.count("floor"))
  {
    // A client without an answer counts as answered at the limit: the
    // ratio is then a lower bound.
    const Storm_Row &h = storm["host"], &f = storm["floor"];
    std::string value = "n/a";
    if (h.why.empty() && f.why.empty() && f.unanswered == 0)
      value = h.unanswered == 0 ? ratio(h.all_s, f.all_s)
                                : ">= " + ratio(o.storm_limit, f.all_s, 0) + " (" + std::to_string(h.unanswered) +
                                    " host clients without an answer in " + number(o.storm_limit, 0) + " s)";
    rows.push_back({"storm: host time / epoll floor time", value});
  }
  if (rows.empty())
    rows.push_back({"(none: they need the host or ACE beside the floor, or the host beside sourcegraph)", ""});
  print_table("Ratios", {"figure", "value"}, rows);
  return 0;
}
