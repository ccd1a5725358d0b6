// Three processes on loopback: callers here, jsonrpc-host as a proxy with
// examples/proxy.svc.conf, and jsonrpc-host as its upstream with
// examples/upstream.svc.conf.
#include "host_process.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_session.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>

using namespace forward_test;
using json_spirit::Value;

namespace
{
  // The library's tables for the callers that use its client.
  struct Library : ::testing::Environment
  {
    void SetUp() override { service.init(0, nullptr); }
    void TearDown() override { service.fini(); }
    JSON_RPC_Service service;
  };
  ::testing::Environment* const library = ::testing::AddGlobalTestEnvironment(new Library);

  bool exited_cleanly(int status) { return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0; }

  const Value& member(const Value& v, const char* name)
  {
    static const Value none;
    if (v.type() != json_spirit::obj_type)
      return none;
    auto i = v.get_obj().find(name);
    return i == v.get_obj().end() ? none : i->second;
  }

  std::string request(const Value& id, const char* method, const Value& params)
  {
    return json_spirit::write_string(
             Value(json_spirit::Object{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}})) +
           "\n";
  }

  class Proxy_Processes : public ::testing::Test
  {
  protected:
    Proxy_Processes() : dir(WORK_PARENT, EXAMPLES_LIB_DIR, EXAMPLES_DIR) {}

    void TearDown() override
    {
      // Each host stops on SIGTERM with status 0: a sanitizer report or a
      // crash on the way out shows here.
      if (proxy)
      {
        EXPECT_TRUE(exited_cleanly(proxy->stop())) << proxy->log();
        EXPECT_EQ(std::string::npos, proxy->log().find("Failed to forward response")) << proxy->log();
      }
      if (upstream)
      {
        EXPECT_TRUE(exited_cleanly(upstream->stop())) << upstream->log();
      }
    }

    void start_upstream(const char* framing, const std::string& listen = "127.0.0.1:0")
    {
      upstream.reset(new Host(JSONRPC_HOST, dir, "upstream",
                              {"--listen", listen, "--framing", framing, "--svc-conf", "examples/upstream.svc.conf"}));
      ASSERT_NE(0, upstream->port) << upstream->log();
    }

    // An upstream, and the example configuration in front of it with the
    // upstream's real port; every hop with the same framing.
    void start_proxy(const char* framing)
    {
      ASSERT_NO_FATAL_FAILURE(start_upstream(framing));
      write_proxy_conf(dir, upstream->port, framing);
      proxy.reset(new Host(JSONRPC_HOST, dir, "proxy",
                           {"--listen", "127.0.0.1:0", "--framing", framing, "--svc-conf", "proxy.svc.conf"}));
      ASSERT_NE(0, proxy->port) << proxy->log();
    }

    Work_Dir dir;
    std::unique_ptr<Host> upstream, proxy;
  };
}

TEST_F(Proxy_Processes, ConcurrentCallersEachGetTheirOwnAnswersUnderTheirOwnIds)
{
  ASSERT_NO_FATAL_FAILURE(start_proxy("ndjson"));
  const int callers = 4, calls = 12;
  // Every caller numbers its calls 1, 2, ...: the same ids on every
  // connection, and each must come back to its own caller. Every fourth
  // call asks for a 1 MiB result, every sixth for a result with bad params
  // (an error the upstream answers), the rest are echoes of the caller's
  // own text.
  auto kind = [](int i) { return i % 6 == 0 ? 'x' : i % 4 == 0 ? 'b' : 'e'; };
  std::vector<std::thread> threads;
  for (int t = 0; t < callers; ++t)
    threads.emplace_back([&, t] {
      Line_Client client(proxy->port);
      ASSERT_TRUE(client.connected());
      std::string batch;
      for (int i = 1; i <= calls; ++i)
      {
        if (kind(i) == 'e')
          batch += request(i, "echo", json_spirit::Array{t, i, std::string(100 * i, 'a' + t)});
        else
          batch += request(i, "big.result", json_spirit::Object{{"mb", kind(i) == 'b' ? 1 : -1}});
      }
      ASSERT_TRUE(client.send(batch));
      std::set<int> answered;
      for (int n = 0; n < calls; ++n)
      {
        // Which call comes next is not fixed: the id tells, read from the
        // head of the line; a large result is checked as it streams in.
        std::string text;
        std::unique_ptr<Big_Result_Check> check;
        int id = 0;
        ASSERT_TRUE(client.stream_line([&](const char* data, size_t length) {
          if (check)
            return check->feed(data, length);
          text.append(data, length);
          size_t at = text.find("\"id\":");
          if (id || at == std::string::npos || text.find(',', at) == std::string::npos)
            return true;
          id = std::atoi(text.c_str() + at + 5);
          if (kind(id) != 'b')
            return true;
          check.reset(new Big_Result_Check);
          return check->feed(text.data(), text.size());
        }));
        ASSERT_TRUE(id >= 1 && id <= calls) << text.substr(0, 100);
        EXPECT_TRUE(answered.insert(id).second) << "caller " << t << " got " << id << " twice";
        if (check)
        {
          EXPECT_TRUE(check->finish()) << "caller " << t << " call " << id;
          EXPECT_EQ(std::to_string(id), check->id);
          EXPECT_GE(check->bytes, 1024u * 1024u);
          continue;
        }
        Value answer;
        EXPECT_TRUE(json_spirit::read_string(text, answer)) << text.substr(0, 200);
        EXPECT_EQ(Value(id), member(answer, "id"));
        if (kind(id) == 'e')
          EXPECT_EQ(Value(json_spirit::Array{t, id, std::string(100 * id, 'a' + t)}), member(answer, "result"));
        else
          EXPECT_EQ(Value(-32602), member(member(answer, "error"), "code")) << text;
      }
      EXPECT_EQ(static_cast<size_t>(calls), answered.size());
    });
  for (std::thread& t : threads)
    t.join();
}

TEST_F(Proxy_Processes, ContentLengthCallersOfTheLibraryClientGetTheirAnswers)
{
  // Every hop with Content-Length framing: the proxy holds each forwarded
  // message until its end, and the answers are the same.
  ASSERT_NO_FATAL_FAILURE(start_proxy("content-length"));
  Log_Capture log;
  TCP_Options options;
  JSON_RPC_Channel_Strong_Ptr channel;
  ASSERT_EQ(0, TCP_Connector::connect(channel, ACE_INET_Addr(proxy->port, "127.0.0.1"), options));
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(channel)};
      for (int i = 0; i < 4; ++i)
      {
        JSON_RPC_Object_Ptr response;
        Value params = i == 3 ? Value(json_spirit::Object{{"mb", 2}}) : Value(json_spirit::Array{t, i});
        auto call = JSON_RPC_Session::make_rpc_request(i == 3 ? "big.result" : "echo", std::move(params));
        ASSERT_TRUE(session.request(call, response, 60));
        ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response->type);
        const Value& result = static_cast<const JSON_RPC_Response&>(*response).result;
        if (i < 3)
        {
          EXPECT_EQ(Value(json_spirit::Array{t, i}), result);
          continue;
        }
        const json_spirit::Array& a = result.get_array();
        ASSERT_GT(a.size(), 200000u);
        size_t k = 0;
        while (k < a.size() && a[k] == Value(static_cast<long long>(k % 1000000)))
          ++k;
        EXPECT_EQ(a.size(), k) << "the first element out of order";
      }
    });
  for (std::thread& t : threads)
    t.join();
  TCP_Channel::cast(channel)->close();
}

TEST_F(Proxy_Processes, ARequesterThatLeavesMidResponseLeavesTheProxyServingTheOthers)
{
  ASSERT_NO_FATAL_FAILURE(start_proxy("ndjson"));
  Line_Client staying(proxy->port);
  {
    Line_Client leaving(proxy->port);
    ASSERT_TRUE(leaving.send(request(1, "big.result", json_spirit::Object{{"mb", 64}})));
    ASSERT_TRUE(leaving.skip(2 * 1024 * 1024));
  }
  {
    // Gone before any of its answer can have come.
    Line_Client leaving(proxy->port);
    ASSERT_TRUE(leaving.send(request(2, "big.result", json_spirit::Object{{"mb", 8}})));
  }
  std::string line;
  ASSERT_TRUE(staying.send(request("s1", "echo", "still here")));
  ASSERT_TRUE(staying.read_line(line));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"s1\",\"result\":\"still here\"}", line);
  ASSERT_TRUE(staying.send(request(3, "big.result", json_spirit::Object{{"mb", 2}})));
  Big_Result_Check check; // checked as it streams in
  ASSERT_TRUE(staying.stream_line([&](const char* data, size_t n) { return check.feed(data, n); }));
  EXPECT_TRUE(check.finish());
  EXPECT_EQ("3", check.id);
  EXPECT_GE(check.bytes, 2u * 1024 * 1024);
  EXPECT_TRUE(proxy->running());
}

TEST_F(Proxy_Processes, AnUpstreamThatClosesAnswersEachPendingCallerAndIsConnectedAgain)
{
  ASSERT_NO_FATAL_FAILURE(start_proxy("ndjson"));
  std::vector<std::unique_ptr<Line_Client>> callers;
  for (int i = 0; i < 3; ++i)
  {
    callers.emplace_back(new Line_Client(proxy->port));
    Line_Client& c = *callers.back();
    // The echo comes back after the upstream has taken the sleep, which
    // stays pending.
    ASSERT_TRUE(c.send(request("slow-" + std::to_string(i), "slow.sleep", 10000) + request(i, "echo", i)));
    std::string line;
    ASSERT_TRUE(c.read_line(line));
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(i) + ",\"result\":" + std::to_string(i) + "}", line);
  }
  unsigned short port = upstream->port;
  upstream->stop(SIGKILL);
  upstream.reset();
  for (int i = 0; i < 3; ++i)
  {
    std::string line;
    ASSERT_TRUE(callers[i]->read_line(line));
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"slow-" + std::to_string(i) +
                "\",\"error\":{\"code\":-32603,\"message\":\"Internal error, forwarder is closed.\"}}",
              line);
  }
  std::string line;
  ASSERT_TRUE(callers[0]->send(request(10, "echo", "anyone?")));
  ASSERT_TRUE(callers[0]->read_line(line));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":10,\"error\":{\"code\":-32603,\"message\":\"Internal error, upstream 127.0.0.1:" +
              std::to_string(port) + " is unreachable.\",\"data\":\"Connection refused\"}}",
            line);
  // Back on its port, the upstream is connected to again.
  ASSERT_NO_FATAL_FAILURE(start_upstream("ndjson", "127.0.0.1:" + std::to_string(port)));
  ASSERT_TRUE(callers[1]->send(request(11, "echo", "again")));
  ASSERT_TRUE(callers[1]->read_line(line));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":11,\"result\":\"again\"}", line);
}

TEST_F(Proxy_Processes, AResponseThatBreaksOffUpstreamEndsTheCallersConnectionInsteadOfLeavingItWaiting)
{
  ASSERT_NO_FATAL_FAILURE(start_proxy("ndjson"));
  // The caller reads slowly, so the upstream is still writing when it dies.
  Line_Client caller(proxy->port);
  ASSERT_TRUE(caller.send(request(1, "big.result", json_spirit::Object{{"mb", 256}})));
  ASSERT_TRUE(caller.skip(1024 * 1024));
  upstream->stop(SIGKILL);
  upstream.reset();
  unsigned long long rest = 0;
  EXPECT_FALSE(caller.stream_line([&](const char*, size_t n) { return rest += n, true; }));
  EXPECT_FALSE(caller.timed_out) << "the caller was left waiting after " << rest << " more bytes";
  EXPECT_LT(rest, 255ull * 1024 * 1024);
  EXPECT_TRUE(proxy->running());
}

TEST_F(Proxy_Processes, AParamsFilterSumsA100MBArrayThatTheHostNeverHolds)
{
  ASSERT_NO_FATAL_FAILURE(start_upstream("ndjson"));
  Line_Client client(upstream->port);
  ASSERT_TRUE(client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"sum.stream\",\"params\":["));
  const size_t total = 100 * 1024 * 1024;
  long long sum = 0;
  size_t sent = 0;
  std::string chunk;
  for (unsigned long long k = 0; sent < total; ++k)
  {
    long long v = static_cast<long long>(k % 1000003) - 500000;
    chunk += (k ? "," : "") + std::to_string(v);
    sum += v;
    if (chunk.size() >= 65536)
    {
      ASSERT_TRUE(client.send(chunk));
      sent += chunk.size();
      chunk.clear();
    }
  }
  ASSERT_TRUE(client.send(chunk + "]}\n"));
  std::string line;
  ASSERT_TRUE(client.read_line(line));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":" + std::to_string(sum) + "}", line);
  // The host's own accounting: below half the size of the params, where
  // assembled as a tree they would take several times their size. (The
  // plain build peaks near 8 MB; AddressSanitizer's own bookkeeping adds
  // some 30 MB.)
  long peak_kb = upstream->peak_rss_kb();
  ASSERT_GT(peak_kb, 0);
  EXPECT_LT(peak_kb, static_cast<long>(total / 1024 / 2)) << "peak RSS " << peak_kb << " kB";
  RecordProperty("host_peak_rss_kb", static_cast<int>(peak_kb));
}
