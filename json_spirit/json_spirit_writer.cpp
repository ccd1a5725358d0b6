#include "json_spirit/json_spirit_writer.h"

#include <charconv>
#include <cmath>
#include <cstring>

using json_spirit::Value;

namespace
{
  int gen_real(yajl_gen_t* gen, double d)
  {
    if (!std::isfinite(d))
      return yajl_gen_invalid_number;
    // Shortest text that reads back to the same double, kept a real.
    char buffer[40];
    auto r = std::to_chars(buffer, buffer + sizeof buffer - 2, d);
    size_t n = r.ptr - buffer;
    if (!std::memchr(buffer, '.', n) && !std::memchr(buffer, 'e', n))
    {
      buffer[n++] = '.';
      buffer[n++] = '0';
    }
    return yajl_gen_number(gen, buffer, n);
  }
}

int yajl_gen_value(yajl_gen_t* gen, const Value& value)
{
  if (!gen)
    return yajl_gen_invalid_string;
  switch (value.type())
  {
  case json_spirit::null_type: return yajl_gen_null(gen);
  case json_spirit::bool_type: return yajl_gen_bool(gen, value.get_bool());
  case json_spirit::int_type:
    if (value.is_unsigned())
    {
      char buffer[24];
      auto r = std::to_chars(buffer, buffer + sizeof buffer, value.get_uint64());
      return yajl_gen_number(gen, buffer, r.ptr - buffer);
    }
    {
      // yajl_gen_integer formats with sprintf.
      char buffer[24];
      auto r = std::to_chars(buffer, buffer + sizeof buffer, value.get_int64());
      return yajl_gen_number(gen, buffer, r.ptr - buffer);
    }
  case json_spirit::real_type: return gen_real(gen, value.get_real());
  case json_spirit::str_type:
  {
    const std::string& s = value.get_str();
    return yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(s.data()), s.size());
  }
  case json_spirit::array_type:
  {
    int status = yajl_gen_array_open(gen);
    for (const Value& item : value.get_array())
      if (status == yajl_gen_status_ok)
        status = yajl_gen_value(gen, item);
    return status == yajl_gen_status_ok ? yajl_gen_array_close(gen) : status;
  }
  case json_spirit::obj_type:
  {
    int status = yajl_gen_map_open(gen);
    for (const auto& member : value.get_obj())
    {
      if (status != yajl_gen_status_ok)
        break;
      status = yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(member.first.data()), member.first.size());
      if (status == yajl_gen_status_ok)
        status = yajl_gen_value(gen, member.second);
    }
    return status == yajl_gen_status_ok ? yajl_gen_map_close(gen) : status;
  }
  }
  return yajl_gen_invalid_string;
}

namespace
{
  // YAJL prints token by token: the batch gathers the tokens into pieces.
  yajl_gen_t* open_gen(YAJL_Batch_Printer& batch, bool pretty)
  {
    yajl_gen_t* gen = yajl_gen_alloc(nullptr);
    if (!gen)
      return nullptr;
    yajl_gen_config(gen, yajl_gen_print_callback, &YAJL_Batch_Printer::print_b, &batch);
    if (pretty)
      yajl_gen_config(gen, yajl_gen_beautify, 1);
    return gen;
  }
}

bool JSON_Writer::write(const Value& value, YAJL_Printer& printer, bool pretty)
{
  YAJL_Batch_Printer batch(&printer);
  yajl_gen_t* gen = open_gen(batch, pretty);
  if (!gen)
    return false;
  int status = yajl_gen_value(gen, value);
  yajl_gen_free(gen);
  batch.flush();
  return status == yajl_gen_status_ok;
}

bool JSON_Writer::write(JSON_Generator& generator, YAJL_Printer& printer, bool pretty)
{
  YAJL_Batch_Printer batch(&printer);
  yajl_gen_t* gen = open_gen(batch, pretty);
  if (!gen)
    return false;
  bool ok = generator.generate(gen);
  yajl_gen_free(gen);
  batch.flush();
  return ok;
}

JSON_Dump::JSON_Dump(const Value& value, bool pretty)
{
  YAJL_String_Printer printer(&text_);
  JSON_Writer().write(value, printer, pretty);
}

namespace json_spirit
{
  std::string write_string(const Value& value) { return JSON_Dump(value).str(); }
}
