#include "tessel/yajl_handler.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

YAJL_Handler::YAJL_Handler() : callback(EVENT_NONE) {}
YAJL_Handler::~YAJL_Handler() {}

bool YAJL_Handler::handle_null_i() { return true; }
bool YAJL_Handler::handle_boolean_i(bool) { return true; }
bool YAJL_Handler::handle_integer_i(long long) { return true; }
bool YAJL_Handler::handle_double_i(double) { return true; }
bool YAJL_Handler::handle_number_i(char const*, unsigned long long) { return true; }
bool YAJL_Handler::handle_string_i(char const*, unsigned long long) { return true; }
bool YAJL_Handler::handle_start_map_i() { return true; }
bool YAJL_Handler::handle_map_key_i(char const*, unsigned long long) { return true; }
bool YAJL_Handler::handle_end_map_i() { return true; }
bool YAJL_Handler::handle_start_array_i() { return true; }
bool YAJL_Handler::handle_end_array_i() { return true; }

namespace
{
  YAJL_Handler* handler(void* ctx, unsigned int event)
  {
    YAJL_Handler* h = static_cast<YAJL_Handler*>(ctx);
    h->callback = event;
    return h;
  }

  int on_null(void* ctx) { return handler(ctx, YAJL_Handler::EVENT_NULL)->handle_null_i(); }
  int on_boolean(void* ctx, int value) { return handler(ctx, YAJL_Handler::EVENT_BOOLEAN)->handle_boolean_i(value != 0); }
  int on_number(void* ctx, const char* text, size_t length)
  {
    return handler(ctx, YAJL_Handler::EVENT_NUMBER)->handle_number_i(text, length);
  }
  int on_string(void* ctx, const unsigned char* text, size_t length)
  {
    return handler(ctx, YAJL_Handler::EVENT_STRING)->handle_string_i(reinterpret_cast<const char*>(text), length);
  }
  int on_start_map(void* ctx) { return handler(ctx, YAJL_Handler::EVENT_START_MAP)->handle_start_map_i(); }
  int on_map_key(void* ctx, const unsigned char* text, size_t length)
  {
    return handler(ctx, YAJL_Handler::EVENT_MAP_KEY)->handle_map_key_i(reinterpret_cast<const char*>(text), length);
  }
  int on_end_map(void* ctx) { return handler(ctx, YAJL_Handler::EVENT_END_MAP)->handle_end_map_i(); }
  int on_start_array(void* ctx) { return handler(ctx, YAJL_Handler::EVENT_START_ARRAY)->handle_start_array_i(); }
  int on_end_array(void* ctx) { return handler(ctx, YAJL_Handler::EVENT_END_ARRAY)->handle_end_array_i(); }

  // Integer and double slots stay empty so that YAJL hands numbers over as text.
  const yajl_callbacks default_callbacks = {
    on_null, on_boolean, nullptr, nullptr, on_number, on_string,
    on_start_map, on_map_key, on_end_map, on_start_array, on_end_array};
}

yajl_callbacks const* get_yajl_default_callbacks() { return &default_callbacks; }

YAJL_Feeder::YAJL_Feeder()
  : carry_fed_(false), lex_(0), lex_left_(0), odd_blank_(false), data_(nullptr), length_(0),
    alloc_funcs_{block_malloc, block_realloc, block_free, this}
{
}

YAJL_Feeder::~YAJL_Feeder() {}

namespace
{
  // Each block starts with its capacity; the header keeps malloc's alignment.
  struct alignas(std::max_align_t) Block_Header
  {
    size_t capacity;
  };

  void* payload(Block_Header* h) { return h + 1; }
  Block_Header* header(void* block) { return static_cast<Block_Header*>(block) - 1; }

  // A handle takes six blocks, the largest 2 KB, on each message. They are
  // kept by the thread, not by the feeder: a thread parses many feeders'
  // messages in turn, and a feeder between messages (an idle connection)
  // then holds nothing. Only blocks up to kept_size are kept.
  struct Block_Cache
  {
    static const size_t kept_blocks = 16;
    static const size_t kept_size = 4096;
    ~Block_Cache()
    {
      for (size_t i = 0; i < count; ++i)
        std::free(blocks[i]);
    }
    void* blocks[kept_blocks] = {};
    size_t count = 0;
  };

  thread_local Block_Cache block_cache;
}

yajl_handle YAJL_Feeder::alloc_handle(YAJL_Handler& handler)
{
  return yajl_alloc(get_yajl_default_callbacks(), &alloc_funcs_, &handler);
}

void* YAJL_Feeder::block_malloc(void* ctx, size_t size)
{
  // The smallest kept block that fits, so that a small request does not
  // take the block a buffer will ask for next.
  (void)ctx;
  Block_Cache& c = block_cache;
  size_t best = c.count;
  for (size_t i = 0; i < c.count; ++i)
  {
    size_t capacity = static_cast<Block_Header*>(c.blocks[i])->capacity;
    if (capacity >= size && (best == c.count || capacity < static_cast<Block_Header*>(c.blocks[best])->capacity))
      best = i;
  }
  if (best < c.count)
  {
    Block_Header* h = static_cast<Block_Header*>(c.blocks[best]);
    c.blocks[best] = c.blocks[--c.count];
    return payload(h);
  }
  Block_Header* h = static_cast<Block_Header*>(std::malloc(sizeof(Block_Header) + size));
  if (!h)
    return nullptr;
  h->capacity = size;
  return payload(h);
}

void* YAJL_Feeder::block_realloc(void* ctx, void* block, size_t size)
{
  if (!block)
    return block_malloc(ctx, size);
  Block_Header* h = header(block);
  if (h->capacity >= size)
    return block;
  h = static_cast<Block_Header*>(std::realloc(h, sizeof(Block_Header) + size));
  if (!h)
    return nullptr;
  h->capacity = size;
  return payload(h);
}

void YAJL_Feeder::block_free(void* ctx, void* block)
{
  if (!block)
    return;
  (void)ctx;
  Block_Cache& c = block_cache;
  Block_Header* h = header(block);
  if (h->capacity <= Block_Cache::kept_size && c.count < Block_Cache::kept_blocks)
    c.blocks[c.count++] = h;
  else
    std::free(h);
}

namespace
{
  // Where the text stands, token-wise, as YAJL's lexer sees it. Literals
  // (true, false, null) are short and left out: pieces inside them are fed.
  enum Lex
  {
    LEX_VALUE, // between tokens
    LEX_STRING,
    LEX_ESCAPE,
    LEX_HEX,
    LEX_UTF8,
    LEX_MINUS,
    LEX_ZERO,
    LEX_INT,
    LEX_DOT,
    LEX_FRAC,
    LEX_EXP,
    LEX_EXP_SIGN,
    LEX_EXP_DIGITS,
    LEX_BROKEN // YAJL will refuse the text: everything is fed from here on
  };

  bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
  bool is_hex(unsigned char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

  // Byte classes for the runs that the scan skips in one loop: what ends a
  // run of plain string bytes, and what starts a token between tokens.
  enum
  {
    STRING_STOP = 1,
    TOKEN_START = 2
  };

  struct Byte_Classes
  {
    unsigned char of[256];
    Byte_Classes() : of()
    {
      for (int c = 0; c < 256; ++c)
        of[c] = static_cast<unsigned char>((c == '"' || c == '\\' || c < 0x20 || c >= 0x80 ? STRING_STOP : 0) |
                                           (c == '"' || c == '-' || is_digit(static_cast<unsigned char>(c)) ||
                                                c == '\f' || c == '\v'
                                              ? TOKEN_START
                                              : 0));
    }
  };
  const Byte_Classes byte_classes;

  bool string_stop(unsigned char c) { return byte_classes.of[c] & STRING_STOP; }
}

void YAJL_Feeder::reset()
{
  std::string().swap(carry_);
  // Kept for the next message if small: a reader between messages holds little.
  if (unscanned_.capacity() > 256)
    std::string().swap(unscanned_);
  else
    unscanned_.clear();
  carry_fed_ = false;
  lex_ = LEX_VALUE;
  lex_left_ = 0;
  odd_blank_ = false;
  data_ = nullptr;
  length_ = 0;
}

bool YAJL_Feeder::scan(const unsigned char* p, const unsigned char* end)
{
  // Kept in locals: the bytes read through p could alias the members, and
  // every byte would store and load them again.
  int lex = lex_;
  int left_count = lex_left_;
  bool odd_blank = false;
  bool left = lex == LEX_VALUE || lex == LEX_BROKEN;
  while (p < end && lex != LEX_BROKEN)
  {
    unsigned char c = *p++;
    int next = lex;
    switch (lex)
    {
    case LEX_VALUE:
      for (;;)
      {
        // Blanks and punctuation in one run (a form feed or vertical tab
        // stops it too, to be noted).
        while (!(byte_classes.of[c] & TOKEN_START) && p < end)
          c = *p++;
        if (c < '1' || c > '9' || p == end)
          break;
        // An integer that ends in the piece, as most do, is passed here;
        // the one that goes on to a fraction, an exponent or the piece's
        // end is left to the number's states.
        c = *p++;
        while (is_digit(c) && p < end)
          c = *p++;
        if (is_digit(c) || c == '.' || c == 'e' || c == 'E')
        {
          if (!is_digit(c))
            --p;
          c = '1';
          break;
        }
      }
      if (c == '"')
        next = LEX_STRING;
      else if (c == '-')
        next = LEX_MINUS;
      else if (c == '0')
        next = LEX_ZERO;
      else if (is_digit(c))
        next = LEX_INT;
      else
        odd_blank = odd_blank || c == '\f' || c == '\v';
      break;
    case LEX_STRING:
      while (!string_stop(c) && p < end)
        c = *p++;
      if (!string_stop(c))
        break;
      if (c == '"')
        next = LEX_VALUE;
      else if (c == '\\')
        next = LEX_ESCAPE;
      else if (c < 0x20)
        next = LEX_BROKEN;
      else
      {
        // A UTF-8 lead byte, checked as YAJL checks it.
        left_count = (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xe ? 2 : (c >> 3) == 0x1e ? 3 : 0;
        next = left_count ? LEX_UTF8 : LEX_BROKEN;
      }
      break;
    case LEX_ESCAPE:
      if (c == 'u')
      {
        left_count = 4;
        next = LEX_HEX;
      }
      else
        next = c && std::strchr("\"\\/bfnrt", c) ? LEX_STRING : LEX_BROKEN;
      break;
    case LEX_HEX:
      next = !is_hex(c) ? LEX_BROKEN : --left_count ? LEX_HEX : LEX_STRING;
      break;
    case LEX_UTF8:
      next = (c >> 6) != 0x2 ? LEX_BROKEN : --left_count ? LEX_UTF8 : LEX_STRING;
      break;
    case LEX_MINUS:
      next = c == '0' ? LEX_ZERO : is_digit(c) ? LEX_INT : LEX_BROKEN;
      break;
    case LEX_DOT:
      next = is_digit(c) ? LEX_FRAC : LEX_BROKEN;
      break;
    case LEX_EXP:
      next = c == '+' || c == '-' ? LEX_EXP_SIGN : is_digit(c) ? LEX_EXP_DIGITS : LEX_BROKEN;
      break;
    case LEX_EXP_SIGN:
      next = is_digit(c) ? LEX_EXP_DIGITS : LEX_BROKEN;
      break;
    default: // LEX_ZERO, LEX_INT, LEX_FRAC, LEX_EXP_DIGITS: a number that may go on
      // Its digits in one run.
      if (lex != LEX_ZERO)
        while (is_digit(c) && p < end)
          c = *p++;
      if (is_digit(c) && lex != LEX_ZERO)
        break;
      if (c == '.' && (lex == LEX_ZERO || lex == LEX_INT))
        next = LEX_DOT;
      else if ((c == 'e' || c == 'E') && lex != LEX_EXP_DIGITS)
        next = LEX_EXP;
      else
      {
        // The number ends before c, which is looked at again.
        --p;
        next = LEX_VALUE;
      }
    }
    left = left || next == LEX_VALUE || next == LEX_BROKEN;
    lex = next;
  }
  lex_ = lex;
  lex_left_ = left_count;
  odd_blank_ = odd_blank_ || odd_blank;
  return left;
}

yajl_status YAJL_Feeder::parse(yajl_handle handle, char const* data, unsigned long long length)
{
  if (odd_blank_)
  {
    // YAJL takes form feed and vertical tab for blanks, which JSON does
    // not: in their place it meets a character it refuses where it stands.
    if (data != carry_.data())
      carry_.assign(data, length);
    std::replace(carry_.begin(), carry_.end(), '\f', '\x01');
    std::replace(carry_.begin(), carry_.end(), '\v', '\x01');
    data = carry_.data();
    odd_blank_ = false;
  }
  carry_fed_ = data == carry_.data();
  data_ = data;
  length_ = length;
  return yajl_parse(handle, reinterpret_cast<const unsigned char*>(data), length);
}

yajl_status YAJL_Feeder::feed(yajl_handle handle, char const* data, unsigned long long length)
{
  if (carry_fed_)
  {
    carry_.clear();
    carry_fed_ = false;
  }
  yajl_status status = yajl_status_ok;
  if (data && length)
  {
    if (!unscanned_.empty())
    {
      const unsigned char* text = reinterpret_cast<const unsigned char*>(unscanned_.data());
      scan(text, text + unscanned_.size());
      unscanned_.clear();
    }
    if (lex_ == LEX_VALUE && length <= unscanned_limit && !std::memchr(data, '\f', length) &&
        !std::memchr(data, '\v', length))
    {
      unscanned_.assign(data, length);
      return parse(handle, data, length);
    }
    const unsigned char* text = reinterpret_cast<const unsigned char*>(data);
    if (!scan(text, text + length))
    {
      // Inside one token from end to end: YAJL would only read it again.
      carry_.append(data, length);
      data_ = nullptr;
      length_ = 0;
      return status;
    }
    if (!carry_.empty())
    {
      carry_.append(data, length);
      data = carry_.data();
      length = carry_.size();
    }
    return parse(handle, data, length);
  }
  unscanned_.clear();
  // A text may end inside a number that is kept here.
  if (!carry_.empty())
    status = parse(handle, carry_.data(), carry_.size());
  if (status == yajl_status_ok)
  {
    status = yajl_complete_parse(handle);
    if (status != yajl_status_ok)
    {
      data_ = nullptr;
      length_ = 0;
    }
  }
  return status;
}

YAJL_Error::YAJL_Error(yajl_handle handle, bool verbose, char const* text, unsigned long long length)
  : handle_(handle), text_(nullptr)
{
  if (handle_)
  {
    // Without the text there is nothing to quote around the offset.
    if (!text)
      length = 0;
    text_ = yajl_get_error(handle_, verbose && text ? 1 : 0, reinterpret_cast<const unsigned char*>(text), length);
  }
}

YAJL_Error::~YAJL_Error()
{
  if (text_)
    yajl_free_error(handle_, text_);
}

char const* YAJL_Error::c_str() const { return text_ ? reinterpret_cast<const char*>(text_) : ""; }
