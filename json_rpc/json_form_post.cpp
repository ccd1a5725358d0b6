#include "json_rpc/json_form_post.h"
#include "json_spirit/json_spirit_reader.h"

#include <ace/Log_Msg.h>

namespace
{
  enum Url_Encode_Flags
  {
    ENCODE_SLASH = 1,
    BLANK_AS_PLUS = 2,
    UPPER_HEX = 4,
    PASS_COLON = 8,
    PASS_LEFT_PAREN = 16,
    PASS_RIGHT_PAREN = 32,
    PASS_QUOTE = 64,
    PASS_STAR = 128,
    PASS_BANG = 512,
    PASS_HASH = 1024,
    PASS_DOLLAR = 2048,
    PASS_AMPERSAND = 4096,
    PASS_PLUS = 8192,
    PASS_COMMA = 16384,
    PASS_SEMICOLON = 32768,
    PASS_EQUALS = 65536,
    PASS_QUESTION = 131072,
    PASS_AT = 262144
  };

  const unsigned form_flags = ENCODE_SLASH | BLANK_AS_PLUS;

  bool passes(unsigned char c, unsigned flags)
  {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
      return true;
    switch (c)
    {
    case '-':
    case '_':
    case '.':
    case '~': return true;
    case '/': return !(flags & ENCODE_SLASH);
    case ':': return flags & PASS_COLON;
    case '(': return flags & PASS_LEFT_PAREN;
    case ')': return flags & PASS_RIGHT_PAREN;
    case '\'': return flags & PASS_QUOTE;
    case '*': return flags & PASS_STAR;
    case '!': return flags & PASS_BANG;
    case '#': return flags & PASS_HASH;
    case '$': return flags & PASS_DOLLAR;
    case '&': return flags & PASS_AMPERSAND;
    case '+': return flags & PASS_PLUS;
    case ',': return flags & PASS_COMMA;
    case ';': return flags & PASS_SEMICOLON;
    case '=': return flags & PASS_EQUALS;
    case '?': return flags & PASS_QUESTION;
    case '@': return flags & PASS_AT;
    }
    return false;
  }

  int url_encode(const char* text, unsigned flags, std::string& output)
  {
    if (!text || !*text)
      return 0;
    const char* hex = (flags & UPPER_HEX) ? "0123456789ABCDEF" : "0123456789abcdef";
    for (const unsigned char* at = reinterpret_cast<const unsigned char*>(text); *at; ++at)
    {
      if (passes(*at, flags))
        output += static_cast<char>(*at);
      else if (*at == ' ' && (flags & BLANK_AS_PLUS))
        output += '+';
      else
      {
        output += '%';
        output += hex[*at >> 4];
        output += hex[*at & 15];
      }
    }
    return 1;
  }

  class Form_Encoder
  {
  public:
    explicit Form_Encoder(std::string& output) : output_(output), started_(false) {}

    Form_Encoder& add(const char* name, const char* value, bool encode_name, bool encode_value, const char* prefix)
    {
      if (!name || !*name)
        return *this;
      if (started_)
        output_ += '&';
      else
        started_ = true;
      if (encode_name)
      {
        url_encode(prefix, form_flags, output_);
        url_encode(name, form_flags, output_);
      }
      else
      {
        if (prefix)
          output_ += prefix;
        output_ += name;
      }
      if (value)
      {
        output_ += '=';
        if (*value)
        {
          if (encode_value)
            url_encode(value, form_flags, output_);
          else
            output_ += value;
        }
      }
      return *this;
    }

  private:
    std::string& output_;
    bool started_;
  };
}

bool http_post_urlencoded_form(HTTP_Session_Ptr session, HTTP_Request& request,
                               const std::map<std::string, std::string>& form, HTTP_Response& response,
                               json_spirit::Value* out)
{
  std::string body;
  Form_Encoder encoder(body);
  for (const auto& pair : form)
    encoder.add(pair.first.c_str(), pair.second.c_str(), true, true, nullptr);
  request.content_type("application/x-www-form-urlencoded");
  request.content_length(body.size());
  if (out)
    request.headers().put(HTTP_Headers::ACCEPT, "application/json", true);
  HTTP_Connection_Ptr connection = session->begin_form_request(request);
  if (!connection.get())
  {
    ACE_ERROR((LM_ERROR, "Failed to send request to '%C'.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  if (connection->write(body.data(), body.size()) != static_cast<ssize_t>(body.size()))
  {
    ACE_ERROR((LM_ERROR, "Failed to send data to '%C'.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  response.reset();
  if (connection->read_response(response) == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to receive response from '%C'.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  if (!out)
    return true;
  if (!response.has_body())
  {
    ACE_ERROR((LM_ERROR, "Response from '%C' has no body.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  JSON_Reader reader;
  if (!reader.open())
  {
    ACE_ERROR((LM_ERROR, "Failed to open JSON %C reader.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  reader.result(out);
  int read = http_read_body(*connection, [&reader](char const* data, size_t length) {
    return reader.read(data, length, 1);
  });
  if (read == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to read data from '%C', error=%d.\n", HTTP_Session_URL(session, request).c_str(),
               connection->error()));
    return false;
  }
  if (read == -2)
  {
    ACE_ERROR((LM_ERROR, "Failed to parse JSON response from '%C'.\n", HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  if (!reader.read(nullptr, 0, 1))
  {
    ACE_ERROR((LM_ERROR, "Failed to finish parsing JSON response from '%C'.\n",
               HTTP_Session_URL(session, request).c_str()));
    return false;
  }
  return true;
}
