// Cuts a TCP byte stream into messages (Content-Length or NDJSON framing), a push parser.
#include "transport/tcp_framing.h"
#include "transport/tcp_channel.h"

#include <algorithm>
#include <cstring>

namespace
{
  bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

  // Characters of a header name (an HTTP token).
  bool is_token(unsigned char c)
  {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c && std::strchr("!#$%&'*+-.^_`|~", c));
  }

  bool same_name(const std::string& name, const char* lower)
  {
    size_t n = std::strlen(lower);
    if (name.size() != n)
      return false;
    for (size_t i = 0; i < n; ++i)
    {
      char c = name[i];
      if (c >= 'A' && c <= 'Z')
        c = static_cast<char>(c - 'A' + 'a');
      if (c != lower[i])
        return false;
    }
    return true;
  }

  // Digits only, at most 2^63 - 1.
  bool parse_length(const std::string& text, unsigned long long& out)
  {
    if (text.empty())
      return false;
    unsigned long long v = 0;
    for (char c : text)
    {
      if (c < '0' || c > '9')
        return false;
      unsigned digit = static_cast<unsigned>(c - '0');
      if (v > (9223372036854775807ULL - digit) / 10)
        return false;
      v = v * 10 + digit;
    }
    out = v;
    return true;
  }
}

TCP_Frame_Reader::TCP_Frame_Reader(const TCP_Options& options, JSON_RPC_Channel_Weak_Ptr channel)
  : framing_(options.framing), max_header_size_(options.max_header_size),
    max_message_size_(options.max_message_size), channel_(channel), state_(STATE_IDLE), header_bytes_(0),
    has_length_(false), length_(0), body_bytes_(0), assembled_bytes_(0),
    // Fine enough that the bytes miscounted where streaming starts or ends
    // are a small part of the limit.
    count_step_(static_cast<size_t>(std::max(64ULL, std::min(16384ULL, options.max_message_size / 8))))
{
  // Params filters see the params of the methods they were loaded for as
  // they stream in; other methods are read as usual.
  reader_.mode((options.forward_responses ? JSON_RPC_Reader::MODE_FORWARD_RESPONSE : JSON_RPC_Reader::MODE_ASSEMBLE) |
               JSON_RPC_Reader::MODE_FILTER_REQUEST);
}

TCP_Frame_Reader::~TCP_Frame_Reader() {}

void TCP_Frame_Reader::close() { let_go("Internal error, forwarder is closed."); }

void TCP_Frame_Reader::let_go(const char* answer)
{
  // A response that breaks off in the middle of its forward: its requester
  // must not wait for the rest. The reader still holds the requester's lock.
  JSON_RPC_Channel_Strong_Ptr requester = reader_.request_channel();
  TCP_Channel* tcp = reader_.state() == JSON_RPC_Reader::STATE_FORWARDING ? TCP_Channel::cast(requester) : nullptr;
  bool answer_requester = tcp && !tcp->abandon_message();
  json_spirit::Value id = reader_.id();
  reader_.close();
  if (answer_requester)
    requester->send_error(-32603, id, answer, json_spirit::Value::null);
}

void TCP_Frame_Reader::refused()
{
  // The answer is taken before the reader lets go of what it saw.
  JSON_RPC_Object_Ptr answer = reader_.refusal();
  let_go(nullptr);
  JSON_RPC_Channel_Strong_Ptr channel(channel_);
  if (answer.get() && !channel.null())
    channel->send_object(answer);
}

int TCP_Frame_Reader::fail(std::string what)
{
  state_ = STATE_FAILED;
  error_ = std::move(what);
  return -1;
}

bool TCP_Frame_Reader::refuse(std::string what)
{
  fail(std::move(what));
  return false;
}

void TCP_Frame_Reader::begin()
{
  started_ = std::chrono::steady_clock::now();
  header_bytes_ = 0;
  has_length_ = false;
  length_ = 0;
  body_bytes_ = 0;
  assembled_bytes_ = 0;
  line_.clear();
}

bool TCP_Frame_Reader::open_reader()
{
  if (!reader_.open())
    return false;
  // open() clears the channels, so they are set again for every message.
  reader_.channel(channel_);
  state_ = STATE_BODY;
  return true;
}

bool TCP_Frame_Reader::header_line()
{
  size_t colon = line_.find(':');
  if (colon == std::string::npos || colon == 0)
    return refuse("malformed header line");
  std::string name = line_.substr(0, colon);
  for (char c : name)
    if (!is_token(static_cast<unsigned char>(c)))
      return refuse("malformed header line");
  size_t first = line_.find_first_not_of(" \t", colon + 1);
  size_t last = line_.find_last_not_of(" \t");
  std::string value = first == std::string::npos ? std::string() : line_.substr(first, last - first + 1);
  if (!same_name(name, "content-length"))
    return true; // Content-Type and anything else: not needed to read the body
  unsigned long long length = 0;
  if (!parse_length(value, length))
    return refuse("bad Content-Length \"" + value.substr(0, 32) + "\"");
  if (has_length_ && length != length_)
    return refuse("conflicting Content-Length headers");
  has_length_ = true;
  length_ = length;
  return true;
}

int TCP_Frame_Reader::finish(const Handler& handler)
{
  state_ = STATE_IDLE;
  if (!reader_.read(nullptr, 0))
  {
    refused();
    return 0;
  }
  bool go_on = handler(reader_);
  // The reader's hold on the message, and its parser, go now, not when
  // the next one starts: freeing them then would delay that message, and
  // an idle connection holds nothing.
  reader_.close();
  return go_on ? 0 : 1;
}

int TCP_Frame_Reader::feed(const char* data, size_t length, const Handler& handler, size_t* taken)
{
  const char* p = data;
  const char* end = data + length;
  while (p < end)
  {
    switch (state_)
    {
    case STATE_FAILED: return -1;

    case STATE_IDLE:
      if (framing_ == TCP_Options::FRAMING_NDJSON)
      {
        while (p < end && is_space(*p))
          ++p;
        if (p == end)
          break;
        begin();
        if (!open_reader())
          return fail("can't open the reader");
      }
      else
      {
        begin();
        state_ = STATE_HEADER;
      }
      break;

    case STATE_HEADER:
    {
      const char* nl = static_cast<const char*>(std::memchr(p, '\n', end - p));
      size_t take = (nl ? nl + 1 : end) - p;
      header_bytes_ += take;
      if (header_bytes_ > max_header_size_)
        return fail("header larger than " + std::to_string(max_header_size_) + " bytes");
      line_.append(p, nl ? take - 1 : take);
      p += take;
      if (!nl)
        break;
      if (!line_.empty() && line_.back() == '\r')
        line_.pop_back();
      if (!line_.empty())
      {
        if (!header_line())
          return -1;
        line_.clear();
        break;
      }
      if (!has_length_)
        return fail("no Content-Length header");
      if (!open_reader())
        return fail("can't open the reader");
      if (length_ == 0)
      {
        int r = finish(handler);
        if (r != 0)
        {
          if (taken)
            *taken = static_cast<size_t>(p - data);
          return r;
        }
      }
      break;
    }

    case STATE_BODY:
    case STATE_SKIP:
    {
      size_t take;
      const char* nl = nullptr;
      if (framing_ == TCP_Options::FRAMING_CONTENT_LENGTH)
      {
        unsigned long long left = length_ - body_bytes_;
        take = left < static_cast<unsigned long long>(end - p) ? static_cast<size_t>(left) : end - p;
      }
      else
      {
        nl = static_cast<const char*>(std::memchr(p, '\n', end - p));
        take = (nl ? nl : end) - p;
      }
      body_bytes_ += take;
      // Only what is held counts against the limit: the reader is fed in
      // steps, each taken as held if the reader assembles after it. (A
      // zero length would end the parse: only finish() may do that.)
      for (size_t at = 0; at < take && state_ == STATE_BODY;)
      {
        size_t step = std::min(take - at, count_step_);
        if (!reader_.read(p + at, step))
        {
          refused();
          state_ = STATE_SKIP;
          break;
        }
        at += step;
        if (!reader_.streaming())
          assembled_bytes_ += step;
        if (max_message_size_ && assembled_bytes_ > max_message_size_)
          return fail("message exceeds the limit of " + std::to_string(max_message_size_) + " bytes");
      }
      p += take;
      bool done = framing_ == TCP_Options::FRAMING_CONTENT_LENGTH ? body_bytes_ == length_ : nl != nullptr;
      if (nl)
        ++p;
      if (done && state_ == STATE_SKIP)
        state_ = STATE_IDLE;
      else if (done)
      {
        int r = finish(handler);
        if (r != 0)
        {
          if (taken)
            *taken = static_cast<size_t>(p - data);
          return r;
        }
      }
      break;
    }
    }
  }
  return state_ == STATE_FAILED ? -1 : 0;
}
