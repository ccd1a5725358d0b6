#ifndef TESSEL_DLL_OBJECT_MANAGER_T_H
#define TESSEL_DLL_OBJECT_MANAGER_T_H

#include <ace/DLL_Manager.h>
#include <ace/Guard_T.h>
#include <ace/Null_Mutex.h>

#include <map>
#include <string>
#include <utility>

struct DLL_Object_Manager_Default_Tag
{
};

/// Owner of one object made by a handler library: the object goes first,
/// then the entry's reference on its library.
template <class T, class Deleter>
class DLL_Object_Entry
{
public:
  DLL_Object_Entry() : object(nullptr), deleter(nullptr) {}
  DLL_Object_Entry(std::string const& d, T* o, Deleter del) : dll(d), object(o), deleter(del) {}
  DLL_Object_Entry(DLL_Object_Entry&& other) noexcept
    : dll(std::move(other.dll)), object(other.object), deleter(other.deleter)
  {
    other.object = nullptr;
    other.deleter = nullptr;
    other.dll.clear();
  }
  DLL_Object_Entry& operator=(DLL_Object_Entry&& other) noexcept
  {
    if (this != &other)
    {
      release();
      dll = std::move(other.dll);
      object = other.object;
      deleter = other.deleter;
      other.object = nullptr;
      other.deleter = nullptr;
      other.dll.clear();
    }
    return *this;
  }
  DLL_Object_Entry(const DLL_Object_Entry&) = delete;
  DLL_Object_Entry& operator=(const DLL_Object_Entry&) = delete;
  ~DLL_Object_Entry() { release(); }

  void release()
  {
    if (!object)
      return;
    if (deleter)
      deleter(object);
    else
      delete object;
    object = nullptr;
    deleter = nullptr;
    if (!dll.empty())
    {
      ACE_DLL_Manager::instance(1024)->close_dll(dll.c_str());
      dll.clear();
    }
  }

  std::string dll;
  T* object;
  Deleter deleter;
};

/// A table of objects from handler libraries, keyed by method name or URI.
/// Filled at start, read-only afterwards; entries live until the table goes.
template <class T, class Deleter, class Mutex, class Tag = DLL_Object_Manager_Default_Tag>
class DLL_Object_Manager_T
{
public:
  typedef DLL_Object_Entry<T, Deleter> Entry;

  virtual ~DLL_Object_Manager_T()
  {
    // Entries go in key order, each object before its library.
    while (!objects.empty())
      objects.erase(objects.begin());
  }

  /// 0 if added (the table then owns object and one library reference);
  /// -1 if the key is taken, and the caller keeps the object.
  int insert(std::string const& key, std::string const& dll, T* object, Deleter deleter)
  {
    ACE_GUARD_RETURN(Mutex, guard, mutex, -1);
    if (objects.find(key) != objects.end())
      return -1;
    objects.emplace(key, Entry(dll, object, deleter));
    return 0;
  }

  T* find(std::string const& key)
  {
    ACE_GUARD_RETURN(Mutex, guard, mutex, nullptr);
    typename std::map<std::string, Entry>::iterator i = objects.find(key);
    return i == objects.end() ? nullptr : i->second.object;
  }

  Mutex mutex;
  std::map<std::string, Entry> objects;
};

#endif
