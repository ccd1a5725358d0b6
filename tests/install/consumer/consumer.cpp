// A program outside the project: reads the message given as its argument in
// two pieces and prints it as the writer writes it.
#include <json_rpc/json_rpc_generator.h>
#include <json_rpc/json_rpc_reader.h>
#include <json_spirit/json_spirit_value.h>
#include <tessel/yajl_gen.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char* argv[])
{
  if (argc != 2)
  {
    std::fprintf(stderr, "usage: %s MESSAGE\n", argv[0]);
    return 2;
  }
  const char* text = argv[1];
  size_t length = std::strlen(text);

  JSON_RPC_Reader reader;
  if (!reader.open() || !reader.read(text, length / 2) || !reader.read(text + length / 2, length - length / 2) ||
      !reader.read(nullptr, 0) || reader.object().get() == nullptr)
  {
    std::fprintf(stderr, "message refused\n");
    return 1;
  }
  std::string out;
  YAJL_String_Printer printer(&out);
  if (!JSON_RPC_Writer().write(*reader.object(), printer))
    return 1;
  std::printf("%s\n", out.c_str());
  return 0;
}
