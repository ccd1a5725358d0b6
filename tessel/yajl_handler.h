#ifndef TESSEL_YAJL_HANDLER_H
#define TESSEL_YAJL_HANDLER_H

#include "tessel/tessel_export.h"

#include <string>
#include <yajl/yajl_parse.h>

/// Receiver of YAJL parse events. The callbacks of get_yajl_default_callbacks()
/// record the event number in `callback` before they call the virtual step.
class TESSEL_EXPORT YAJL_Handler
{
public:
  enum Event
  {
    EVENT_NONE = 0,
    EVENT_NULL = 1,
    EVENT_BOOLEAN = 2,
    EVENT_INTEGER = 3,
    EVENT_DOUBLE = 4,
    EVENT_NUMBER = 5,
    EVENT_STRING = 6,
    EVENT_START_MAP = 7,
    EVENT_MAP_KEY = 8,
    EVENT_END_MAP = 9,
    EVENT_START_ARRAY = 10,
    EVENT_END_ARRAY = 11
  };

  YAJL_Handler();
  virtual ~YAJL_Handler();

  // Each returns true to go on, false to stop the parse. The defaults accept
  // and ignore the event.
  virtual bool handle_null_i();
  virtual bool handle_boolean_i(bool value);
  virtual bool handle_integer_i(long long value);
  virtual bool handle_double_i(double value);
  virtual bool handle_number_i(char const* text, unsigned long long length);
  virtual bool handle_string_i(char const* text, unsigned long long length);
  virtual bool handle_start_map_i();
  virtual bool handle_map_key_i(char const* text, unsigned long long length);
  virtual bool handle_end_map_i();
  virtual bool handle_start_array_i();
  virtual bool handle_end_array_i();

  unsigned int callback;
};

/// Callback table that routes every event to the YAJL_Handler given as the
/// parser's context. Numbers arrive as raw text through handle_number_i.
TESSEL_EXPORT yajl_callbacks const* get_yajl_default_callbacks();

/// The error text of a YAJL parse handle, freed with the object.
class TESSEL_EXPORT YAJL_Error
{
public:
  YAJL_Error(yajl_handle handle, bool verbose, char const* text, unsigned long long length);
  ~YAJL_Error();
  YAJL_Error(const YAJL_Error&) = delete;
  YAJL_Error& operator=(const YAJL_Error&) = delete;

  char const* c_str() const;

private:
  yajl_handle handle_;
  unsigned char* text_;
};

#endif
