#ifndef JSON_RPC_GENERATOR_H
#define JSON_RPC_GENERATOR_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "tessel/yajl_gen.h"

#include <string>

/// Serialises messages to a printer, compact, one fresh generator per write.
/// Member order: jsonrpc, id, then method and params, result, or error.
class JSON_RPC_EXPORT JSON_RPC_Writer
{
public:
  JSON_RPC_Writer();
  ~JSON_RPC_Writer();
  JSON_RPC_Writer(const JSON_RPC_Writer&) = delete;
  JSON_RPC_Writer& operator=(const JSON_RPC_Writer&) = delete;

  /// A generator printing to printer as each token is made. The writer
  /// keeps the generator for its next message: after close() the handle
  /// prints nowhere, and the writer never prints into printer again.
  yajl_gen_t* open(YAJL_Printer& printer);
  void close();

  /// One whole message each, batched 4 KiB at a time into printer; all of
  /// it is there when they return. False only without a generator or for
  /// an object of no known type.
  bool write(JSON_RPC_Object const& object, YAJL_Printer& printer);
  bool write(JSON_Generator& generator, YAJL_Printer& printer);

private:
  yajl_gen_t* open_i(YAJL_Printer& printer, bool batched);
  static void print_w(void* ctx, const char* data, size_t length);

  yajl_gen_t* gen_;
  YAJL_Printer* printer_; // null while closed
  bool batched_;
  YAJL_Batch_Printer batch_;
};

/// A generator of one message: the map with "jsonrpc":"2.0", the rest from
/// generate_i.
class JSON_RPC_EXPORT JSON_RPC_Object_Generator : public JSON_Generator
{
public:
  JSON_RPC_Object_Generator();
  ~JSON_RPC_Object_Generator() override;
  bool generate(yajl_gen_t* gen) override;
};

/// A request whose params are produced by another generator while the
/// request is written, so that they need never exist as a tree.
class JSON_RPC_EXPORT JSON_RPC_Request_Generator : public JSON_RPC_Object_Generator
{
public:
  /// params may be null (written as null); it is not owned.
  JSON_RPC_Request_Generator(char const* method, JSON_Generator* params);
  ~JSON_RPC_Request_Generator() override;

  /// The request id, fixed at construction.
  std::string const& id() const { return id_; }
  bool generate_i(YAJL_Gen& gen) override;

private:
  std::string method_;
  std::string id_;
  JSON_Generator* params;
};

#endif
