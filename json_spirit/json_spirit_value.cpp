#include "json_spirit/json_spirit_value.h"

#include <climits>
#include <utility>

namespace json_spirit
{
  const Value Value::null;

  namespace
  {
    const std::string empty_string;
    const Object empty_object;
    const Array empty_array;

    bool is_container(const Value& v)
    {
      return v.type() == obj_type || v.type() == array_type;
    }

    // Moves every non-empty nested container of v into pending, so that
    // freeing v itself never recurses.
    void detach_children(Value& v, std::vector<Value>& pending)
    {
      if (v.type() == array_type)
      {
        for (Value& child : v.get_array())
          if (is_container(child))
            pending.push_back(std::move(child));
      }
      else if (v.type() == obj_type)
      {
        for (auto& member : v.get_obj())
          if (is_container(member.second))
            pending.push_back(std::move(member.second));
      }
    }

    // Levels freed by recursion; deeper ones (only a value built by a
    // program can be deeper than the readers' max_depth) by a loop.
    const unsigned recursion_limit = max_depth + 1;
  }

  Value::Value(const Value& other) : type_(null_type), unsigned_(false) { copy_from(other); }
  Value::Value(Value&& other) noexcept : type_(null_type), unsigned_(false) { move_from(other); }

  Value::Value(const std::string& s) : type_(str_type), unsigned_(false) { u_.s = new std::string(s); }
  Value::Value(std::string&& s) : type_(str_type), unsigned_(false) { u_.s = new std::string(std::move(s)); }
  Value::Value(const char* s) : type_(str_type), unsigned_(false) { u_.s = new std::string(s ? s : ""); }

  Value::Value(unsigned long long u) noexcept : type_(int_type), unsigned_(u > static_cast<unsigned long long>(LLONG_MAX))
  {
    u_.i = static_cast<long long>(u);
  }

  Value::Value(const Object& o) : type_(obj_type), unsigned_(false) { u_.o = new Object(o); }
  Value::Value(Object&& o) : type_(obj_type), unsigned_(false) { u_.o = new Object(std::move(o)); }
  Value::Value(const Array& a) : type_(array_type), unsigned_(false) { u_.a = new Array(a); }
  Value::Value(Array&& a) : type_(array_type), unsigned_(false) { u_.a = new Array(std::move(a)); }

  Value::~Value() { destroy(); }

  namespace
  {
    // Levels of containers being freed on this thread, through the
    // destructors of the containers themselves.
    thread_local unsigned freeing_depth = 0;
  }

  void Value::destroy() noexcept
  {
    if (type_ == str_type)
      delete u_.s;
    else if (is_container(*this))
    {
      if (freeing_depth < recursion_limit)
      {
        ++freeing_depth;
        free_container();
        --freeing_depth;
      }
      else
        free_iteratively();
    }
    type_ = null_type;
    unsigned_ = false;
    u_.i = 0;
  }

  void Value::free_iteratively() noexcept
  {
    // Each container is deleted holding no containers: no destructor
    // recurses further.
    std::vector<Value> pending;
    detach_children(*this, pending);
    free_container();
    while (!pending.empty())
    {
      Value next(std::move(pending.back()));
      pending.pop_back();
      detach_children(next, pending);
      next.free_container();
    }
  }

  void Value::free_container() noexcept
  {
    if (type_ == obj_type)
      delete u_.o;
    else if (type_ == array_type)
      delete u_.a;
    type_ = null_type;
    unsigned_ = false;
    u_.i = 0;
  }

  void Value::copy_from(const Value& other)
  {
    switch (other.type_)
    {
    case str_type: u_.s = new std::string(*other.u_.s); break;
    case obj_type: u_.o = new Object(*other.u_.o); break;
    case array_type: u_.a = new Array(*other.u_.a); break;
    default: u_ = other.u_; break;
    }
    type_ = other.type_;
    unsigned_ = other.unsigned_;
  }

  void Value::move_from(Value& other) noexcept
  {
    u_ = other.u_;
    type_ = other.type_;
    unsigned_ = other.unsigned_;
    other.type_ = null_type;
    other.unsigned_ = false;
    other.u_.i = 0;
  }

  Value& Value::operator=(const Value& other)
  {
    if (this != &other)
    {
      Value copy(other);
      swap(copy);
    }
    return *this;
  }

  Value& Value::operator=(Value&& other) noexcept
  {
    if (this == &other)
      return *this;
    if (type_ != str_type && !is_container(*this))
    {
      // Nothing held, so other cannot live inside *this.
      move_from(other);
      return *this;
    }
    // other may live inside *this: take it before freeing what we hold.
    Value taken(std::move(other));
    destroy();
    move_from(taken);
    return *this;
  }

  void Value::swap(Value& other) noexcept
  {
    std::swap(type_, other.type_);
    std::swap(unsigned_, other.unsigned_);
    std::swap(u_, other.u_);
  }

  bool Value::is_uint64() const
  {
    return type_ == int_type && (unsigned_ || u_.i > INT_MAX || u_.i < INT_MIN);
  }

  const std::string& Value::get_str() const { return type_ == str_type ? *u_.s : empty_string; }
  const Object& Value::get_obj() const { return type_ == obj_type ? *u_.o : empty_object; }
  const Array& Value::get_array() const { return type_ == array_type ? *u_.a : empty_array; }

  Object& Value::get_obj()
  {
    if (type_ != obj_type)
      *this = Value(Object());
    return *u_.o;
  }

  Array& Value::get_array()
  {
    if (type_ != array_type)
      *this = Value(Array());
    return *u_.a;
  }

  bool Value::get_bool() const { return type_ == bool_type && u_.b; }
  int Value::get_int() const { return static_cast<int>(get_int64()); }

  long long Value::get_int64() const
  {
    if (type_ == int_type)
      return u_.i;
    if (type_ == real_type)
      return static_cast<long long>(u_.d);
    return 0;
  }

  unsigned long long Value::get_uint64() const { return static_cast<unsigned long long>(get_int64()); }

  double Value::get_real() const
  {
    if (type_ == real_type)
      return u_.d;
    if (type_ == int_type)
      return unsigned_ ? static_cast<double>(static_cast<unsigned long long>(u_.i)) : static_cast<double>(u_.i);
    return 0.0;
  }

  bool Value::operator==(const Value& other) const
  {
    if (type_ != other.type_)
      return false;
    switch (type_)
    {
    case null_type: return true;
    case bool_type: return u_.b == other.u_.b;
    case int_type: return u_.i == other.u_.i && unsigned_ == other.unsigned_;
    case real_type: return u_.d == other.u_.d;
    case str_type: return *u_.s == *other.u_.s;
    case obj_type: return *u_.o == *other.u_.o;
    case array_type: return *u_.a == *other.u_.a;
    }
    return false;
  }

  bool value_lesser::operator()(const Value& a, const Value& b) const
  {
    if (a.type() != b.type())
      return a.type() < b.type();
    switch (a.type())
    {
    case null_type: return false;
    case bool_type: return a.get_bool() < b.get_bool();
    case int_type:
      // Integers above LLONG_MAX are kept unsigned and sort after all others.
      if (a.unsigned_ != b.unsigned_)
        return b.unsigned_;
      if (a.unsigned_)
        return a.get_uint64() < b.get_uint64();
      return a.get_int64() < b.get_int64();
    case real_type: return a.get_real() < b.get_real();
    case str_type: return a.get_str() < b.get_str();
    case array_type:
      return std::lexicographical_compare(a.get_array().begin(), a.get_array().end(),
                                          b.get_array().begin(), b.get_array().end(), value_lesser());
    case obj_type:
    {
      const Object& x = a.get_obj();
      const Object& y = b.get_obj();
      return std::lexicographical_compare(
        x.begin(), x.end(), y.begin(), y.end(),
        [](const Object::value_type& p, const Object::value_type& q) {
          if (p.first != q.first)
            return p.first < q.first;
          return value_lesser()(p.second, q.second);
        });
    }
    }
    return false;
  }
}
