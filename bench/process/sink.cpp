// The light service: accepts everything, keeps nothing, and has no documents.
#include <httplib.h>

#include <cstdio>

int main() {
  httplib::Server server;
  server.set_tcp_nodelay(true);  // else the client's delayed acknowledgements are measured
  server.Get(".*", [](const httplib::Request&, httplib::Response& answer) { answer.status = 404; });
  server.Post(".*",
              [](const httplib::Request&, httplib::Response& answer) { answer.set_content("{}", "application/json"); });
  std::printf("listening on http://127.0.0.1:%d\n", server.bind_to_any_port("127.0.0.1"));
  std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}
