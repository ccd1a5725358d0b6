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

/// Hands pieces of input to yajl_parse as they come, in linear time.
/// YAJL reads the buffered start of an unfinished token again on every
/// call, so a long string fed in small pieces would cost time quadratic in
/// its length. The feeder follows where the text stands between tokens:
/// a piece that lies wholly inside one token (and so could bring no event
/// and no error) is kept, and fed with the piece that ends the token. Every
/// other piece goes to YAJL at once, so events fire and syntax errors show
/// in the call that feeds the bytes they need.
class TESSEL_EXPORT YAJL_Feeder
{
public:
  YAJL_Feeder();
  ~YAJL_Feeder();
  YAJL_Feeder(const YAJL_Feeder&) = delete;
  YAJL_Feeder& operator=(const YAJL_Feeder&) = delete;
  /// Forgets the text so far; for a new parse handle.
  void reset();
  /// A parse handle with the default callbacks and handler as their
  /// context. A parser opens one per message: the handle's few small
  /// blocks come from those the last handle freed instead of from malloc.
  /// It must be freed before the feeder.
  yajl_handle alloc_handle(YAJL_Handler& handler);
  /// Feeds one piece to handle; data null or length 0 finishes the parse
  /// with yajl_complete_parse.
  yajl_status feed(yajl_handle handle, char const* data, unsigned long long length);
  /// The text of the last yajl_parse call, for YAJL_Error; null after a
  /// failed yajl_complete_parse.
  char const* data() const { return data_; }
  unsigned long long length() const { return length_; }

private:
  /// Follows the lexical state through a piece: true unless the piece
  /// starts inside a token and ends inside the same one.
  bool scan(const unsigned char* p, const unsigned char* end);
  yajl_status parse(yajl_handle handle, char const* data, unsigned long long length);

  std::string carry_; // pieces inside one token, not yet fed
  bool carry_fed_;
  // A small first piece, fed but not yet scanned: a message that comes
  // whole never needs its end state, one that goes on scans it first.
  std::string unscanned_;
  static const size_t unscanned_limit = 4096;
  int lex_;
  int lex_left_;     // hex digits or UTF-8 continuation bytes still due
  bool odd_blank_;   // a form feed or vertical tab between tokens
  char const* data_;
  unsigned long long length_;

  static void* block_malloc(void* ctx, size_t size);
  static void* block_realloc(void* ctx, void* block, size_t size);
  static void block_free(void* ctx, void* block);
  // The handle's memory comes from blocks the thread keeps.
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
