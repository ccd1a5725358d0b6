#ifndef TESSEL_JSON_CONF_T_H
#define TESSEL_JSON_CONF_T_H

#include "tessel/json_base_conf.h"

#include <ace/ARGV.h>
#include <ace/DLL.h>
#include <ace/DLL_Manager.h>
#include <ace/Log_Msg.h>

#include <cstring>
#include <string>

/// Loads each record of a handler configuration file: opens the record's
/// library, calls its factory, runs the object's init with the record's
/// params and enters it in the traits' table. A failed record leaves
/// nothing behind and the rest of the file is still read.
///
/// Traits give: `static const char* key()` (the key member), `static const
/// char* label()` (for log lines), `typedef ... Map` (a table with
/// instance() and insert) and `typedef ... Object`.
template <class Traits>
class JSON_Conf_T : public JSON_Base_Conf
{
public:
  typedef typename Traits::Object Object;
  typedef void (*Destroy)(void*);
  typedef Object* (*Factory)(Destroy*);

  JSON_Conf_T() : JSON_Base_Conf(Traits::key(), static_cast<unsigned int>(std::strlen(Traits::key()))) {}
  ~JSON_Conf_T() override {}

  bool handle_record() override;
};

template <class Traits>
bool JSON_Conf_T<Traits>::handle_record()
{
  const char* label = Traits::label();
  // Undoes a record that does not make it into the table.
  struct Guard
  {
    Guard() : keep(false), dll(false), object(nullptr), destroy(nullptr) {}
    ~Guard()
    {
      if (keep)
        return;
      if (object)
      {
        // Without a destroy function the object goes the way the table would free it.
        if (destroy)
          destroy(object);
        else
          delete object;
      }
      // ACE_DLL::close() gives the reference back only for an ACE_DLL that
      // closes on destruction, which this one must not be in case the
      // record is kept: so it goes back to the manager directly.
      if (!opened.empty())
        ACE_DLL_Manager::instance(1024)->close_dll(opened.c_str());
    }
    bool keep;
    ACE_DLL dll;
    Object* object;
    Destroy destroy;
    std::string opened;
  } guard;

  if (guard.dll.open(dll().c_str(), 2, false) != 0)
  {
    ACE_ERROR((LM_ERROR, "Unable to open dll '%C': %C\n", dll().c_str(), guard.dll.error()));
    return false;
  }
  guard.opened = dll();
  void* symbol = guard.dll.symbol(init().c_str(), 0);
  if (!symbol)
  {
    ACE_ERROR((LM_ERROR, "Unable to get symbol '%C' from dll '%C': %C\n", init().c_str(), dll().c_str(),
               guard.dll.error()));
    return false;
  }
  Factory factory = reinterpret_cast<Factory>(symbol);
  guard.object = factory(&guard.destroy);
  if (!guard.object)
  {
    ACE_ERROR((LM_ERROR, "Failed to create %C handler for method '%C': %m\n", label, key().c_str()));
    return false;
  }
  ACE_ARGV args(params().c_str(), true);
  int argc = params().empty() ? 0 : args.argc();
  char** argv = argc ? args.argv() : nullptr;
  if (guard.object->init(argc, argv) == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to init %C handler for method '%C': %m\n", label, key().c_str()));
    return false;
  }
  if (Traits::Map::instance()->insert(key(), dll(), guard.object, guard.destroy) == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to load %C handelr(uri='%C', dll='%C', init='%C', params='%C')\n", label,
               key().c_str(), dll().c_str(), init().c_str(), params().c_str()));
    return false;
  }
  guard.keep = true;
  ACE_DEBUG((LM_DEBUG, "Loaded %C handler(uri='%C', dll='%C', init='%C', params='%C')\n", label, key().c_str(),
             dll().c_str(), init().c_str(), params().c_str()));
  return true;
}

#endif
