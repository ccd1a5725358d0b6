// Where a method's work runs, and what it costs: on the dispatching thread
// (a direct handler), on a thread of its own per call, or on the shared pool.
// Throughput is calls/s from dispatch to the answer of the last call of a
// batch; latency is the time from dispatch to the answer of a lone call.
//
// Each is measured twice: with answers only counted, which shows the cost
// of the way to the method alone, and with answers written as a transport
// writes them (serialized under the channel's output lock, into memory
// instead of a socket).
#include "bench_support.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler_impl.h"

#include <ace/Log_Msg.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace
{
  const size_t batch = 1024;
  const size_t queue_limit = 4 * batch;

  int64_t now_ns()
  {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
  }

  // Counts answers and stamps the latest; writes them first if asked to.
  class Counting_Channel : public Memory_Channel
  {
  public:
    explicit Counting_Channel(bool write) : write_(write) {}

    int send_object(JSON_RPC_Object_Ptr object) override
    {
      if (write_)
      {
        std::lock_guard<std::mutex> lock(output_lock_);
        output_.clear();
        YAJL_String_Printer printer(&output_);
        if (!JSON_RPC_Writer().write(*object, printer))
          return -1;
      }
      answered_at.store(now_ns(), std::memory_order_relaxed);
      answered.fetch_add(1, std::memory_order_release);
      return 0;
    }

    std::atomic<uint64_t> answered{0};
    std::atomic<int64_t> answered_at{0};

  private:
    bool write_;
    std::mutex output_lock_;
    std::string output_;
  };

  void answer(JSON_RPC_Channel* channel, const JSON_RPC_Request& request)
  {
    JSON_RPC_Response* response = new (std::nothrow) JSON_RPC_Response(&request);
    if (!response)
      return;
    response->result = request.params;
    channel->send_object(JSON_RPC_Object_Ptr(response));
  }

  class Direct : public JSON_RPC_Handler
  {
  public:
    Direct() { silent_ = true; }
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      if (peer.null())
        return -1;
      answer(peer.get(), static_cast<JSON_RPC_Request&>(*object));
      return 0;
    }
  };

  class Solo : public JSON_RPC_Thread_Handler
  {
  public:
    Solo() { silent_ = true; }
    int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      answer(channel.get(), static_cast<JSON_RPC_Request&>(*object));
      return 0;
    }
  };

  class Pooled : public JSON_RPC_Thread_Pool_Handler_Impl
  {
  public:
    Pooled() { silent_ = true; }
    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override
    {
      if (channel)
        answer(channel, request);
      return 0;
    }
  };

  const char* const method_of[] = {"bench.direct", "bench.solo", "bench.pool"};
  enum Kind
  {
    DIRECT,
    SOLO,
    POOL
  };

  JSON_RPC_Object_Ptr make_request(Kind kind, int id)
  {
    JSON_RPC_Request* request = new JSON_RPC_Request;
    request->type = JSON_RPC_Object::TYPE_REQUEST;
    request->version = "2.0";
    request->method = method_of[kind];
    request->id = id;
    request->params = json_spirit::Array{json_spirit::Value(id)};
    return JSON_RPC_Object_Ptr(request);
  }

  // What a benchmark of one kind works with: the pool if it is a pool
  // benchmark, a channel that counts answers, the dispatcher.
  struct Setup
  {
    explicit Setup(benchmark::State& state)
      : kind(static_cast<Kind>(state.range(0))), pooled(false), channel(new Counting_Channel(state.range(2) != 0)),
        counter(static_cast<Counting_Channel&>(*channel)), weak(channel), dispatcher(JSON_RPC_Dispatcher::instance())
    {
      if (kind == POOL)
      {
        pooled = JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", static_cast<size_t>(state.range(1)), queue_limit,
                                                         queue_limit / 2) == 0;
        if (!pooled)
          state.SkipWithError("no pool");
      }
    }
    ~Setup()
    {
      if (pooled)
        JSON_RPC_Thread_Pool_Handler::deactivate();
    }
    bool ready() const { return kind != POOL || pooled; }

    Kind kind;
    bool pooled;
    JSON_RPC_Channel_Strong_Ptr channel;
    Counting_Channel& counter;
    JSON_RPC_Channel_Weak_Ptr weak;
    JSON_RPC_Dispatcher* dispatcher;
  };

  void wait_for(const Counting_Channel& channel, uint64_t count)
  {
    while (channel.answered.load(std::memory_order_acquire) < count)
      std::this_thread::yield();
  }

  void BM_Throughput(benchmark::State& state)
  {
    Setup setup(state);
    if (!setup.ready())
      return;
    std::vector<JSON_RPC_Object_Ptr> requests;
    for (size_t i = 0; i < batch; ++i)
      requests.push_back(make_request(setup.kind, static_cast<int>(i)));
    uint64_t sent = 0, refused = 0;
    for (auto _ : state)
    {
      for (const JSON_RPC_Object_Ptr& request : requests)
      {
        // A refused call (queue full, no thread) is offered again, as a
        // client would repeat it.
        while (setup.dispatcher->dispatch(setup.weak, request) == -1)
        {
          ++refused;
          std::this_thread::yield();
        }
        ++sent;
      }
      wait_for(setup.counter, sent);
    }
    state.SetItemsProcessed(static_cast<int64_t>(sent));
    state.counters["refused"] = static_cast<double>(refused);
  }

  void BM_Latency(benchmark::State& state)
  {
    Setup setup(state);
    if (!setup.ready())
      return;
    JSON_RPC_Object_Ptr request = make_request(setup.kind, 1);
    std::vector<int64_t> samples, held;
    uint64_t sent = 0;
    for (auto _ : state)
    {
      int64_t start = now_ns();
      if (setup.dispatcher->dispatch(setup.weak, request) == -1)
      {
        state.SkipWithError("call refused");
        break;
      }
      held.push_back(now_ns() - start);
      ++sent;
      while (setup.counter.answered.load(std::memory_order_acquire) < sent)
      {
        // Spin: a yield would add the scheduler's delay to what is measured.
      }
      samples.push_back(setup.counter.answered_at.load(std::memory_order_relaxed) - start);
    }
    if (samples.empty())
      return;
    std::sort(samples.begin(), samples.end());
    std::sort(held.begin(), held.end());
    // How long dispatch holds the transport's thread.
    state.counters["held_p50_ns"] = static_cast<double>(held[held.size() / 2]);
    state.counters["p50_ns"] = static_cast<double>(samples[samples.size() / 2]);
    state.counters["p99_ns"] = static_cast<double>(samples[samples.size() * 99 / 100]);
  }

  void kinds(benchmark::internal::Benchmark* b)
  {
    for (int written : {0, 1})
    {
      b->Args({DIRECT, 0, written})->Args({SOLO, 0, written});
      for (int workers : {1, 2, 4})
        b->Args({POOL, workers, written});
    }
    b->ArgNames({"kind", "workers", "written"});
  }

  BENCHMARK(BM_Throughput)->Apply(kinds)->UseRealTime()->MinTime(0.3);
  BENCHMARK(BM_Latency)->Apply(kinds)->UseRealTime()->MinTime(0.3);

  class Summary_Reporter : public Median_Reporter
  {
  public:
    Summary_Reporter() : Median_Reporter(OO_Tabular) {}
  };

  struct Row
  {
    Kind kind;
    int workers;
  };

  class Summary
  {
  public:
    explicit Summary(const Summary_Reporter& r) : r_(r) {}

    double get(const char* bench, Row row, int written, const char* counter) const
    {
      std::string name = std::string(bench) + "/kind:" + std::to_string(row.kind) +
                         "/workers:" + std::to_string(row.workers) + "/written:" + std::to_string(written) +
                         "/min_time:0.300/real_time";
      auto run = r_.figures.find(name);
      if (run == r_.figures.end())
        return 0;
      auto c = run->second.find(counter);
      return c == run->second.end() ? 0 : c->second.value;
    }

    void print() const
    {
      static const char* const label[] = {"direct handler", "thread per call", "pool"};
      const Row rows[] = {{DIRECT, 0}, {SOLO, 0}, {POOL, 1}, {POOL, 2}, {POOL, 4}};
      for (int written : {0, 1})
      {
        std::printf("\nanswers %s\n%-22s %14s %12s %12s %12s\n", written ? "written" : "counted only",
                    "method runs on", "calls/s", "p50 ns", "p99 ns", "held p50 ns");
        for (const Row& row : rows)
        {
          std::string what = label[row.kind];
          if (row.kind == POOL)
            what += ", " + std::to_string(row.workers) + " worker" + (row.workers > 1 ? "s" : "");
          std::printf("%-22s %14.0f %12.0f %12.0f %12.0f\n", what.c_str(),
                      get("BM_Throughput", row, written, "items_per_second"), get("BM_Latency", row, written, "p50_ns"),
                      get("BM_Latency", row, written, "p99_ns"), get("BM_Latency", row, written, "held_p50_ns"));
        }
      }
      for (int written : {0, 1})
      {
        const Row pool2 = {POOL, 2}, solo = {SOLO, 0}, direct = {DIRECT, 0};
        double pool_rate = get("BM_Throughput", pool2, written, "items_per_second");
        double solo_rate = get("BM_Throughput", solo, written, "items_per_second");
        double pool_p50 = get("BM_Latency", pool2, written, "p50_ns");
        double direct_p50 = get("BM_Latency", direct, written, "p50_ns");
        double speedup = solo_rate > 0 ? pool_rate / solo_rate : 0;
        double slowdown = direct_p50 > 0 ? pool_p50 / direct_p50 : 0;
        std::printf("\ntargets, answers %s:\n", written ? "written" : "counted only");
        std::printf("  pool, 2 workers: %.0f calls/s (>= 200000): %s\n", pool_rate,
                    pool_rate >= 200000 ? "met" : "MISSED");
        std::printf("  pool / thread per call: %.1fx (>= 20x): %s\n", speedup, speedup >= 20 ? "met" : "MISSED");
        std::printf("  pool p50 / direct p50, 2 workers: %.1fx (< 5x): %s\n", slowdown,
                    slowdown > 0 && slowdown < 5 ? "met" : "MISSED");
      }
    }

  private:
    const Summary_Reporter& r_;
  };
}

int main(int argc, char** argv)
{
  // Debug lines of the dispatcher would be measured too; handlers are silent
  // and nothing else should log on this path.
  ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
  JSON_RPC_Request_Map* map = JSON_RPC_Request_Map::instance();
  map->insert(method_of[DIRECT], "", new Direct, nullptr);
  map->insert(method_of[SOLO], "", new Solo, nullptr);
  map->insert(method_of[POOL], "", new Pooled, nullptr);

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  Summary_Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  Summary(reporter).print();
  benchmark::Shutdown();

  JSON_RPC_Request_Map::close_instance();
  JSON_RPC_Dispatcher::close_instance();
  return 0;
}
