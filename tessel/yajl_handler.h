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
  /// Events delivered so far, counted by the same callbacks.
  unsigned long long event_count;
};

/// Callback table that routes every event to the YAJL_Handler given as the
/// parser's context. Numbers arrive as raw text through handle_number_i.
TESSEL_EXPORT yajl_callbacks const* get_yajl_default_callbacks();

/// Hands pieces of input to yajl_parse in linear time. YAJL reads the
/// buffered start of an unfinished token again on every call, so a long
/// string fed in small pieces would cost time quadratic in its length.
/// While the pieces bring no event, they are gathered here until there is
/// as much as YAJL holds, and then fed at once. Events come in the same
/// order, only later.
class TESSEL_EXPORT YAJL_Feeder
{
public:
  YAJL_Feeder();
  ~YAJL_Feeder();
  YAJL_Feeder(const YAJL_Feeder&) = delete;
  YAJL_Feeder& operator=(const YAJL_Feeder&) = delete;
  /// Drops what was gathered; for a new parse handle.
  void reset();
  /// A parse handle with the default callbacks and handler as their
  /// context. A parser opens one per message: the handle's few small
  /// blocks come from those the last handle freed instead of from malloc.
  /// It must be freed before the feeder.
  yajl_handle alloc_handle(YAJL_Handler& handler);
  /// Feeds one piece to handle, whose context is handler; data null or
  /// length 0 finishes the parse with yajl_complete_parse.
  yajl_status feed(yajl_handle handle, YAJL_Handler& handler, char const* data, unsigned long long length);
  /// The text of the last yajl_parse call, for YAJL_Error; null after a
  /// failed yajl_complete_parse.
  char const* data() const { return data_; }
  unsigned long long length() const { return length_; }

private:
  std::string carry_;
  bool carry_fed_;
  unsigned long long quiet_; // bytes fed since the last event
  char const* data_;
  unsigned long long length_;

  static void* block_malloc(void* ctx, size_t size);
  static void* block_realloc(void* ctx, void* block, size_t size);
  static void block_free(void* ctx, void* block);
  // A handle takes six blocks, the largest 2 KB; its buffers grow with
  // long tokens, and only blocks up to kept_size are kept.
  static const size_t kept_blocks = 8;
  static const size_t kept_size = 4096;
  void* blocks_[kept_blocks];
  size_t block_count_;
  yajl_alloc_funcs alloc_funcs_;
};

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
