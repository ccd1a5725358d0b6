// Answers a request from a local file: 200 and its bytes, or 404.

#include "tessel/http_file_connection.h"

#include <ace/Log_Msg.h>

#include <cerrno>

HTTP_File_Connection::HTTP_File_Connection(const std::string& path)
  : file_(std::fopen(path.c_str(), "rb")), state_(STATE_REQUEST), error_(0), size_(0)
{
  if (file_ && (std::fseek(file_, 0, SEEK_END) != 0 || (size_ = std::ftell(file_)) < 0 ||
                std::fseek(file_, 0, SEEK_SET) != 0))
  {
    std::fclose(file_);
    file_ = nullptr;
  }
  if (!file_)
    ACE_ERROR((LM_ERROR, "Failed to open %C, the file for an HTTP URI, errno=%d, %m\n", path.c_str(), errno));
  dot_ = path.rfind('.');
  json_ = dot_ != std::string::npos && path.compare(dot_, std::string::npos, ".json") == 0;
}

HTTP_File_Connection::~HTTP_File_Connection()
{
  if (file_)
    std::fclose(file_);
}

ssize_t HTTP_File_Connection::write(char const*, size_t length)
{
  if (state_ != STATE_REQUEST)
  {
    errno = EINVAL;
    return -1;
  }
  return static_cast<ssize_t>(length);
}

int HTTP_File_Connection::read_response(HTTP_Response& response)
{
  if (state_ != STATE_REQUEST)
  {
    errno = EINVAL;
    return -1;
  }
  response.reset();
  if (!file_)
  {
    response.status(404);
    response.reason("Not Found", 9);
    response.content_length(0);
    state_ = STATE_BODY_END;
    return 0;
  }
  response.status(200);
  response.reason("OK", 2);
  response.content_type(json_ ? "application/json" : "application/octet-stream");
  response.content_length(static_cast<unsigned long long>(size_));
  response.has_body(size_ > 0);
  state_ = size_ > 0 ? STATE_RESPONSE : STATE_BODY_END;
  return 0;
}

ssize_t HTTP_File_Connection::read_body(ACE_Message_Block* block, const ACE_Time_Value*, int)
{
  if (state_ == STATE_BODY_END)
    return 0;
  if (state_ != STATE_RESPONSE || !block || block->space() == 0)
  {
    errno = error_ = state_ != STATE_RESPONSE ? EINVAL : ENOBUFS;
    return -1;
  }
  size_t n = std::fread(block->wr_ptr(), 1, block->space(), file_);
  block->wr_ptr(n);
  if (n == 0 && std::ferror(file_))
  {
    state_ = STATE_CLOSED;
    errno = error_ = EIO;
    return -1;
  }
  if (std::feof(file_) || std::ftell(file_) >= size_)
    state_ = STATE_BODY_END;
  return static_cast<ssize_t>(n);
}
