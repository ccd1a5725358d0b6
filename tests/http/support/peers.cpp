#include "http_test_util.h"

#include <stdexcept>

#ifndef NODE_PEERS_DIR
#error NODE_PEERS_DIR must name tests/http/node
#endif

Node_Peer::Node_Peer(const char* script)
  : process_({"node", std::string(NODE_PEERS_DIR) + "/" + script}), port_(process_.port_after("PORT ", 30))
{
  if (!port_)
    throw std::runtime_error(std::string("node ") + script +
                             " did not start: are node and tests/http/node/node_modules installed "
                             "(scripts/setup.sh)?");
}

Nginx_Peer::Nginx_Peer(unsigned short proxy_port, int keepalive_timeout) : port_(0)
{
  std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost"
                        " -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout '" +
                        dir_.file("key.pem") + "' -out '" + dir_.file("cert.pem") + "' >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0)
    throw std::runtime_error("openssl could not make a certificate");
  mkdir(dir_.file("www").c_str(), 0755);
  mkdir(dir_.file("tmp").c_str(), 0755);
  for (int attempt = 0; attempt < 3 && !port_; ++attempt)
  {
    unsigned short port = free_port();
    std::ofstream conf(dir_.file("nginx.conf"));
    conf << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
         << "error_log " << dir_.file("error.log") << " warn;\n"
         << "pid " << dir_.file("nginx.pid") << ";\n"
         << "events { worker_connections 64; }\n"
         << "http {\n"
         << "  log_format counted '$connection $connection_requests $status $request_method $request_uri';\n"
         << "  access_log " << dir_.file("access.log") << " counted;\n";
    for (const std::string temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      conf << "  " << temp << "_temp_path " << dir_.file("tmp/" + temp) << ";\n";
    conf << "  types { application/json json; text/plain txt; }\n"
         << "  default_type application/octet-stream;\n"
         << "  keepalive_timeout " << keepalive_timeout << "s;\n"
         << "  server {\n"
         << "    listen 127.0.0.1:" << port << " ssl;\n"
         << "    server_name localhost;\n"
         << "    ssl_certificate " << dir_.file("cert.pem") << ";\n"
         << "    ssl_certificate_key " << dir_.file("key.pem") << ";\n"
         << "    client_max_body_size 0;\n"
         << "    location / { root " << dir_.file("www") << "; }\n"
         << "    location = /cookie {\n"
         << "      add_header Set-Cookie \"tls_only=1; Path=/; Secure\";\n"
         << "      default_type application/json;\n"
         << "      return 200 '{\"ok\":true}';\n"
         << "    }\n";
    if (proxy_port)
      conf << "    location /rpc { proxy_pass http://127.0.0.1:" << proxy_port << "; proxy_http_version 1.1; }\n";
    conf << "  }\n}\n";
    conf.close();
    process_.reset(new Child({"nginx", "-p", dir_.path(), "-e", dir_.file("error.log"), "-c", dir_.file("nginx.conf")}));
    if (eventually([port] { return Socket_Client(port).connected(); }, 10))
      port_ = port;
  }
  if (!port_)
    throw std::runtime_error("nginx did not start: is it installed (scripts/setup.sh)? See " +
                             dir_.file("error.log"));
}

std::vector<std::string> Nginx_Peer::access_log(size_t expected) const
{
  // nginx writes the line after the response has gone out: give it a moment.
  std::vector<std::string> lines;
  eventually(
    [&] {
      lines.clear();
      std::ifstream in(dir_.file("access.log"));
      for (std::string line; std::getline(in, line);)
        lines.push_back(line);
      return lines.size() >= expected;
    },
    5);
  return lines;
}
