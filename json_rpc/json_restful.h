#ifndef JSON_RESTFUL_H
#define JSON_RESTFUL_H

#include "json_rpc/json_rpc_export.h"
#include "tessel/dll_object_manager_t.h"
#include "tessel/utils.h"

#include <ace/Lock.h>
#include <ace/Null_Mutex.h>

#include <string>

/// The peer of a REST exchange as a handler sees it. The embedding HTTP
/// server implements it; it can serve as an IO_Base sink.
class JSON_RPC_EXPORT JSON_RESTful_Channel : public IO_Base
{
public:
  ~JSON_RESTful_Channel() override;
  virtual std::string method() const = 0;
  virtual std::string uri() const = 0;
  virtual std::string header(const char* name) const = 0;
  /// Reads request body bytes; 0 at the end, -1 on failure.
  virtual ssize_t read(char* data, size_t length) = 0;
  virtual int status(int code) = 0;
  virtual int put_header(const char* name, const char* value) = 0;
  /// The channel's lock, if it has one.
  virtual ACE_Lock* mutex();
};

/// The code behind one URI.
class JSON_RPC_EXPORT JSON_RESTful_Handler
{
public:
  virtual ~JSON_RESTful_Handler();
  virtual int init(int argc, char** argv);
  virtual int fini();
  virtual int concurrency() const;
  virtual int handle_exchange(JSON_RESTful_Channel& channel) = 0;
};

/// What a REST handler library hands over: it makes handlers, and keeps
/// its own copy of the arguments its record gave.
template <class T>
class Object_Creator_T
{
public:
  Object_Creator_T() : argc(0), argv(nullptr) {}
  virtual ~Object_Creator_T() { clear(); }
  Object_Creator_T(const Object_Creator_T&) = delete;
  Object_Creator_T& operator=(const Object_Creator_T&) = delete;

  virtual int init(int count, char** args);
  virtual int fini() { return 0; }
  virtual T* create() = 0;
  virtual void destroy(T* object) = 0;

  void clear();

  int argc;
  char** argv;
};

/// URI to REST handler creator; made by the first REST record loaded.
class JSON_RPC_EXPORT JSON_RESTful_Handler_Creator_Map
  : public DLL_Object_Manager_T<Object_Creator_T<JSON_RESTful_Handler>, void (*)(void*), ACE_Null_Mutex,
                                DLL_Object_Manager_Default_Tag>
{
public:
  JSON_RESTful_Handler_Creator_Map();
  ~JSON_RESTful_Handler_Creator_Map() override;
  static JSON_RESTful_Handler_Creator_Map* instance();
  static void close_instance();
};

/// URI to REST handler, kept alive for the embedding server.
class JSON_RPC_EXPORT JSON_RESTful_Request_Map
  : public DLL_Object_Manager_T<JSON_RESTful_Handler, void (*)(void*), ACE_Null_Mutex, DLL_Object_Manager_Default_Tag>
{
public:
  JSON_RESTful_Request_Map();
  ~JSON_RESTful_Request_Map() override;
  static JSON_RESTful_Request_Map* instance();
  static void close_instance();
};

extern template class JSON_RPC_EXPORT Object_Creator_T<JSON_RESTful_Handler>;

#endif
