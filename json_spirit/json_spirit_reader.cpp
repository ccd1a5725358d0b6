#include "json_spirit/json_spirit_reader.h"

#include <ace/Log_Msg.h>

#include <charconv>
#include <locale.h>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace json_spirit
{
  namespace
  {
    bool digits(const char*& p, const char* end)
    {
      const char* start = p;
      while (p != end && *p >= '0' && *p <= '9')
        ++p;
      return p != start;
    }

    // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)? and nothing else: strtod
    // alone would also take blanks, a plus sign, hex and "inf".
    bool json_number(const char* p, const char* end, bool& integral)
    {
      if (p != end && *p == '-')
        ++p;
      if (p != end && *p == '0')
        ++p;
      else if (p == end || *p < '1' || *p > '9' || !digits(p, end))
        return false;
      integral = true;
      if (p != end && *p == '.')
      {
        integral = false;
        if (!digits(++p, end))
          return false;
      }
      if (p != end && (*p == 'e' || *p == 'E'))
      {
        integral = false;
        if (++p != end && (*p == '+' || *p == '-'))
          ++p;
        if (!digits(p, end))
          return false;
      }
      return p == end;
    }
  }

  bool number_to_value(char const* text, unsigned long long length, Value& target)
  {
    if (!text || length == 0)
      return false;
    const char* end = text + length;
    bool integral = false;
    if (!json_number(text, end, integral))
      return false;
    if (integral)
    {
      long long i;
      auto r = std::from_chars(text, end, i);
      if (r.ec == std::errc() && r.ptr == end)
      {
        target = Value(i);
        return true;
      }
      if (r.ec == std::errc::result_out_of_range && *text != '-')
      {
        unsigned long long u;
        auto ru = std::from_chars(text, end, u);
        if (ru.ec == std::errc() && ru.ptr == end)
        {
          target = Value(u);
          return true;
        }
      }
      else if (r.ec != std::errc::result_out_of_range)
        return false;
    }
    // Reals, and integers beyond 64 bits. from_chars ignores the process's
    // locale; on a range error strtod_l in the C locale tells overflow
    // (refused) from underflow (zero or a subnormal).
    double d;
    auto r = std::from_chars(text, end, d);
    if (r.ec != std::errc() || r.ptr != end)
    {
      if (r.ec != std::errc::result_out_of_range)
        return false;
      static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
      std::string copy(text, length);
      d = strtod_l(copy.c_str(), nullptr, c_locale);
      if (!std::isfinite(d))
        return false;
    }
    target = Value(d);
    return true;
  }
}

using json_spirit::Value;

JSON_Parser::JSON_Parser() : target_(nullptr), complete_(false) {}
JSON_Parser::~JSON_Parser() {}

void JSON_Parser::reset()
{
  frames_.clear();
  // A reader lives as long as its stream: what one large array needed
  // is not kept for the next document.
  if (items_.capacity() > 4096)
    std::vector<Value>().swap(items_);
  else
    items_.clear();
  key_.clear();
}

void JSON_Parser::result(Value* target)
{
  target_ = target;
  reset();
  complete_ = false;
  if (!target)
    return;
  if (target->type() == json_spirit::obj_type && target->get_obj().empty())
    frames_.push_back(Frame{&target->get_obj(), 0, nullptr, 0});
  else if (target->type() == json_spirit::array_type && target->get_array().empty())
    frames_.push_back(Frame{nullptr, items_.size(), target, 0});
}

Value* JSON_Parser::slot()
{
  if (frames_.empty())
    return complete_ ? nullptr : target_;
  Frame& top = frames_.back();
  if (!top.object)
  {
    items_.emplace_back();
    return &items_.back();
  }
  // Members often come in key order (our writers emit them so): the hint
  // at the end then spares the search. A repeated key keeps its place and
  // takes the later value.
  json_spirit::Object& o = *top.object;
  return &o.emplace_hint(o.end(), std::move(key_), Value())->second;
}

bool JSON_Parser::add(Value&& value)
{
  Value* s = slot();
  if (!s)
    return false;
  *s = std::move(value);
  if (frames_.empty())
    complete_ = true;
  return true;
}

bool JSON_Parser::open(bool object)
{
  if (frames_.size() >= json_spirit::max_depth)
  {
    ACE_ERROR((LM_ERROR, "JSON nested deeper than %u levels refused.\n", json_spirit::max_depth));
    return false;
  }
  bool in_array = !frames_.empty() && !frames_.back().object;
  Value* s = slot();
  if (!s)
    return false;
  if (object)
  {
    *s = Value(json_spirit::Object());
    frames_.push_back(Frame{&s->get_obj(), 0, nullptr, 0});
  }
  else if (in_array)
    frames_.push_back(Frame{nullptr, items_.size(), nullptr, items_.size() - 1});
  else
    frames_.push_back(Frame{nullptr, items_.size(), s, 0});
  return true;
}

bool JSON_Parser::close(bool object)
{
  if (frames_.empty() || (frames_.back().object != nullptr) != object)
    return false;
  Frame top = frames_.back();
  frames_.pop_back();
  if (!object)
  {
    json_spirit::Array elements;
    if (top.first == 0 && items_.size() * 2 >= items_.capacity())
      // All that waits is this array's, and little room is spare: it takes
      // the buffer itself. A large array is then never copied (nor held
      // twice) at its end.
      elements.swap(items_);
    else
    {
      auto first = items_.begin() + static_cast<std::ptrdiff_t>(top.first);
      elements.assign(std::make_move_iterator(first), std::make_move_iterator(items_.end()));
      items_.erase(first, items_.end());
    }
    Value array(std::move(elements));
    *(top.place ? top.place : &items_[top.index]) = std::move(array);
  }
  if (frames_.empty())
  {
    complete_ = true;
    reset();
  }
  return true;
}

bool JSON_Parser::handle_null_i() { return add(Value()); }
bool JSON_Parser::handle_boolean_i(bool value) { return add(Value(value)); }
bool JSON_Parser::handle_integer_i(long long value) { return add(Value(value)); }
bool JSON_Parser::handle_double_i(double value) { return add(Value(value)); }

bool JSON_Parser::handle_number_i(char const* text, unsigned long long length)
{
  Value v;
  if (!json_spirit::number_to_value(text, length, v))
  {
    ACE_ERROR((LM_ERROR, "Number out of range refused: %C\n", std::string(text, length).c_str()));
    return false;
  }
  return add(std::move(v));
}

bool JSON_Parser::handle_string_i(char const* text, unsigned long long length)
{
  return add(Value(std::string(text, length)));
}

bool JSON_Parser::handle_start_map_i() { return open(true); }

bool JSON_Parser::handle_map_key_i(char const* text, unsigned long long length)
{
  if (frames_.empty() || !frames_.back().object)
    return false;
  key_.assign(text, length);
  return true;
}

bool JSON_Parser::handle_end_map_i() { return close(true); }
bool JSON_Parser::handle_start_array_i() { return open(false); }
bool JSON_Parser::handle_end_array_i() { return close(false); }

JSON_Reader::JSON_Reader() : handle_(nullptr) {}

JSON_Reader::~JSON_Reader() { close(); }

bool JSON_Reader::open()
{
  close();
  handle_ = feeder_.alloc_handle(*this);
  return handle_ != nullptr;
}

void JSON_Reader::close()
{
  if (handle_)
  {
    yajl_free(handle_);
    handle_ = nullptr;
  }
  feeder_.reset();
  result(nullptr);
}

bool JSON_Reader::read(char const* data, unsigned long long length, int verbose)
{
  if (!handle_)
    return false;
  bool finish = !data || length == 0;
  yajl_status status = feeder_.feed(handle_, data, length);
  if (status != yajl_status_ok)
  {
    YAJL_Error error(handle_, verbose != 0, feeder_.data(), feeder_.length());
    ACE_ERROR((LM_ERROR, "Failed to parse JSON: %C\n", error.c_str()));
    return false;
  }
  if (finish && !complete())
  {
    ACE_ERROR((LM_ERROR, "Failed to parse JSON: no complete document.\n"));
    return false;
  }
  return true;
}

namespace json_spirit
{
  bool read_string(const std::string& text, Value& value)
  {
    JSON_Reader reader;
    if (!reader.open())
      return false;
    // An empty container as target would be filled as if its opening
    // bracket had been read already.
    value = Value();
    reader.result(&value);
    if (!text.empty() && !reader.read(text.data(), text.size()))
      return false;
    return reader.read(nullptr, 0);
  }
}
