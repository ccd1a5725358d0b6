// The echo call of the server benchmark as bytes: the request its load
// client sends, Content-Length framing, and the answer's checks. The epoll
// floor answers with the same params, so every server sends as much back.
#ifndef BENCH_ECHO_WIRE_H
#define BENCH_ECHO_WIRE_H

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

namespace echo_wire
{
  /// About 100 bytes, with none of the keys the answer check looks for.
  const char params[] =
    "[\"server bench\",12345,true,null,{\"k\":\"v\",\"n\":[1,2,3]},\"0123456789abcdefghijklmnopqrstuvwxyz0123456\"]";

  inline std::string frame(const std::string& body)
  {
    return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  inline std::string request(unsigned long long id)
  {
    return frame("{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"method\":\"echo\",\"params\":" + params +
                 "}");
  }

  /// Beyond this a message is refused: the benchmark's are small.
  const size_t max_body = 1 << 20;

  /// Where the body of the first message in data[0, size) starts and how
  /// long it is: 1 when whole, 0 when more bytes are needed, -1 when the
  /// headers have no Content-Length or it is beyond max_body.
  inline int next_message(const char* data, size_t size, size_t& body_at, size_t& body_size)
  {
    const char* end = static_cast<const char*>(memmem(data, size, "\r\n\r\n", 4));
    if (!end)
      return size > 4096 ? -1 : 0;
    const char* header = data;
    bool found = false;
    while (header < end)
    {
      const char* eol = static_cast<const char*>(memmem(header, static_cast<size_t>(end + 2 - header), "\r\n", 2));
      if (eol - header > 15 && strncasecmp(header, "Content-Length:", 15) == 0)
      {
        body_size = std::strtoull(header + 15, nullptr, 10);
        found = true;
      }
      header = eol + 2;
    }
    if (!found || body_size > max_body)
      return -1;
    body_at = static_cast<size_t>(end + 4 - data);
    return size - body_at >= body_size ? 1 : 0;
  }

  /// The text of the member "id" of a body (a number or a string), or ""
  /// if there is none: a plain search, no parse, which the request allows.
  inline std::string id_text(const char* body, size_t size)
  {
    const char* at = static_cast<const char*>(memmem(body, size, "\"id\":", 5));
    if (!at)
      return "";
    const char* end = body + size;
    at += 5;
    while (at < end && std::isspace(static_cast<unsigned char>(*at)))
      ++at;
    const char* stop = at;
    if (stop < end && *stop == '"')
    {
      for (++stop; stop < end && *stop != '"'; ++stop)
        if (*stop == '\\')
          ++stop;
      return stop < end ? std::string(at, stop + 1) : "";
    }
    while (stop < end && *stop != ',' && *stop != '}' && !std::isspace(static_cast<unsigned char>(*stop)))
      ++stop;
    return std::string(at, stop);
  }

  /// True for an answer (not an error) to the request with this id.
  inline bool answers(const char* body, size_t size, unsigned long long id)
  {
    return id_text(body, size) == std::to_string(id) && memmem(body, size, "\"result\":", 9) &&
           !memmem(body, size, "\"error\":", 8);
  }
}

#endif
