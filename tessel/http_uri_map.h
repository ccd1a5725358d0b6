#ifndef TESSEL_HTTP_URI_MAP_H
#define TESSEL_HTTP_URI_MAP_H

#include "tessel/tessel_export.h"

#include <ace/RW_Thread_Mutex.h>

#include <atomic>
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
  /// True when nothing is bound: the client then skips the lookup.
  bool empty() const { return size_.load(std::memory_order_relaxed) == 0; }

private:
  std::map<std::string, std::string> map_;
  std::atomic<size_t> size_;
  mutable ACE_RW_Thread_Mutex lock_;
};

/// URIs that HTTP_Session::begin_request answers from a local file instead
/// of the network: the text is the file's path. The answer is 200 with the
/// file's bytes (Content-Type application/json for a name ending in .json,
/// application/octet-stream otherwise), or 404 without a body when the file
/// can't be read; a request body written to it is dropped. The key is the
/// request URI exactly as the request gives it, query included.
class TESSEL_EXPORT HTTP_File_URI_Map : public HTTP_URI_Map
{
public:
  static HTTP_File_URI_Map* instance();
  static void close_instance();
};

/// URIs that the HTTP client sends elsewhere: the text is another path on
/// the same server ("/v2/items") or a whole URL ("https://host:8443/items"),
/// which gets a connection of its own with the session's settings. It
/// applies to every request, the form requests too, before the file map.
class TESSEL_EXPORT HTTP_Redirect_URI_Map : public HTTP_URI_Map
{
public:
  static HTTP_Redirect_URI_Map* instance();
  static void close_instance();
};

#endif
