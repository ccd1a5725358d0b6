#ifndef JSON_SPIRIT_VALUE_H
#define JSON_SPIRIT_VALUE_H

#include "json_spirit/json_spirit_export.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace json_spirit
{
  // The numbers 2, 5, 6 and 7 are tested by callers and must not change.
  enum Value_type
  {
    obj_type = 0,
    array_type = 1,
    str_type = 2,
    bool_type = 3,
    int_type = 5,
    real_type = 6,
    null_type = 7
  };

  class Value;
  typedef std::map<std::string, Value> Object;
  typedef std::vector<Value> Array;

  /// A JSON document. Copies and moves; owns what it holds.
  ///
  /// Strings, objects and arrays are held through a pointer, so that a
  /// value takes 16 bytes (arrays of numbers stay compact) and moves in
  /// constant time.
  ///
  /// Destruction recurses through at most max_depth + 1 levels and frees
  /// deeper ones in a loop, so a value nested arbitrarily deep can be
  /// dropped without exhausting the stack. Copying and writing recurse; the
  /// readers refuse documents nested deeper than max_depth, which bounds that.
  class JSON_SPIRIT_EXPORT Value
  {
  public:
    static const Value null;

    Value() noexcept : type_(null_type), unsigned_(false) {}
    Value(const Value& other);
    Value(Value&& other) noexcept;
    Value(const std::string& s);
    Value(std::string&& s);
    Value(const char* s);
    Value(bool b) noexcept : type_(bool_type), unsigned_(false) { u_.b = b; }
    Value(int i) noexcept : type_(int_type), unsigned_(false) { u_.i = i; }
    Value(long long i) noexcept : type_(int_type), unsigned_(false) { u_.i = i; }
    Value(long i) noexcept : type_(int_type), unsigned_(false) { u_.i = i; }
    Value(unsigned long long u) noexcept;
    Value(unsigned long u) noexcept : Value(static_cast<unsigned long long>(u)) {}
    Value(unsigned int u) noexcept : Value(static_cast<long long>(u)) {}
    Value(double d) noexcept : type_(real_type), unsigned_(false) { u_.d = d; }
    Value(const Object& o);
    Value(Object&& o);
    Value(const Array& a);
    Value(Array&& a);
    ~Value();

    Value& operator=(const Value& other);
    Value& operator=(Value&& other) noexcept;

    bool operator==(const Value& other) const;
    bool operator!=(const Value& other) const { return !(*this == other); }

    Value_type type() const { return type_; }
    bool is_null() const { return type_ == null_type; }

    /// True for an integer that does not fit a 32-bit int (or that is only
    /// representable unsigned): such a value is read with get_int64().
    bool is_uint64() const;
    /// An integer above LLONG_MAX, kept unsigned: read it with get_uint64().
    bool is_unsigned() const { return type_ == int_type && unsigned_; }

    // Reading the wrong kind gives the kind's zero value (an empty string or
    // container, false, 0): callers test type() first.
    const std::string& get_str() const;
    const Object& get_obj() const;
    Object& get_obj();
    const Array& get_array() const;
    Array& get_array();
    bool get_bool() const;
    int get_int() const;
    long long get_int64() const;
    unsigned long long get_uint64() const;
    double get_real() const;

    void swap(Value& other) noexcept;

  private:
    friend struct value_lesser;
    void destroy() noexcept;
    // Frees a container nested too deep for recursion, with a loop.
    void free_iteratively() noexcept;
    // Deletes a container that holds no containers.
    void free_container() noexcept;
    // Both expect *this to hold nothing (no string, no container).
    void copy_from(const Value& other);
    void move_from(Value& other) noexcept;

    Value_type type_;
    bool unsigned_;
    union Storage
    {
      Storage() noexcept : i(0) {}
      bool b;
      long long i;
      double d;
      std::string* s;
      Object* o;
      Array* a;
    } u_;
  };

  /// Strict weak order over values: by type, then by content.
  struct JSON_SPIRIT_EXPORT value_lesser
  {
    bool operator()(const Value& a, const Value& b) const;
  };

  /// Depth of containers that the readers accept. YAJL's generator writes at
  /// most 127 levels, so a deeper document could be read but never written.
  const unsigned int max_depth = 127;
}

#endif
