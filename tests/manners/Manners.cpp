#include "manners/Manners.h"

#include <cstdlib>
#include <sstream>

namespace kelvo::test {

void Hosts::play(Program& host, const Texts& lines) {
  for (const auto& line : lines) {
    if (line == kStarted) {
      ASSERT_TRUE(host.waitForError(kStarted)) << host.output() << host.errors();
    } else if (line[0] == '/') {
      ASSERT_TRUE(service.waitFor(1, line)) << line << host.output() << host.errors();
    } else {
      host.writeLine(line);
    }
  }
}

Program::Environment Hosts::serveTLS(collector::Server& server, const std::string& names, int days, bool trusted) {
  const std::string key = home() + "/key.pem", request = home() + "/request.pem",
                    certificate = home() + "/certificate.pem";
  const std::string command =
      "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=test -keyout " + key + " -out " +
      request + " 2>/dev/null && openssl x509 -req -in " + request + " -signkey " + key +
      " -extfile <(echo subjectAltName=" + names + ") -days " + std::to_string(days) + " -out " + certificate +
      " 2>/dev/null";
  EXPECT_EQ(std::system(("bash -c '" + command + "'").c_str()), 0);
  const std::string entry = trusted ? "<key>KelvoCAFile</key><string>" + certificate + "</string>" : "";
  EXPECT_NE(server.startTLS(certificate, key), 0);
  return {{"KELVO_SERVER_BASE_URL", server.baseURL()}, {"KELVO_BUNDLE", bundle("", entry)}};
}

std::string Hosts::sent() const {
  std::string bodies;
  for (const auto& request : service.requests("/chunks")) bodies += request.body;
  return bodies;
}

Texts linesAfter(const std::string& start, const std::string& text) {
  Texts found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(start, 0) == 0) found.push_back(line.substr(start.size()));
  }
  return found;
}

}  // namespace kelvo::test
