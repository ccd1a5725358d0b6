#include "tessel/http_uri_map.h"

#include <ace/Guard_T.h>
#include "tessel/singleton.h"

HTTP_URI_Map::HTTP_URI_Map() : size_(0) {}
HTTP_URI_Map::~HTTP_URI_Map() {}

int HTTP_URI_Map::bind(const std::string& uri, const std::string& value)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  map_[uri] = value;
  size_ = map_.size();
  return 0;
}

int HTTP_URI_Map::unbind(const std::string& uri)
{
  ACE_WRITE_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, -1);
  int result = map_.erase(uri) ? 0 : -1;
  size_ = map_.size();
  return result;
}

std::string HTTP_URI_Map::find(const std::string& uri) const
{
  ACE_READ_GUARD_RETURN(ACE_RW_Thread_Mutex, guard, lock_, std::string());
  auto i = map_.find(uri);
  return i == map_.end() ? std::string() : i->second;
}

TESSEL_DEFINE_SINGLETON(HTTP_File_URI_Map)

TESSEL_DEFINE_SINGLETON(HTTP_Redirect_URI_Map)
