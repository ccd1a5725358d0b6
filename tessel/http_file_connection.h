#ifndef TESSEL_HTTP_FILE_CONNECTION_H
#define TESSEL_HTTP_FILE_CONNECTION_H

// A connection that answers from a local file, for the URIs of the file
// map; inside the HTTP client, not installed.

#include "tessel/http_connection.h"

#include <cstdio>
#include <string>

/// The answer to a request from a local file.
class HTTP_File_Connection : public HTTP_Connection
{
public:
  /// A file that can't be opened (logged) answers 404.
  explicit HTTP_File_Connection(const std::string& path);
  ~HTTP_File_Connection() override;

  /// The body is dropped.
  ssize_t write(char const* data, size_t length) override;
  int read_response(HTTP_Response& response) override;
  ssize_t read_body(ACE_Message_Block* block, const ACE_Time_Value* timeout, int mode) override;
  int state() const override { return state_; }
  int error() const override { return error_; }

private:
  FILE* file_;
  int state_;
  int error_;
  long size_;
  size_t dot_;
  bool json_;
};

#endif
