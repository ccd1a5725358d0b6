#include "http_test_util.h"

// Under the sanitizers GCC takes a Boost.Optional inside Beast's parser for
// maybe uninitialized; the warning is about Boost's code, not ours.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>

namespace http = boost::beast::http;

namespace
{
  std::string status_line(int status)
  {
    const char* reason = status == 200 ? "OK" : status == 201 ? "Created" : status == 204 ? "No Content"
                       : status == 404 ? "Not Found" : status == 500 ? "Internal Server Error" : "Status";
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
  }
}

Reply Reply::json(int status, const std::string& body, const char* type)
{
  Reply r;
  r.bytes = status_line(status);
  if (type)
    r.bytes += std::string("Content-Type: ") + type + "\r\n";
  r.bytes += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  return r;
}

Reply Reply::chunked(int status, const std::string& body, size_t chunk)
{
  Reply r;
  r.bytes = status_line(status) + "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n";
  char size[32];
  for (size_t at = 0; at < body.size(); at += chunk)
  {
    size_t n = std::min(chunk, body.size() - at);
    std::snprintf(size, sizeof size, "%zx\r\n", n);
    r.bytes += size + body.substr(at, n) + "\r\n";
  }
  r.bytes += "0\r\n\r\n";
  return r;
}

Reply Reply::close_delimited(int status, const std::string& body)
{
  Reply r;
  r.bytes = status_line(status) + "Content-Type: application/json\r\nConnection: close\r\n\r\n" + body;
  r.close = true;
  return r;
}

Reply Reply::cut(const Reply& whole, size_t n)
{
  Reply r = whole;
  r.bytes = whole.bytes.substr(0, n);
  r.close = true;
  return r;
}

Scripted_Server::Scripted_Server(std::vector<Reply> replies) : replies_(std::move(replies))
{
  listener_ = loopback_listener(port_);
  if (listener_ < 0)
    throw std::runtime_error("scripted server: no listening socket");
  acceptor_ = std::thread([this] { accept_loop(); });
}

Scripted_Server::~Scripted_Server()
{
  stopping_ = true;
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  {
    std::lock_guard<std::mutex> guard(mutex_);
    for (int fd : open_)
      shutdown(fd, SHUT_RDWR);
  }
  for (std::thread& t : threads_)
    t.join();
}

std::vector<Scripted_Request> Scripted_Server::requests_copy() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

void Scripted_Server::accept_loop()
{
  while (!stopping_)
  {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      return;
    int number = ++connections_;
    std::lock_guard<std::mutex> guard(mutex_);
    open_.push_back(fd);
    threads_.emplace_back([this, fd, number] { serve(fd, number); });
  }
}

void Scripted_Server::serve(int fd, int number)
{
  std::string buffer;
  char piece[65536];
  bool open = true;
  while (open && !stopping_)
  {
    http::request_parser<http::string_body> parser;
    parser.body_limit((std::numeric_limits<std::uint64_t>::max)());
    parser.eager(true);
    const Reply* reply = nullptr;
    size_t seen_body = 0;
    while (!parser.is_done())
    {
      if (!buffer.empty())
      {
        boost::beast::error_code ec;
        size_t used = parser.put(boost::asio::buffer(buffer.data(), buffer.size()), ec);
        buffer.erase(0, used);
        if (ec && ec != http::error::need_more)
        {
          open = false;
          break;
        }
        if (parser.is_header_done() && !reply)
          reply = &replies_[std::min<size_t>(static_cast<size_t>(heads_++), replies_.size() - 1)];
        size_t now = parser.get().body().size();
        body_bytes_ += now - seen_body;
        seen_body = now;
        if (reply && reply->drop_after >= 0 && now >= static_cast<size_t>(reply->drop_after))
          break;
        if (parser.is_done() || (used > 0 && !buffer.empty()))
          continue;
      }
      ssize_t n = recv(fd, piece, sizeof piece, 0);
      if (n <= 0)
      {
        open = false;
        break;
      }
      buffer.append(piece, static_cast<size_t>(n));
    }
    if (!reply)
      break;
    if (parser.is_done() || reply->drop_after >= 0)
    {
      const auto& in = parser.get();
      Scripted_Request r{std::string(in.method_string()), std::string(in.target()), {}, in.body(), number};
      for (const auto& field : in)
      {
        // Repeated fields are joined, as a list.
        std::string& value = r.headers[boost::algorithm::to_lower_copy(std::string(field.name_string()))];
        value += (value.empty() ? "" : ", ") + std::string(field.value());
      }
      std::lock_guard<std::mutex> guard(mutex_);
      requests_.push_back(std::move(r));
    }
    if (reply->drop_after >= 0)
    {
      // Unread bytes make the close a reset: the client's writes fail.
      std::lock_guard<std::mutex> guard(mutex_);
      close(fd);
      open_.erase(std::find(open_.begin(), open_.end(), fd));
      return;
    }
    if (reply->delay_ms)
      std::this_thread::sleep_for(std::chrono::milliseconds(reply->delay_ms));
    send_all(fd, reply->bytes);
    if (reply->close || !parser.is_done())
      break;
  }
  shutdown(fd, SHUT_WR);
  // Let the client see the end before the socket goes.
  while (recv(fd, piece, sizeof piece, 0) > 0)
  {
  }
  std::lock_guard<std::mutex> guard(mutex_);
  close(fd);
  open_.erase(std::find(open_.begin(), open_.end(), fd));
}
