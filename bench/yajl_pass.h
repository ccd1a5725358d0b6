// YAJL's own pass over a text, with no callbacks: the floor of any reader.
#ifndef BENCH_YAJL_PASS_H
#define BENCH_YAJL_PASS_H

#include <yajl/yajl_parse.h>

#include <cstddef>

inline bool yajl_pass(const char* text, size_t size)
{
  yajl_handle h = yajl_alloc(nullptr, nullptr, nullptr);
  bool ok = yajl_parse(h, reinterpret_cast<const unsigned char*>(text), size) == yajl_status_ok &&
            yajl_complete_parse(h) == yajl_status_ok;
  yajl_free(h);
  return ok;
}

#endif
