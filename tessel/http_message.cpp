// Header fields, and the heads of requests and responses, for either end.

#include "tessel/http_message.h"

#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_stdlib.h>

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace
{
  char const* const header_names[HTTP_Headers::ID_COUNT] = {
    "Accept", "Accept-Charset", "Accept-Encoding", "Accept-Language", "Age", "Allow", "Authorization",
    "Cache-Control", "Connection", "Content-Disposition", "Content-Encoding", "Content-Language",
    "Content-Length", "Content-Location", "Content-MD5", "Content-Range", "Content-Type", "Cookie", "Date",
    "ETag", "Expect", "Expires", "From", "Host", "If-Match", "If-Modified-Since", "If-None-Match", "If-Range",
    "If-Unmodified-Since", "Keep-Alive", "Last-Modified", "Location", "Max-Forwards", "Pragma",
    "Proxy-Authenticate", "Proxy-Authorization", "Range", "Referer", "Server", "Set-Cookie",
    "Transfer-Encoding", "Upgrade", "User-Agent", "Vary", "Via", "WWW-Authenticate"};

  char const* const method_names[HTTP_Request::METHOD_COUNT] = {
    "CONNECT", "COPY", "DELETE", "GET", "HEAD", "MKCOL", "MOVE", "OPTIONS", "POST", "PUT", "PATCH", "TRACE"};

  bool same_name(const std::string& a, char const* b, size_t n)
  {
    return a.size() == n && ::strncasecmp(a.data(), b, n) == 0;
  }

  bool valid_name(char const* name, size_t n)
  {
    if (n == 0)
      return false;
    for (size_t i = 0; i < n; ++i)
    {
      unsigned char c = static_cast<unsigned char>(name[i]);
      if (c <= ' ' || c == ':' || c >= 127)
        return false;
    }
    return true;
  }

  bool valid_value(char const* value, size_t n)
  {
    return std::find_if(value, value + n, [](char c) { return c == '\r' || c == '\n' || c == '\0'; }) ==
           value + n;
  }
}

char const* HTTP_Headers::name(int id) { return id >= 0 && id < ID_COUNT ? header_names[id] : nullptr; }

HTTP_Headers::HTTP_Headers() : count_(0) {}
HTTP_Headers::~HTTP_Headers() {}

HTTP_Headers::HTTP_Headers(const HTTP_Headers& other)
  : fields_(other.fields_.begin(), other.fields_.begin() + other.count_), count_(other.count_)
{
}

HTTP_Headers& HTTP_Headers::operator=(const HTTP_Headers& other)
{
  if (this != &other)
  {
    fields_.assign(other.fields_.begin(), other.fields_.begin() + other.count_);
    count_ = other.count_;
  }
  return *this;
}

int HTTP_Headers::put(int id, char const* value, bool replace)
{
  char const* n = name(id);
  return n ? put(n, value, replace) : -1;
}

int HTTP_Headers::put(char const* name, char const* value, bool replace)
{
  if (!name)
    return -1;
  return put(name, std::strlen(name), value, value ? std::strlen(value) : 0, replace);
}

int HTTP_Headers::put(char const* name, size_t name_length, char const* value, size_t value_length, bool replace)
{
  if (!name || !valid_name(name, name_length))
    return -1;
  if (value && !valid_value(value, value_length))
    return -1;
  if (replace)
    erase(name, name_length);
  if (!value)
    return replace ? 0 : -1;
  if (count_ == fields_.size())
    fields_.emplace_back();
  Field& f = fields_[count_++];
  f.name.assign(name, name_length);
  f.value.assign(value, value_length);
  return 0;
}

long HTTP_Headers::find(char const* name, size_t length, bool first) const
{
  long found = -1;
  for (size_t i = 0; i < count_; ++i)
    if (same_name(fields_[i].name, name, length))
    {
      found = static_cast<long>(i);
      if (first)
        break;
    }
  return found;
}

void HTTP_Headers::erase(char const* name, size_t length)
{
  size_t to = 0;
  for (size_t i = 0; i < count_; ++i)
  {
    if (same_name(fields_[i].name, name, length))
      continue;
    if (to != i)
      std::swap(fields_[to], fields_[i]);
    ++to;
  }
  count_ = to;
}

char const* HTTP_Headers::get(int id, bool first) const
{
  char const* n = name(id);
  return n ? get(n, first) : nullptr;
}

char const* HTTP_Headers::get(char const* name, bool first) const
{
  if (!name)
    return nullptr;
  long i = find(name, std::strlen(name), first);
  return i == -1 ? nullptr : fields_[i].value.c_str();
}

int HTTP_Headers::to_iovec(iovec* iov, int count) const
{
  static char sep[] = ": ";
  static char crlf[] = "\r\n";
  int n = 0;
  for (size_t i = 0; i < count_ && n + 4 <= count; ++i)
  {
    iov[n++] = {const_cast<char*>(fields_[i].name.data()), fields_[i].name.size()};
    iov[n++] = {sep, 2};
    iov[n++] = {const_cast<char*>(fields_[i].value.data()), fields_[i].value.size()};
    iov[n++] = {crlf, 2};
  }
  return n;
}

HTTP_Message::HTTP_Message(int minor_version) : minor_version_(minor_version) {}
HTTP_Message::~HTTP_Message() {}

int HTTP_Message::to_iovec(iovec* iov, int count) const
{
  static char crlf[] = "\r\n";
  int n = headers_.to_iovec(iov, count - 1);
  if (n < count)
    iov[n++] = {crlf, 2};
  return n;
}

CGI_Response::CGI_Response(int minor_version) : HTTP_Message(minor_version), status_(0) {}
CGI_Response::~CGI_Response() {}

void CGI_Response::reset()
{
  status_ = 0;
  reason_.clear();
  headers_.clear();
}

template <class Base>
unsigned long long HTTP_Base<Base>::content_length() const
{
  char const* v = this->headers_.get(HTTP_Headers::CONTENT_LENGTH);
  return v ? ACE_OS::strtoull(v, nullptr, 10) : 0;
}

template <class Base>
void HTTP_Base<Base>::content_length(unsigned long long length)
{
  char text[32];
  ACE_OS::snprintf(text, sizeof text, "%llu", length);
  this->headers_.put(HTTP_Headers::CONTENT_LENGTH, text, true);
}

template <class Base>
char const* HTTP_Base<Base>::content_type() const
{
  return this->headers_.get(HTTP_Headers::CONTENT_TYPE);
}

template <class Base>
void HTTP_Base<Base>::content_type(char const* type)
{
  this->headers_.put(HTTP_Headers::CONTENT_TYPE, type, true);
}

template <class Base>
bool HTTP_Base<Base>::keep_alive() const
{
  char const* v = this->headers_.get(HTTP_Headers::CONNECTION);
  if (v)
  {
    if (http_header_value_match(v, "close", ','))
      return false;
    return http_header_value_match(v, "Keep-Alive", ',');
  }
  return this->minor_version_ > 0;
}

template <class Base>
void HTTP_Base<Base>::keep_alive(bool on)
{
  this->headers_.put(HTTP_Headers::CONNECTION, on ? "Keep-Alive" : "close", true);
}

template <class Base>
bool HTTP_Base<Base>::chunked() const
{
  char const* v = this->headers_.get(HTTP_Headers::TRANSFER_ENCODING);
  return v && std::strcmp(v, "chunked") == 0;
}

template <class Base>
void HTTP_Base<Base>::chunked(bool on)
{
  this->headers_.put(HTTP_Headers::TRANSFER_ENCODING, on ? "chunked" : nullptr, true);
}

template class HTTP_Base<HTTP_Message>;
template class HTTP_Base<CGI_Response>;

char const* HTTP_Request::method_name(int method)
{
  return method >= 0 && method < METHOD_COUNT ? method_names[method] : nullptr;
}

HTTP_Request::HTTP_Request(int method, char const* uri, bool copy) : method_(method), uri_("/")
{
  this->uri(uri, copy);
}

HTTP_Request::HTTP_Request(const HTTP_Request& other)
  : HTTP_Base<HTTP_Message>(other), method_(other.method_), uri_(other.uri_), uri_copy_(other.uri_copy_)
{
  if (other.uri_ == other.uri_copy_.c_str())
    uri_ = uri_copy_.c_str();
}

HTTP_Request& HTTP_Request::operator=(const HTTP_Request& other)
{
  if (this != &other)
  {
    HTTP_Base<HTTP_Message>::operator=(other);
    method_ = other.method_;
    uri_copy_ = other.uri_copy_;
    uri_ = other.uri_ == other.uri_copy_.c_str() ? uri_copy_.c_str() : other.uri_;
  }
  return *this;
}

HTTP_Request::~HTTP_Request() {}

void HTTP_Request::uri(char const* uri, bool copy)
{
  if (!uri)
    uri = "/";
  if (copy)
  {
    uri_copy_.assign(uri);
    uri_ = uri_copy_.c_str();
  }
  else
    uri_ = uri;
}

HTTP_Response::HTTP_Response() : HTTP_Base<CGI_Response>(1), has_body_(false) {}
HTTP_Response::~HTTP_Response() {}

void HTTP_Response::reset()
{
  minor_version_ = 1;
  has_body_ = false;
  CGI_Response::reset();
}

bool http_header_value_match(char const* value, char const* token, char separator)
{
  if (!value || !token)
    return false;
  size_t token_length = std::strlen(token);
  char const* at = value;
  for (;;)
  {
    char const* end = std::strchr(at, separator);
    if (!end)
      end = at + std::strlen(at);
    char const* b = at;
    char const* e = end;
    while (b < e && (*b == ' ' || *b == '\t'))
      ++b;
    while (e > b && (e[-1] == ' ' || e[-1] == '\t'))
      --e;
    if (static_cast<size_t>(e - b) == token_length && ::strncasecmp(b, token, token_length) == 0)
      return true;
    if (!*end)
      return false;
    at = end + 1;
  }
}
