#ifndef TESTS_FORWARD_HOST_PROCESS_H
#define TESTS_FORWARD_HOST_PROCESS_H

// jsonrpc-host processes on loopback and a plain NDJSON client for them,
// for the tests of the proxy and for the memory benchmark.

#include "../support/test_util.h"

#include "tessel/yajl_handler.h"

#include <cstdlib>
#include <string>

namespace forward_test
{
  typedef Socket_Client Line_Client;

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
      else if (depth_ == 2 && key_ == "result" &&
               std::strtoull(std::string(text, length).c_str(), nullptr, 10) != elements++ % 1000000)
        in_order = false;
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
  struct Work_Dir : Temp_Dir
  {
    Work_Dir(const std::string& parent, const std::string& lib_dir, const std::string& examples_dir) : Temp_Dir(parent)
    {
      ok = mkdir(file("build").c_str(), 0755) == 0 && symlink(lib_dir.c_str(), file("build/lib").c_str()) == 0 &&
           symlink(examples_dir.c_str(), file("examples").c_str()) == 0;
    }
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

  /// jsonrpc-host run in a work directory, with its log in NAME.err there;
  /// args name a --listen address on 127.0.0.1.
  struct Host : Child
  {
    Host(const std::string& program, const Work_Dir& dir, const std::string& name, std::vector<std::string> args)
      : Child((args.insert(args.begin(), program), args), dir.path(), dir.file(name + ".err")),
        port(port_after("listening on 127.0.0.1:")), log_path(dir.file(name + ".err"))
    {
    }
    std::string log() const { return read_file(log_path); }

    unsigned short port;
    std::string log_path;
  };
}

#endif
