#ifndef JSON_SPIRIT_READER_H
#define JSON_SPIRIT_READER_H

#include "json_spirit/json_spirit_export.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/yajl_handler.h"

#include <string>
#include <vector>

namespace json_spirit
{
  /// Turns a number token, as YAJL gives it, into an integer Value (type 5)
  /// or, with a fraction or exponent or beyond 64 bits, a real (type 6).
  /// Integers above LLONG_MAX up to ULLONG_MAX stay integers (unsigned).
  /// False, with target untouched, for text that is no number or a real
  /// beyond the range of double.
  JSON_SPIRIT_EXPORT bool number_to_value(char const* text, unsigned long long length, Value& target);
}

/// Builds a json_spirit::Value from the YAJL events it receives.
///
/// result(target) names the value to fill. If the target is an empty object
/// or array at that moment, the parser fills it without an opening event,
/// and the event that closes it ends the value; otherwise the first event
/// makes the value. Documents nested deeper than json_spirit::max_depth are
/// refused with a log line.
class JSON_SPIRIT_EXPORT JSON_Parser : public YAJL_Handler
{
public:
  JSON_Parser();
  ~JSON_Parser() override;

  void result(json_spirit::Value* target);
  json_spirit::Value* result() const { return target_; }
  /// A whole value has been built into the target.
  bool complete() const { return complete_; }

  bool handle_null_i() override;
  bool handle_boolean_i(bool value) override;
  bool handle_integer_i(long long value) override;
  bool handle_double_i(double value) override;
  bool handle_number_i(char const* text, unsigned long long length) override;
  bool handle_string_i(char const* text, unsigned long long length) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(char const* text, unsigned long long length) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

private:
  // A container being read. An object takes its members at once; an
  // array's elements wait in items_ and are moved into an array of their
  // size when it closes (or it takes items_' own buffer), so that a small
  // array is allocated once and a large one is not grown twice.
  struct Frame
  {
    json_spirit::Object* object; // null for an array
    size_t first;                // an array's first element in items_
    json_spirit::Value* place;   // where a closed array goes, or null...
    size_t index;                // ...for the element items_[index]
  };

  // Where the next value goes; null when nothing can take one. Valid
  // until the next event.
  json_spirit::Value* slot();
  bool add(json_spirit::Value&& value);
  bool open(bool object);
  bool close(bool object);
  void reset();

  json_spirit::Value* target_;
  std::vector<Frame> frames_;
  std::vector<json_spirit::Value> items_;
  std::string key_;
  bool complete_;
};

/// Reads one JSON text, fed in pieces, into a Value. Order of use: open(),
/// result(&v), read(data, length) per piece, read(nullptr, 0) to finish.
class JSON_SPIRIT_EXPORT JSON_Reader : public JSON_Parser
{
public:
  JSON_Reader();
  ~JSON_Reader() override;
  JSON_Reader(const JSON_Reader&) = delete;
  JSON_Reader& operator=(const JSON_Reader&) = delete;

  bool open();
  void close();
  /// True while the text is valid; the finishing call is true when a whole
  /// document was read. A refusal is logged (with YAJL's context when
  /// verbose is not 0).
  bool read(char const* data, unsigned long long length, int verbose = 1);

private:
  yajl_handle handle_;
  YAJL_Feeder feeder_;
};

namespace json_spirit
{
  /// Reads a whole text into value; false (logged) if it is not one JSON document.
  JSON_SPIRIT_EXPORT bool read_string(const std::string& text, Value& value);
}

#endif
