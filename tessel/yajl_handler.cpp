#include "tessel/yajl_handler.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

YAJL_Handler::YAJL_Handler() : callback(EVENT_NONE), event_count(0) {}
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
    ++h->event_count;
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
  : carry_fed_(false), quiet_(0), data_(nullptr), length_(0), blocks_(), block_count_(0),
    alloc_funcs_{block_malloc, block_realloc, block_free, this}
{
}

YAJL_Feeder::~YAJL_Feeder()
{
  for (size_t i = 0; i < block_count_; ++i)
    std::free(blocks_[i]);
}

namespace
{
  // Each block starts with its capacity; the header keeps malloc's alignment.
  struct alignas(std::max_align_t) Block_Header
  {
    size_t capacity;
  };

  void* payload(Block_Header* h) { return h + 1; }
  Block_Header* header(void* block) { return static_cast<Block_Header*>(block) - 1; }
}

yajl_handle YAJL_Feeder::alloc_handle(YAJL_Handler& handler)
{
  return yajl_alloc(get_yajl_default_callbacks(), &alloc_funcs_, &handler);
}

void* YAJL_Feeder::block_malloc(void* ctx, size_t size)
{
  // The smallest kept block that fits, so that a small request does not
  // take the block a buffer will ask for next.
  YAJL_Feeder* f = static_cast<YAJL_Feeder*>(ctx);
  size_t best = f->block_count_;
  for (size_t i = 0; i < f->block_count_; ++i)
  {
    size_t capacity = static_cast<Block_Header*>(f->blocks_[i])->capacity;
    if (capacity >= size && (best == f->block_count_ || capacity < static_cast<Block_Header*>(f->blocks_[best])->capacity))
      best = i;
  }
  if (best < f->block_count_)
  {
    Block_Header* h = static_cast<Block_Header*>(f->blocks_[best]);
    f->blocks_[best] = f->blocks_[--f->block_count_];
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
  YAJL_Feeder* f = static_cast<YAJL_Feeder*>(ctx);
  Block_Header* h = header(block);
  if (h->capacity <= kept_size && f->block_count_ < kept_blocks)
    f->blocks_[f->block_count_++] = h;
  else
    std::free(h);
}

void YAJL_Feeder::reset()
{
  std::string().swap(carry_);
  carry_fed_ = false;
  quiet_ = 0;
  data_ = nullptr;
  length_ = 0;
}

yajl_status YAJL_Feeder::feed(yajl_handle handle, YAJL_Handler& handler, char const* data, unsigned long long length)
{
  const bool finish = !data || length == 0;
  if (carry_fed_)
  {
    carry_.clear();
    carry_fed_ = false;
  }
  if (!finish && quiet_ > 0)
  {
    // Probably inside a token: gather until feeding costs YAJL no more
    // than twice what it gets.
    carry_.append(data, length);
    if (carry_.size() < quiet_)
    {
      data_ = nullptr;
      length_ = 0;
      return yajl_status_ok;
    }
  }
  if (!carry_.empty())
  {
    data = carry_.data();
    length = carry_.size();
    carry_fed_ = true;
  }
  if (data && length && (std::memchr(data, '\f', length) || std::memchr(data, '\v', length)))
  {
    // YAJL takes form feed and vertical tab for blanks, which JSON does
    // not; raw in a string they are as wrong. Any other control character
    // makes YAJL refuse the text where it stands.
    if (!carry_fed_)
    {
      carry_.assign(data, length);
      carry_fed_ = true;
    }
    std::replace(carry_.begin(), carry_.end(), '\f', '\x01');
    std::replace(carry_.begin(), carry_.end(), '\v', '\x01');
    data = carry_.data();
  }
  data_ = data;
  length_ = data ? length : 0;
  yajl_status status = yajl_status_ok;
  if (data && length)
  {
    const unsigned long long before = handler.event_count;
    status = yajl_parse(handle, reinterpret_cast<const unsigned char*>(data), length);
    quiet_ = handler.event_count == before ? quiet_ + length : 0;
  }
  if (finish && status == yajl_status_ok)
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
