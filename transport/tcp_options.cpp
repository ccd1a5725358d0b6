#include "transport/tcp_options.h"

TCP_Options::TCP_Options()
  : framing(FRAMING_CONTENT_LENGTH), read_limit(60), send_limit(60), max_header_size(8192), max_message_size(0),
    forward_responses(false), register_channel(true), use_pool(false)
{
}
