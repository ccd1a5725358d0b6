#ifndef JSON_SPIRIT_WRITER_H
#define JSON_SPIRIT_WRITER_H

#include "json_spirit/json_spirit_export.h"
#include "json_spirit/json_spirit_value.h"
#include "tessel/yajl_gen.h"

#include <string>

/// Emits value on gen. 0 on success, otherwise the first refused yajl status
/// (a real that is not finite, nesting beyond YAJL's limit, a bad position).
JSON_SPIRIT_EXPORT int yajl_gen_value(yajl_gen_t* gen, const json_spirit::Value& value);

/// Writes whole documents to a printer, compact unless pretty.
class JSON_SPIRIT_EXPORT JSON_Writer
{
public:
  bool write(const json_spirit::Value& value, YAJL_Printer& printer, bool pretty = false);
  bool write(JSON_Generator& generator, YAJL_Printer& printer, bool pretty = false);
};

/// Text of a value for log lines; valid while the object lives.
class JSON_SPIRIT_EXPORT JSON_Dump
{
public:
  explicit JSON_Dump(const json_spirit::Value& value, bool pretty = false);
  char const* c_str() const { return text_.c_str(); }
  const std::string& str() const { return text_; }

private:
  std::string text_;
};

namespace json_spirit
{
  /// The compact text of value.
  JSON_SPIRIT_EXPORT std::string write_string(const Value& value);
}

#endif
