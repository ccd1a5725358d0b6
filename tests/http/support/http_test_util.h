#ifndef TESTS_HTTP_TEST_UTIL_H
#define TESTS_HTTP_TEST_UTIL_H

#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/http_client.h"
#include "tessel/retry.h"

#include <ace/SSL/SSL_Context.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

inline json_spirit::Value parse_json(const std::string& text)
{
  json_spirit::Value v;
  EXPECT_TRUE(json_spirit::read_string(text, v)) << text;
  return v;
}

inline std::string dump_json(const json_spirit::Value& v) { return json_spirit::write_string(v); }

/// The back-off waits of the repeat loop, recorded instead of slept.
struct Recorded_Waits
{
  Recorded_Waits()
  {
    waits().clear();
    retry_sleeper(&record);
  }
  ~Recorded_Waits() { retry_sleeper(nullptr); }
  static std::vector<unsigned int>& waits()
  {
    static std::vector<unsigned int> w;
    return w;
  }
  static void record(unsigned int seconds) { waits().push_back(seconds); }
};

/// A session on 127.0.0.1 with short limits, for the scripted server.
inline HTTP_Session_Ptr local_session(unsigned short port, int read_timeout = 10)
{
  return HTTP_Session_Factory::create("127.0.0.1", port, false, nullptr, 3, nullptr, false, 10, read_timeout, 0, 0);
}

/// A TLS session on 127.0.0.1 that trusts what context trusts, or, without
/// a context, any certificate.
inline HTTP_Session_Ptr tls_session(unsigned short port, ACE_SSL_Context* context, const char* name = nullptr,
                                    int max_requests = 0, int read_timeout = 10)
{
  return HTTP_Session_Factory::create("127.0.0.1", port, true, name, 3, context, !context, 10, read_timeout, 0,
                                      max_requests);
}

/// A client context that trusts one certificate.
inline ACE_SSL_Context* trusting(const std::string& certificate)
{
  ACE_SSL_Context* context = new ACE_SSL_Context;
  context->set_mode(ACE_SSL_Context::SSLv23_client);
  context->load_trusted_ca(certificate.c_str());
  return context;
}

/// The whole body of a response whose head has been read, through blocks of
/// the given size; pieces counts the reads that gave data.
inline std::string read_all(HTTP_Connection& connection, size_t block_size, int* pieces = nullptr)
{
  std::string body;
  ACE_Message_Block block(block_size);
  while (connection.state() != HTTP_Connection::STATE_BODY_END && connection.state() != HTTP_Connection::STATE_CLOSED)
  {
    block.reset();
    if (connection.read_body(&block) == -1)
      break;
    if (block.length() && pieces)
      ++*pieces;
    body.append(block.rd_ptr(), block.length());
  }
  return body;
}

/// Peak resident size of this process, in bytes.
inline long long peak_rss()
{
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<long long>(usage.ru_maxrss) * 1024;
}

// Sanitizers' shadow memory makes resident-memory figures meaningless.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HTTP_TEST_UNDER_ASAN 1
#else
#define HTTP_TEST_UNDER_ASAN 0
#endif

#endif
