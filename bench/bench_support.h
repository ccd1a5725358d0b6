// Pieces the benchmarks share.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include "json_rpc/json_rpc_channel.h"

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

/// A channel that keeps its output in memory: the operations other than
/// send_object are refused.
class Memory_Channel : public JSON_RPC_Channel
{
public:
  int send_generator(JSON_Generator&) override { return -1; }
  yajl_gen_t* send_begin() override { return nullptr; }
  int send_end() override { return -1; }
  int get_local_addr(ACE_Addr&) const override { return -1; }
  int get_remote_addr(ACE_Addr&) const override { return -1; }
  int io_state() override { return 0; }
};

/// Google Benchmark's table, and the counters of each run kept for a
/// summary after it: the medians of the repetitions, or the one run there
/// is. Runs that failed are left out.
class Median_Reporter : public benchmark::ConsoleReporter
{
public:
  explicit Median_Reporter(OutputOptions options = OO_Defaults) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run>& runs) override
  {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
    {
      if (run.error_occurred)
        continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")
        continue;
      std::string name = run.run_name.str();
      if (run.run_type == Run::RT_Aggregate || !figures.count(name))
        figures[name] = run.counters;
    }
  }

  /// A counter of the run called name, with or without the options that
  /// follow it in the full name; 0 if there is none.
  double get(const std::string& name, const char* counter) const
  {
    for (auto run = figures.lower_bound(name); run != figures.end(); ++run)
    {
      const std::string& full = run->first;
      if (full.compare(0, name.size(), name) != 0)
        break;
      if (full.size() > name.size() && full[name.size()] != '/')
        continue;
      auto c = run->second.find(counter);
      return c == run->second.end() ? 0 : c->second.value;
    }
    return 0;
  }

  /// Full run name to its counters.
  std::map<std::string, benchmark::UserCounters> figures;
};

#endif
