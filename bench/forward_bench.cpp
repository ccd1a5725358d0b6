// Forwarding and params filters at scale.
//
// Memory: the same 256 MiB array of numbers (0, 1, 2, ... modulo 1000000)
// three ways, each through jsonrpc-host processes on loopback with NDJSON
// framing, and each host's peak resident memory read from the kernel's
// accounting of that process (VmHWM):
//   forward    as the result of big.result, from an upstream host through a
//              proxy host (examples/proxy.svc.conf) to this process; the
//              figure is the proxy's
//   filter     as the params of sum.stream, which the sum.stream filter
//              adds up while they arrive; the figure is the host's
//   assembled  as the same params to a host without the filter, whose
//              reader builds them into a json_spirit::Value
//
// Throughput (Google Benchmark): a response of 32 MiB parsed by YAJL with
// no callbacks, against JSON_RPC_Reader in MODE_FORWARD_RESPONSE copying it
// into a generator that prints to nowhere, both fed in 64 KiB pieces; then
// the ratio of their speeds, by CPU time.
//
// Usage: forward_bench [--memory-only | --throughput-only] [benchmark flags]
#include "host_process.h"

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_reader.h"

#include <ace/Lock_Adapter_T.h>
#include <ace/Thread_Mutex.h>
#include <benchmark/benchmark.h>
#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>

#include <charconv>
#include <cstdio>
#include <map>
#include <string>

using namespace forward_test;

namespace
{
  const unsigned long long mib = 1024 * 1024;
  const size_t piece = 64 * 1024;

  // The text of the array big.result makes: elements until `bytes` long.
  class Array_Text
  {
  public:
    explicit Array_Text(unsigned long long bytes) : bytes_(bytes) {}

    /// Appends the next part (about `want` bytes) to out; false once all
    /// of it, the closing bracket included, has been given.
    bool next(std::string& out, size_t want)
    {
      if (done_)
        return false;
      if (size_ == 0)
      {
        out += '[';
        size_ = 1;
      }
      char text[24];
      size_t start = out.size();
      while (size_ < bytes_ && out.size() - start < want)
      {
        if (k_)
          out += ',';
        char* end = std::to_chars(text, text + sizeof text, k_ % 1000000).ptr;
        out.append(text, end);
        size_ += static_cast<unsigned long long>(end - text) + 1;
        ++k_;
      }
      if (size_ >= bytes_)
      {
        out += ']';
        done_ = true;
      }
      return true;
    }

  private:
    unsigned long long bytes_;
    unsigned long long size_ = 0, k_ = 0;
    bool done_ = false;
  };

  long mb(long kb) { return (kb + 512) / 1024; }

  // ------------------------------------------------------------- memory

  struct Memory_Run
  {
    Memory_Run() : dir(WORK_PARENT, EXAMPLES_LIB_DIR, EXAMPLES_DIR) {}

    std::unique_ptr<Host> host(const std::string& name, const std::string& svc_conf)
    {
      std::unique_ptr<Host> h(
        // No limit: the assembled run holds 256 MB on purpose.
        new Host(JSONRPC_HOST, dir, name,
                 {"--listen", "127.0.0.1:0", "--framing", "ndjson", "--max-message-size", "0", "--svc-conf", svc_conf}));
      if (!h->port)
        std::fprintf(stderr, "forward_bench: %s did not start:\n%s", name.c_str(), h->log().c_str());
      return h->port ? std::move(h) : nullptr;
    }

    // big.result through the proxy; the proxy's peak, or -1.
    long forward(unsigned long long size_mb)
    {
      std::unique_ptr<Host> upstream = host("upstream", "examples/upstream.svc.conf");
      if (!upstream)
        return -1;
      write_proxy_conf(dir, upstream->port, "ndjson");
      std::unique_ptr<Host> proxy = host("proxy", "proxy.svc.conf");
      if (!proxy)
        return -1;
      Line_Client client(proxy->port);
      Big_Result_Check check;
      bool ok = client.send("{\"jsonrpc\":\"2.0\",\"id\":77,\"method\":\"big.result\",\"params\":{\"mb\":" +
                            std::to_string(size_mb) + "}}\n") &&
                client.stream_line([&](const char* data, size_t n) { return check.feed(data, n); }) &&
                check.finish() && check.id == "77" && check.bytes >= size_mb * mib;
      long peak = proxy->peak_rss_kb();
      if (!ok)
      {
        std::fprintf(stderr, "forward_bench: bad forwarded response (%llu bytes)\n%s", check.bytes,
                     proxy->log().c_str());
        return -1;
      }
      return peak;
    }

    // sum.stream with the array as params, to a host made from the
    // upstream's configuration (less its filters if `filtered` is false);
    // that host's peak, or -1.
    long sum(unsigned long long size_mb, bool filtered)
    {
      std::string conf = read_file(dir.file("examples/upstream.svc.conf"));
      if (!filtered)
        conf = replace_all(conf, " -f examples/conf/filters.json", "");
      write_file(dir.file("sum.svc.conf"), conf);
      std::unique_ptr<Host> server = host(filtered ? "filter" : "assembled", "sum.svc.conf");
      if (!server)
        return -1;
      Line_Client client(server->port, 600000);
      bool ok = client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"sum.stream\",\"params\":");
      Array_Text array(size_mb * mib);
      std::string chunk;
      long long total = 0;
      while (ok && array.next(chunk, piece))
      {
        ok = client.send(chunk);
        chunk.clear();
      }
      // The expected sum, as the array's elements come.
      Array_Text again(size_mb * mib);
      while (again.next(chunk, piece))
      {
        const char* p = chunk.data() + (chunk[0] == '[' ? 1 : 0);
        const char* end = chunk.data() + chunk.size();
        while (p < end && *p != ']')
        {
          if (*p == ',')
            ++p;
          long long v = 0;
          p = std::from_chars(p, end, v).ptr;
          total += v;
        }
        chunk.clear();
      }
      std::string line;
      ok = ok && client.send("}\n") && client.read_line(line);
      long peak = server->peak_rss_kb();
      if (line != "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":" + std::to_string(total) + "}")
      {
        std::fprintf(stderr, "forward_bench: sum.stream answered '%s', expected %lld\n%s", line.substr(0, 200).c_str(),
                     total, server->log().c_str());
        return -1;
      }
      return peak;
    }

    Work_Dir dir;
  };

  bool memory(unsigned long long size_mb)
  {
    long forward = Memory_Run().forward(size_mb);
    long filter = Memory_Run().sum(size_mb, true);
    long assembled = Memory_Run().sum(size_mb, false);
    if (forward < 0 || filter < 0 || assembled < 0)
      return false;
    std::printf("forward %llu MB: peak RSS %ld MB\n", size_mb, mb(forward));
    std::printf("filter %llu MB: peak RSS %ld MB\n", size_mb, mb(filter));
    std::printf("assembled %llu MB: peak RSS %ld MB\n", size_mb, mb(assembled));
    std::fflush(stdout);
    return true;
  }

  // ------------------------------------------------------------- throughput

  // The response, as big.result writes it.
  const std::string& response_text()
  {
    static const std::string text = [] {
      std::string t = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":";
      Array_Text array(32 * mib);
      while (array.next(t, piece))
      {
      }
      return t + "}";
    }();
    return text;
  }

  void BM_Raw_YAJL(benchmark::State& state)
  {
    const std::string& text = response_text();
    for (auto _ : state)
    {
      yajl_handle h = yajl_alloc(nullptr, nullptr, nullptr);
      for (size_t at = 0; at < text.size(); at += piece)
        yajl_parse(h, reinterpret_cast<const unsigned char*>(text.data() + at), std::min(piece, text.size() - at));
      if (yajl_complete_parse(h) != yajl_status_ok)
        state.SkipWithError("YAJL refused the response");
      yajl_free(h);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  }

  void print_nowhere(void*, const char*, size_t) {}

  // The link and the requester in one: every response id 1 is a forward
  // to itself, written to a generator that prints nowhere.
  class Null_Channel : public JSON_RPC_Channel
  {
  public:
    ~Null_Channel() override { release(); }
    int send_object(JSON_RPC_Object_Ptr) override { return -1; }
    int send_generator(JSON_Generator&) override { return -1; }
    yajl_gen_t* send_begin() override
    {
      release();
      gen_ = yajl_gen_alloc(nullptr);
      yajl_gen_config(gen_, yajl_gen_print_callback, &print_nowhere, nullptr);
      return gen_;
    }
    int send_end() override { return 0; }
    int get_forward_entry(int forward_id, JSON_RPC_Channel_Weak_Ptr& requester, json_spirit::Value& id) override
    {
      if (forward_id != 1)
        return -1;
      requester = self;
      id = json_spirit::Value("caller");
      return 0;
    }
    int get_local_addr(ACE_Addr&) const override { return -1; }
    int get_remote_addr(ACE_Addr&) const override { return -1; }
    int io_state() override { return 0; }
    ACE_Lock* io_mutex() override { return &lock_; }

    JSON_RPC_Channel_Weak_Ptr self;

  private:
    void release()
    {
      if (gen_)
        yajl_gen_free(gen_);
      gen_ = nullptr;
    }
    yajl_gen_t* gen_ = nullptr;
    ACE_Thread_Mutex mutex_;
    ACE_Lock_Adapter<ACE_Thread_Mutex> lock_{mutex_};
  };

  void BM_Forward_Reader(benchmark::State& state)
  {
    const std::string& text = response_text();
    JSON_RPC_Channel_Strong_Ptr channel(new Null_Channel);
    static_cast<Null_Channel&>(*channel).self = JSON_RPC_Channel_Weak_Ptr(channel);
    JSON_RPC_Reader reader;
    reader.mode(JSON_RPC_Reader::MODE_FORWARD_RESPONSE);
    for (auto _ : state)
    {
      reader.open();
      reader.channel(JSON_RPC_Channel_Weak_Ptr(channel));
      bool ok = true;
      for (size_t at = 0; ok && at < text.size(); at += piece)
        ok = reader.read(text.data() + at, std::min(piece, text.size() - at));
      if (!ok || !reader.read(nullptr, 0) || reader.state() != JSON_RPC_Reader::STATE_FORWARDING)
        state.SkipWithError("the response was not forwarded");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  }

  BENCHMARK(BM_Raw_YAJL)->Unit(benchmark::kMillisecond);
  BENCHMARK(BM_Forward_Reader)->Unit(benchmark::kMillisecond);

  // Keeps the CPU time of each benchmark (the median, with repetitions):
  // both run on one thread, and on a machine shared with other work the
  // CPU time is what the path itself costs.
  class Ratio_Reporter : public benchmark::ConsoleReporter
  {
  public:
    // Plain text: the figures go to a script's output.
    Ratio_Reporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override
    {
      ConsoleReporter::ReportRuns(runs);
      for (const Run& run : runs)
        if (!run.error_occurred && (run.aggregate_name.empty() || run.aggregate_name == "median"))
          times[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
    std::map<std::string, double> times;
  };
}

int main(int argc, char** argv)
{
  bool memory_only = argc > 1 && std::string(argv[1]) == "--memory-only";
  bool throughput_only = argc > 1 && std::string(argv[1]) == "--throughput-only";
  if (memory_only || throughput_only)
  {
    --argc;
    ++argv;
  }
  if (!throughput_only && !memory(256))
    return 1;
  if (memory_only)
    return 0;
  response_text();
  benchmark::Initialize(&argc, argv);
  Ratio_Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double raw = reporter.times["BM_Raw_YAJL"], forward = reporter.times["BM_Forward_Reader"];
  if (raw <= 0 || forward <= 0)
    return 1;
  std::printf("forward/raw YAJL throughput (CPU time): %.2f\n", raw / forward);
  return 0;
}
