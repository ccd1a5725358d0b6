#include "json_rpc/json_restful.h"

#include "tessel/singleton.h"

#include <cstdlib>
#include <cstring>
#include <new>

JSON_RESTful_Channel::~JSON_RESTful_Channel() {}
ACE_Lock* JSON_RESTful_Channel::mutex() { return nullptr; }

JSON_RESTful_Handler::~JSON_RESTful_Handler() {}
int JSON_RESTful_Handler::init(int, char**) { return 0; }
int JSON_RESTful_Handler::fini() { return 0; }
int JSON_RESTful_Handler::concurrency() const { return 0; }

template <class T>
int Object_Creator_T<T>::init(int count, char** args)
{
  clear();
  argc = count;
  if (!args)
    return 0;
  argv = static_cast<char**>(std::calloc(count > 0 ? count : 1, sizeof(char*)));
  if (!argv)
    return -1;
  for (int i = 0; i < count; ++i)
    if (!(argv[i] = strdup(args[i] ? args[i] : "")))
      return -1;
  return 0;
}

template <class T>
void Object_Creator_T<T>::clear()
{
  if (argv)
  {
    for (int i = 0; i < argc; ++i)
      std::free(argv[i]);
    std::free(argv);
    argv = nullptr;
  }
  argc = 0;
}

template class Object_Creator_T<JSON_RESTful_Handler>;

JSON_RESTful_Handler_Creator_Map::JSON_RESTful_Handler_Creator_Map() {}
JSON_RESTful_Handler_Creator_Map::~JSON_RESTful_Handler_Creator_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RESTful_Handler_Creator_Map)

JSON_RESTful_Request_Map::JSON_RESTful_Request_Map() {}
JSON_RESTful_Request_Map::~JSON_RESTful_Request_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RESTful_Request_Map)
