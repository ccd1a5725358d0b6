#ifndef TESSEL_HTTP_URI_MAP_H
#define TESSEL_HTTP_URI_MAP_H

#include "tessel/tessel_export.h"

#include <ace/RW_Thread_Mutex.h>

#include <map>
#include <string>

/// A process-wide table from request URI to a text, safe for concurrent use.
class TESSEL_EXPORT HTTP_URI_Map
{
public:
  HTTP_URI_Map();
  virtual ~HTTP_URI_Map();

  int bind(const std::string& uri, const std::string& value);
  int unbind(const std::string& uri);
  /// The text for uri, or empty.
  std::string find(const std::string& uri) const;

private:
  std::map<std::string, std::string> map_;
  mutable ACE_RW_Thread_Mutex lock_;
};

/// URIs that the HTTP client answers from a local file instead of the network.
class TESSEL_EXPORT HTTP_File_URI_Map : public HTTP_URI_Map
{
public:
  static HTTP_File_URI_Map* instance();
  static void close_instance();
};

/// URIs that the HTTP client sends to another URL.
class TESSEL_EXPORT HTTP_Redirect_URI_Map : public HTTP_URI_Map
{
public:
  static HTTP_Redirect_URI_Map* instance();
  static void close_instance();
};

#endif
