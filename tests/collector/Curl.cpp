#include "Curl.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "platform/JSON.h"
#include "support/TestHome.h"

namespace kelvo::test {

Dictionary CurlResult::json() const {
  const auto value = parseJSON(body);
  const auto* dictionary = value ? value->get<Dictionary>() : nullptr;
  return dictionary == nullptr ? Dictionary{} : *dictionary;
}

CurlResult curl(const std::string& arguments) {
  FILE* pipe = popen(("curl --silent --noproxy '*' --write-out '\\n%{http_code}' " + arguments).c_str(), "r");
  CurlResult result;
  if (pipe == nullptr) return result;
  char bytes[4096];
  for (std::size_t size = 0; (size = fread(bytes, 1, sizeof bytes, pipe)) > 0;) result.body.append(bytes, size);
  const int ended = pclose(pipe);
  result.exitCode = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
  if (const auto line = result.body.rfind('\n'); line != std::string::npos) {
    result.status = std::atoi(result.body.c_str() + line + 1);
    result.body.resize(line);
  }
  return result;
}

CurlResult post(const std::string& url, const std::string& body, const std::string& moreArguments) {
  const std::string file = home() + "/body";
  writeFileForTest(file, body);
  return curl(moreArguments + " -H 'Content-Type: application/json' --data-binary @'" + file + "' '" + url + "'");
}

}  // namespace kelvo::test
