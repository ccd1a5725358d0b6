// libjson-rpc-cpp as Debian ships it (0.7), doing what the benchmarks ask
// of our library. Compiled as C++14: its client headers use dynamic
// exception specifications.
#include "reference.h"

#include <jsonrpccpp/client.h>
#include <jsonrpccpp/client/connectors/httpclient.h>
#include <jsonrpccpp/server.h>
#include <jsonrpccpp/server/connectors/httpserver.h>

namespace reference
{
  namespace
  {
    // Keeps the response instead of sending it anywhere.
    class Memory_Connector : public jsonrpc::AbstractServerConnector
    {
    public:
      bool StartListening() override { return true; }
      bool StopListening() override { return true; }
      bool SendResponse(const std::string& response, void*) override
      {
        this->response = response;
        return true;
      }
      std::string response;
    };

    class Echo_Server : public jsonrpc::AbstractServer<Echo_Server>
    {
    public:
      explicit Echo_Server(jsonrpc::AbstractServerConnector& connector)
        : jsonrpc::AbstractServer<Echo_Server>(connector)
      {
        // No parameters declared: any object passes.
        bindAndAddMethod(jsonrpc::Procedure("echo", jsonrpc::PARAMS_BY_NAME, jsonrpc::JSON_OBJECT, NULL),
                         &Echo_Server::echo);
      }
      void echo(const Json::Value& params, Json::Value& result) { result = params; }
    };
  }

  struct In_Process::Impl
  {
    Impl() : server(connector) {}
    Memory_Connector connector;
    Echo_Server server;
  };

  In_Process::In_Process() : impl_(new Impl) {}
  In_Process::~In_Process() {}

  const std::string& In_Process::call(const std::string& request)
  {
    impl_->connector.response.clear();
    impl_->connector.OnRequest(request, nullptr);
    return impl_->connector.response;
  }

  struct Http_Server::Impl
  {
    Impl(int port, int threads) : connector(port, "", "", threads), server(connector) {}
    jsonrpc::HttpServer connector;
    Echo_Server server;
    bool listening = false;
  };

  Http_Server::Http_Server(int port, int threads) : impl_(new Impl(port, threads)) {}
  Http_Server::~Http_Server() { stop(); }

  bool Http_Server::start()
  {
    impl_->listening = impl_->server.StartListening();
    return impl_->listening;
  }

  void Http_Server::stop()
  {
    if (impl_->listening)
      impl_->server.StopListening();
    impl_->listening = false;
  }

  struct Http_Client::Impl
  {
    Impl(const std::string& url) : connector(url), client(connector) {}
    jsonrpc::HttpClient connector;
    jsonrpc::Client client;
    Json::Value params;
    Json::Value result;
    std::string error;
  };

  Http_Client::Http_Client(const std::string& url, const std::string& params) : impl_(new Impl(url))
  {
    Json::Reader().parse(params, impl_->params);
  }
  Http_Client::~Http_Client() {}

  bool Http_Client::call()
  {
    try
    {
      impl_->client.CallMethod("echo", impl_->params, impl_->result);
      return true;
    }
    catch (const jsonrpc::JsonRpcException& e)
    {
      impl_->error = e.what();
    }
    return false;
  }

  bool Http_Client::check() const { return impl_->result == impl_->params; }

  const std::string& Http_Client::error() const { return impl_->error; }
}
