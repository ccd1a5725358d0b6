// The libjson-rpc-cpp side of the comparative benchmarks, behind an
// interface of standard types only: its headers need C++14 (dynamic
// exception specifications), so they stay in reference.cpp.
#ifndef BENCH_REFERENCE_H
#define BENCH_REFERENCE_H

#include <memory>
#include <string>

namespace reference
{
  /// Its server with an "echo" method on a connector whose OnRequest takes
  /// the request text; the response text is kept.
  class In_Process
  {
  public:
    In_Process();
    ~In_Process();
    /// The response to request; empty if none came.
    const std::string& call(const std::string& request);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
  };

  /// Its HTTP server (libmicrohttpd) on 127.0.0.1:port with the same
  /// "echo" method; threads is the size of its thread pool.
  class Http_Server
  {
  public:
    Http_Server(int port, int threads);
    ~Http_Server();
    bool start();
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
  };

  /// Its HTTP client (libcurl, one handle kept alive) calling "echo" with
  /// params given as JSON text.
  class Http_Client
  {
  public:
    Http_Client(const std::string& url, const std::string& params);
    ~Http_Client();
    /// One call; false if it failed.
    bool call();
    /// The result of the last call is the params.
    bool check() const;
    /// The last failure, for a message.
    const std::string& error() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
  };
}

#endif
