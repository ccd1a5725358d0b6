// The cookies a session keeps: what a browser keeps for a page that has no
// script, in memory, for the life of the session.

#include "tessel/http_internal.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <strings.h>

namespace
{
  // A server that sends more than this gets its oldest ones forgotten.
  const size_t max_cookies = 300;
  const size_t max_cookie_size = 4096;

  std::string trim(char const* begin, char const* end)
  {
    while (begin < end && (*begin == ' ' || *begin == '\t'))
      ++begin;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t'))
      --end;
    return std::string(begin, end);
  }

  std::string lower(std::string s)
  {
    for (char& c : s)
      if (c >= 'A' && c <= 'Z')
        c = static_cast<char>(c - 'A' + 'a');
    return s;
  }

  // The path of a request URI, without query or fragment.
  std::string uri_path(char const* uri)
  {
    if (!uri || *uri != '/')
      return "/";
    size_t n = std::strcspn(uri, "?#");
    return std::string(uri, n);
  }

  std::string default_path(char const* uri)
  {
    std::string path = uri_path(uri);
    size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
  }

  bool domain_match(const std::string& host, const std::string& domain)
  {
    if (host == domain)
      return true;
    return host.size() > domain.size() && host.compare(host.size() - domain.size(), domain.size(), domain) == 0 &&
           host[host.size() - domain.size() - 1] == '.';
  }

  bool path_match(const std::string& request_path, const std::string& path)
  {
    if (request_path.compare(0, path.size(), path) != 0)
      return false;
    return request_path.size() == path.size() || path.back() == '/' || request_path[path.size()] == '/';
  }

  bool is_ip_literal(const std::string& host)
  {
    return host.find(':') != std::string::npos ||
           std::all_of(host.begin(), host.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
  }

  // "Wed, 21 Oct 2015 07:28:00 GMT"; -1 when unreadable.
  time_t parse_date(const std::string& text)
  {
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    char const* formats[] = {"%a, %d %b %Y %H:%M:%S", "%a, %d-%b-%Y %H:%M:%S", "%a, %d-%b-%y %H:%M:%S"};
    for (char const* format : formats)
    {
      std::memset(&tm, 0, sizeof tm);
      if (strptime(text.c_str(), format, &tm))
        return timegm(&tm);
    }
    return -1;
  }
}

void HTTP_Cookie_Jar::store(char const* set_cookie, const std::string& request_host, char const* uri,
                            bool secure_channel)
{
  if (!set_cookie || std::strlen(set_cookie) > max_cookie_size)
    return;
  char const* end = set_cookie + std::strlen(set_cookie);
  char const* semi = std::find(set_cookie, end, ';');
  char const* eq = std::find(set_cookie, semi, '=');
  if (eq == semi)
    return;
  Cookie c;
  c.order = 0;
  c.name = trim(set_cookie, eq);
  c.value = trim(eq + 1, semi);
  if (c.name.empty())
    return;
  std::string host = lower(request_host);
  c.domain = host;
  c.host_only = true;
  c.path = default_path(uri);
  c.secure = false;
  c.expires = 0;
  time_t now = std::time(nullptr);
  bool has_max_age = false;
  bool remove = false;
  for (char const* at = semi; at < end;)
  {
    char const* next = std::find(at + 1, end, ';');
    char const* aeq = std::find(at + 1, next, '=');
    std::string name = lower(trim(at + 1, aeq));
    std::string value = aeq < next ? trim(aeq + 1, next) : std::string();
    at = next;
    if (name == "domain" && !value.empty())
    {
      if (value[0] == '.')
        value.erase(0, 1);
      value = lower(value);
      // A cookie for a domain its sender doesn't belong to is refused whole.
      if (!domain_match(host, value) || (is_ip_literal(host) && host != value))
        return;
      c.domain = value;
      c.host_only = false;
    }
    else if (name == "path")
      c.path = !value.empty() && value[0] == '/' ? value : default_path(uri);
    else if (name == "secure")
      c.secure = true;
    else if (name == "max-age" && !value.empty())
    {
      char* stop = nullptr;
      long long seconds = std::strtoll(value.c_str(), &stop, 10);
      if (*stop)
        continue;
      has_max_age = true;
      if (seconds <= 0)
        remove = true;
      else
        c.expires = now + static_cast<time_t>(seconds);
    }
    else if (name == "expires" && !has_max_age)
    {
      time_t when = parse_date(value);
      if (when == -1)
        continue;
      if (when <= now)
        remove = true;
      else
        c.expires = when;
    }
  }
  // A plain channel may not set a Secure cookie.
  if (c.secure && !secure_channel)
    return;
  std::lock_guard<std::mutex> guard(mutex_);
  for (auto i = cookies_.begin(); i != cookies_.end(); ++i)
    if (i->name == c.name && i->domain == c.domain && i->path == c.path)
    {
      c.order = i->order;
      cookies_.erase(i);
      break;
    }
  if (remove)
    return;
  if (c.order == 0)
    c.order = ++next_order_;
  cookies_.push_back(std::move(c));
  if (cookies_.size() > max_cookies)
  {
    auto oldest = std::min_element(cookies_.begin(), cookies_.end(),
                                   [](const Cookie& a, const Cookie& b) { return a.order < b.order; });
    cookies_.erase(oldest);
  }
}

void HTTP_Cookie_Jar::cookie_field(const std::string& request_host, char const* uri, bool secure_channel,
                                   std::string& out)
{
  out.clear();
  std::lock_guard<std::mutex> guard(mutex_);
  if (cookies_.empty())
    return;
  drop_expired(std::time(nullptr));
  std::string host = lower(request_host);
  std::string path = uri_path(uri);
  std::vector<const Cookie*> match;
  for (const Cookie& c : cookies_)
  {
    if (c.secure && !secure_channel)
      continue;
    if (c.host_only ? host != c.domain : !domain_match(host, c.domain))
      continue;
    if (!path_match(path, c.path))
      continue;
    match.push_back(&c);
  }
  // Longer paths first, then the older ones.
  std::sort(match.begin(), match.end(), [](const Cookie* a, const Cookie* b) {
    return a->path.size() != b->path.size() ? a->path.size() > b->path.size() : a->order < b->order;
  });
  for (const Cookie* c : match)
  {
    if (!out.empty())
      out += "; ";
    out += c->name;
    out += '=';
    out += c->value;
  }
}

void HTTP_Cookie_Jar::drop_expired(time_t now)
{
  cookies_.erase(std::remove_if(cookies_.begin(), cookies_.end(),
                                [now](const Cookie& c) { return c.expires != 0 && c.expires <= now; }),
                 cookies_.end());
}

void HTTP_Cookie_Jar::clear()
{
  std::lock_guard<std::mutex> guard(mutex_);
  cookies_.clear();
}

size_t HTTP_Cookie_Jar::size() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return cookies_.size();
}
