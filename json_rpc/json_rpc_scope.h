// Opens the library's singletons in order for a program, and closes them in order.
#ifndef JSON_RPC_SCOPE_H
#define JSON_RPC_SCOPE_H

#include "json_rpc/json_rpc_export.h"

#include <cstddef>

/// The library's life in a program that serves or calls in code, without
/// ACE's service configurator: make one JSON_RPC_Scope at the top of main,
/// before the methods are added and before the first transport
/// (TCP_Server, TCP_Client, TCP_Connector) starts, and let it go after
/// the last one has stopped. It creates the singletons (the registers, the
/// dispatcher, the handler tables) in the order that they need, starts the
/// shared pool of workers if asked, and at the end stops the pool and
/// closes the singletons in the reverse order, which destroys the handlers.
///
///   int main()
///   {
///     JSON_RPC_Scope scope;               // first: closed last
///     add_json_rpc_method("add", ...);
///     TCP_Server server;                  // stopped before the scope closes
///     ...
///   }
///
/// One scope at a time: a second one while the first is open does nothing
/// (ok() is false, with a line at error priority), and close() after
/// close() does nothing. Don't mix a scope with JSON_RPC_Service, which
/// orders the same singletons itself (with the same functions).
class JSON_RPC_EXPORT JSON_RPC_Scope
{
public:
  /// pool_threads workers for the methods that run on the pool (0: no
  /// pool); the pool's queue holds queue_hwm calls, beyond which calls are
  /// refused with -32000 "Server busy".
  explicit JSON_RPC_Scope(size_t pool_threads = 0, size_t queue_hwm = 1024, size_t queue_lwm = 512);
  /// close().
  ~JSON_RPC_Scope();
  JSON_RPC_Scope(const JSON_RPC_Scope&) = delete;
  JSON_RPC_Scope& operator=(const JSON_RPC_Scope&) = delete;

  /// True when this scope opened the library and, if asked, started the
  /// pool; false for a second scope or a pool that could not start (the
  /// singletons then exist all the same, until close()).
  bool ok() const { return ok_; }
  /// Stops the pool, forgets the global channel and closes the singletons.
  /// Every transport must have stopped: the handler tables give plain
  /// pointers. Once only; later calls, and a scope that was refused, do
  /// nothing.
  void close();
  /// True while a scope has the library open.
  static bool is_open();

  /// Creates the library's singletons, in this order: JSON_RESTful_Request_Map,
  /// JSON_RPC_Params_Handler_Map, JSON_RPC_Request_Map, JSON_RPC_Response_Map,
  /// JSON_RPC_Channel_Map, JSON_RPC_Channel_Pool, JSON_RPC_Dispatcher,
  /// JSON_RPC_Notify_Manager, HTTP_File_URI_Map, HTTP_Redirect_URI_Map.
  /// Those that exist are kept. Call it on one thread, before any thread
  /// uses them (what JSON_RPC_Service::init does first).
  static void open_singletons();
  /// Closes them: the reverse order, but the two HTTP maps last and in the
  /// order of their creation (what JSON_RPC_Service::fini does after the
  /// pool). Transports must be quiet.
  static void close_singletons();

private:
  bool owner_;
  bool ok_;
  bool pool_;
};

#endif
