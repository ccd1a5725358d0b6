#include "tessel/http_uri_map.h"

#include <ace/Guard_T.h>
#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

HTTP_URI_Map::HTTP_URI_Map() {}
HTTP_URI_Map::~HTTP_URI_Map() {}

int HTTP_URI_Map::bind(const std::string& uri, const std::string& value)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  map_[uri] = value;
  return 0;
}

int HTTP_URI_Map::unbind(const std::string& uri)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  return map_.erase(uri) ? 0 : -1;
}

std::string HTTP_URI_Map::find(const std::string& uri) const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, std::string());
  auto i = map_.find(uri);
  return i == map_.end() ? std::string() : i->second;
}

HTTP_File_URI_Map* HTTP_File_URI_Map::instance()
{
  return ACE_Unmanaged_Singleton<HTTP_File_URI_Map, ACE_Null_Mutex>::instance();
}

void HTTP_File_URI_Map::close_instance() { ACE_Unmanaged_Singleton<HTTP_File_URI_Map, ACE_Null_Mutex>::close(); }

HTTP_Redirect_URI_Map* HTTP_Redirect_URI_Map::instance()
{
  return ACE_Unmanaged_Singleton<HTTP_Redirect_URI_Map, ACE_Null_Mutex>::instance();
}

void HTTP_Redirect_URI_Map::close_instance()
{
  ACE_Unmanaged_Singleton<HTTP_Redirect_URI_Map, ACE_Null_Mutex>::close();
}
