#include "peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

#ifndef NODE_PEERS_DIR
#error NODE_PEERS_DIR must name tests/http/node
#endif

Temp_Dir::Temp_Dir()
{
  char name[] = "/tmp/http-test-XXXXXX";
  if (!mkdtemp(name))
    throw std::runtime_error("mkdtemp failed");
  path_ = name;
  chmod(name, 0755);
}

Temp_Dir::~Temp_Dir()
{
  std::string command = "rm -rf '" + path_ + "'";
  if (std::system(command.c_str()) != 0)
    std::perror("rm");
}

Peer_Process::Peer_Process(const std::vector<std::string>& argv) : pid_(-1), in_(-1), out_(-1)
{
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_ = out[0];
  if (rc != 0)
  {
    close(in_);
    close(out_);
    in_ = out_ = -1;
    return;
  }
  pid_ = pid;
}

Peer_Process::~Peer_Process() { stop(); }

unsigned short Peer_Process::wait_port(int seconds)
{
  std::string seen;
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < until && pid_ > 0)
  {
    pollfd p = {out_, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0)
      continue;
    char buffer[256];
    ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0)
      return 0;
    seen.append(buffer, static_cast<size_t>(n));
    size_t at = seen.find("PORT ");
    if (at != std::string::npos && seen.find('\n', at) != std::string::npos)
      return static_cast<unsigned short>(std::atoi(seen.c_str() + at + 5));
  }
  return 0;
}

void Peer_Process::stop()
{
  if (in_ != -1)
    close(in_);
  if (out_ != -1)
    close(out_);
  in_ = out_ = -1;
  if (pid_ <= 0)
    return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 50; ++i)
  {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_)
    {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

unsigned short free_port()
{
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a;
  std::memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t n = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
  close(s);
  return ntohs(a.sin_port);
}

namespace
{
  int connect_loopback(unsigned short port)
  {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
      return s;
    close(s);
    return -1;
  }
}

bool wait_listening(unsigned short port, int seconds)
{
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < until)
  {
    int s = connect_loopback(port);
    if (s != -1)
    {
      close(s);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

std::string plain_get(unsigned short port, const std::string& path)
{
  int s = connect_loopback(port);
  if (s == -1)
    return std::string();
  // HTTP/1.0: the body ends with the connection, unchunked.
  std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
  if (write(s, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
  {
    close(s);
    return std::string();
  }
  std::string reply;
  char buffer[4096];
  ssize_t n;
  while ((n = read(s, buffer, sizeof buffer)) > 0)
    reply.append(buffer, static_cast<size_t>(n));
  close(s);
  size_t at = reply.find("\r\n\r\n");
  return at == std::string::npos ? std::string() : reply.substr(at + 4);
}

Node_Peer::Node_Peer(const char* script)
  : process_({"node", std::string(NODE_PEERS_DIR) + "/" + script}), port_(process_.wait_port(30))
{
  if (!port_)
    throw std::runtime_error(std::string("node ") + script +
                             " did not start: are node and tests/http/node/node_modules installed "
                             "(scripts/setup.sh)?");
}

Nginx_Peer::Nginx_Peer(unsigned short proxy_port, int keepalive_timeout) : port_(0), process_(nullptr)
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
         << "  access_log " << dir_.file("access.log") << " counted;\n"
         << "  client_body_temp_path " << dir_.file("tmp/body") << ";\n"
         << "  proxy_temp_path " << dir_.file("tmp/proxy") << ";\n"
         << "  fastcgi_temp_path " << dir_.file("tmp/fastcgi") << ";\n"
         << "  uwsgi_temp_path " << dir_.file("tmp/uwsgi") << ";\n"
         << "  scgi_temp_path " << dir_.file("tmp/scgi") << ";\n"
         << "  types { application/json json; text/plain txt; }\n"
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
    delete process_;
    process_ = new Peer_Process(
      {"nginx", "-p", dir_.path(), "-e", dir_.file("error.log"), "-c", dir_.file("nginx.conf")});
    if (wait_listening(port, 10))
      port_ = port;
  }
  if (!port_)
    throw std::runtime_error("nginx did not start: is it installed (scripts/setup.sh)? See " +
                             dir_.file("error.log"));
}

Nginx_Peer::~Nginx_Peer() { delete process_; }

void Nginx_Peer::serve(const std::string& name, const std::string& content) const
{
  std::ofstream out(dir_.file("www/" + name), std::ios::binary);
  out << content;
}

std::vector<std::string> Nginx_Peer::access_log(size_t expected) const
{
  // nginx writes the line after the response has gone out: give it a moment.
  std::vector<std::string> lines;
  for (int tries = 0; tries < 500; ++tries)
  {
    lines.clear();
    std::ifstream in(dir_.file("access.log"));
    std::string line;
    while (std::getline(in, line))
      lines.push_back(line);
    if (lines.size() >= expected)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return lines;
}
