#ifndef TESSEL_HTTP_MESSAGE_H
#define TESSEL_HTTP_MESSAGE_H

// HTTP/1.x messages as both a client and a server see them: header fields
// and the heads of requests and responses.

#include "tessel/tessel_export.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <string>
#include <vector>

/// The header fields of one message, in the order they were put. Names
/// compare without regard to case. Clearing keeps the storage, so a message
/// object used again allocates little.
class TESSEL_EXPORT HTTP_Headers
{
public:
  /// Well-known names by number.
  enum Id
  {
    ACCEPT = 0,
    ACCEPT_CHARSET = 1,
    ACCEPT_ENCODING = 2,
    ACCEPT_LANGUAGE = 3,
    AGE = 4,
    ALLOW = 5,
    AUTHORIZATION = 6,
    CACHE_CONTROL = 7,
    CONNECTION = 8,
    CONTENT_DISPOSITION = 9,
    CONTENT_ENCODING = 10,
    CONTENT_LANGUAGE = 11,
    CONTENT_LENGTH = 12,
    CONTENT_LOCATION = 13,
    CONTENT_MD5 = 14,
    CONTENT_RANGE = 15,
    CONTENT_TYPE = 16,
    COOKIE = 17,
    DATE = 18,
    ETAG = 19,
    EXPECT = 20,
    EXPIRES = 21,
    FROM = 22,
    HOST = 23,
    IF_MATCH = 24,
    IF_MODIFIED_SINCE = 25,
    IF_NONE_MATCH = 26,
    IF_RANGE = 27,
    IF_UNMODIFIED_SINCE = 28,
    KEEP_ALIVE = 29,
    LAST_MODIFIED = 30,
    LOCATION = 31,
    MAX_FORWARDS = 32,
    PRAGMA = 33,
    PROXY_AUTHENTICATE = 34,
    PROXY_AUTHORIZATION = 35,
    RANGE = 36,
    REFERER = 37,
    SERVER = 38,
    SET_COOKIE = 39,
    TRANSFER_ENCODING = 40,
    UPGRADE = 41,
    USER_AGENT = 42,
    VARY = 43,
    VIA = 44,
    WWW_AUTHENTICATE = 45,
    ID_COUNT = 46
  };

  /// The name of an id; null for a number outside the table.
  static char const* name(int id);

  HTTP_Headers();
  ~HTTP_Headers();
  HTTP_Headers(const HTTP_Headers& other);
  HTTP_Headers& operator=(const HTTP_Headers& other);

  /// Adds a field. With replace, the fields of that name go first, and a
  /// null value only removes them. 0, or -1 for an unknown id, a null or
  /// empty name, or a name or value with a line break in it.
  int put(int id, char const* value, bool replace = true);
  int put(char const* name, char const* value, bool replace = true);
  int put(char const* name, size_t name_length, char const* value, size_t value_length, bool replace);

  /// The value of the first (or, with first false, the last) field of that
  /// name; null if absent. Valid until the headers change.
  char const* get(int id, bool first = true) const;
  char const* get(char const* name, bool first = true) const;

  size_t size() const { return count_; }
  char const* name_at(size_t i) const { return fields_[i].name.c_str(); }
  char const* value_at(size_t i) const { return fields_[i].value.c_str(); }
  void clear() { count_ = 0; }

  /// Pieces for writev: four for each field ("name", ": ", "value", CRLF).
  int iovec_count() const { return static_cast<int>(count_) * 4; }
  /// Fills at most count pieces; gives the number filled.
  int to_iovec(iovec* iov, int count) const;

private:
  struct Field
  {
    std::string name;
    std::string value;
  };
  long find(char const* name, size_t length, bool first) const;
  void erase(char const* name, size_t length);

  std::vector<Field> fields_;
  size_t count_;
};

/// Head of any HTTP message: the fields and the minor version of HTTP/1.x.
class TESSEL_EXPORT HTTP_Message
{
public:
  explicit HTTP_Message(int minor_version = 1);
  virtual ~HTTP_Message();

  HTTP_Headers& headers() { return headers_; }
  const HTTP_Headers& headers() const { return headers_; }
  int minor_version() const { return minor_version_; }
  void minor_version(int minor) { minor_version_ = minor; }

  int iovec_count() const { return headers_.iovec_count() + 1; }
  /// The fields and the blank line that ends a head.
  int to_iovec(iovec* iov, int count) const;

protected:
  HTTP_Headers headers_;
  int minor_version_;
};

/// The head of a response: status, reason and fields.
class TESSEL_EXPORT CGI_Response : public HTTP_Message
{
public:
  explicit CGI_Response(int minor_version = 1);
  ~CGI_Response() override;

  int status() const { return status_; }
  void status(int status) { status_ = status; }
  char const* reason() const { return reason_.c_str(); }
  void reason(char const* text, size_t length) { reason_.assign(text, length); }

  /// Status 0, no reason, no fields; the version stays.
  void reset();

private:
  int status_;
  std::string reason_;
};

/// The header accessors shared by requests and responses.
template <class Base>
class TESSEL_EXPORT HTTP_Base : public Base
{
public:
  using Base::Base;
  ~HTTP_Base() override {}

  /// Content-Length as a decimal number; 0 if absent.
  virtual unsigned long long content_length() const;
  virtual void content_length(unsigned long long length);
  virtual char const* content_type() const;
  virtual void content_type(char const* type);
  /// From Connection if present ("close" wins over "Keep-Alive"), else true
  /// from HTTP/1.1 on.
  virtual bool keep_alive() const;
  virtual void keep_alive(bool on);
  /// Transfer-Encoding is exactly "chunked".
  virtual bool chunked() const;
  virtual void chunked(bool on);
};

extern template class HTTP_Base<HTTP_Message>;
extern template class HTTP_Base<CGI_Response>;

/// A request: method, target URI and fields.
class TESSEL_EXPORT HTTP_Request : public HTTP_Base<HTTP_Message>
{
public:
  enum Method
  {
    METHOD_CONNECT = 0,
    METHOD_COPY = 1,
    METHOD_DELETE = 2,
    METHOD_GET = 3,
    METHOD_HEAD = 4,
    METHOD_MKCOL = 5,
    METHOD_MOVE = 6,
    METHOD_OPTIONS = 7,
    METHOD_POST = 8,
    METHOD_PUT = 9,
    METHOD_PATCH = 10,
    METHOD_TRACE = 11,
    METHOD_COUNT = 12
  };

  /// The method's name; null outside the table.
  static char const* method_name(int method);

  /// With copy false the request points at the caller's text, which must
  /// outlive it; a null uri is "/".
  HTTP_Request(int method = METHOD_GET, char const* uri = "/", bool copy = false);
  HTTP_Request(const HTTP_Request& other);
  HTTP_Request& operator=(const HTTP_Request& other);
  ~HTTP_Request() override;

  virtual int method() const { return method_; }
  virtual void method(int method) { method_ = method; }
  char const* uri() const { return uri_; }
  void uri(char const* uri, bool copy = true);

private:
  int method_;
  char const* uri_;
  std::string uri_copy_;
};

/// A response head, and whether a body follows it.
class TESSEL_EXPORT HTTP_Response : public HTTP_Base<CGI_Response>
{
public:
  HTTP_Response();
  ~HTTP_Response() override;

  /// True when body bytes follow the head (chunked, a Content-Length above
  /// 0, or a body that ends when the server closes).
  bool has_body() const { return has_body_; }
  void has_body(bool on) { has_body_ = on; }
  /// HTTP/1.1, no status, no fields, no body.
  void reset();

private:
  bool has_body_;
};

/// True when token is one of the items of value that separator divides,
/// ignoring case and the blanks around an item; false for a null value.
TESSEL_EXPORT bool http_header_value_match(char const* value, char const* token, char separator);

#endif
