#include "kelvo-inspect/Doctor.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>

#include "kelvo/Value.h"
#include "network/HTTPURL.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "platform/ServiceEndpoint.h"
#include "records/KLVSDKInfo.h"
#include "util/KLVServicePaths.h"

namespace kelvo::inspect {
namespace {

namespace fs = std::filesystem;
using Grade = Finding::Grade;

constexpr long kSecondsForAnswer = 10;
constexpr double kMilliseconds = 1000;
constexpr double kSlowSeconds = 2;
constexpr double kTolerableClockSkew = 60;  // seconds; sessions are dated by the device's clock

std::string textAt(const Dictionary& dictionary, std::string_view key) {
  const auto* text = dictionary[key].get<std::string>();
  return text != nullptr ? *text : std::string();
}

std::string appIdOf(const Bundle& bundle) {
  const auto* kelvo = bundle.infoDictionary()["Kelvo"].get<Dictionary>();
  return kelvo != nullptr ? textAt(*kelvo, "Core") : std::string();
}

Finding examineBundle(const Bundle& bundle, const std::string& directory) {
  const auto path = bundle.pathForResource("Info", "plist");
  if (!path) {
    return {Grade::doubtful, "bundle", "no Info.plist in " + directory,
            "Fine when the program calls initializeKelvoWithID; else write one (kelvo_add_bundle in CMake)"};
  }
  std::string error;
  const auto text = readFile(*path, &error);
  const auto content = text ? parsePropertyList(*text, &error) : std::nullopt;
  if (!content || content->get<Dictionary>() == nullptr) {
    return {Grade::bad, "bundle", *path + " is no property list: " + error, "Repair it; plistutil shows the place"};
  }
  const auto id = appIdOf(bundle);
  if (id.empty()) {
    return {Grade::doubtful, "bundle", *path + " names no application under Kelvo / Core",
            "Add it, or call initializeKelvoWithID"};
  }
  return {Grade::good, "bundle", fmt::format("{} starts application \"{}\" at load", *path, id), ""};
}

Finding examineHome(const std::optional<std::string>& home) {
  if (!home) {
    return {Grade::bad, "home", "there is no home directory", "Set KELVO_HOME or HOME; nothing can be stored"};
  }
  // What does not exist yet is made on first use, so the nearest directory above it counts.
  fs::path existing = *home;
  std::error_code failure;
  while (!fs::exists(existing, failure) && existing.has_relative_path()) existing = existing.parent_path();
  std::string probe = (existing / "kelvo-inspect.XXXXXX").string();
  const int file = ::mkstemp(probe.data());
  if (file < 0) {
    return {Grade::bad, "home", existing.string() + " cannot be written", "Give the program's user the right to it"};
  }
  ::close(file);
  ::unlink(probe.c_str());
  if (existing != fs::path(*home)) return {Grade::good, "home", *home + " will be made at the first start", ""};
  if (const auto user = HomeLock::holderOf(joinPath(*home, "Library"))) {
    return {Grade::good, "home", fmt::format("{} is used by process {} now", *home, *user), ""};
  }
  struct stat facts {};
  const auto library = joinPath(*home, "Library");
  if (::stat(library.c_str(), &facts) == 0 && (facts.st_mode & 077) != 0) {
    return {Grade::doubtful, "home", fmt::format("{} is open to others (mode {:o})", library, facts.st_mode & 0777),
            "chmod 700 it: it holds what the user did"};
  }
  return {Grade::good, "home", *home + " is writable and private", ""};
}

Finding examineAuthorities(const std::string& caFile) {
  const curl_version_info_data* transport = curl_version_info(CURLVERSION_NOW);
  std::string store = caFile;
  if (store.empty() && transport->cainfo != nullptr) store = transport->cainfo;
  std::error_code failure;
  if (store.empty() || (caFile.empty() && !fs::exists(store, failure))) {
    const std::string directory = transport->capath != nullptr ? transport->capath : "";
    if (!directory.empty() && fs::exists(directory, failure) && !fs::is_empty(directory, failure)) {
      return {Grade::good, "authorities", directory, ""};
    }
    return {Grade::bad, "authorities", "no store of trusted authorities was found", "apt-get install ca-certificates"};
  }
  const auto text = readFile(store);
  if (!text || text->find("BEGIN CERTIFICATE") == std::string::npos) {
    return {Grade::bad, "authorities", store + " holds no certificate in PEM form",
            caFile.empty() ? "apt-get install --reinstall ca-certificates" : "Correct KelvoCAFile in Info.plist"};
  }
  return {Grade::good, "authorities", store, ""};
}

/// The proxy that the environment names for `url`, without the password that may stand in it.
Finding examineProxy(const HTTPURL& url) {
  if (url.isLoopback()) return {Grade::good, "proxy", "none for a loopback address", ""};
  // Of the plain scheme only the lower-case name counts, as the upper-case one can be set by a web client.
  static constexpr std::array kSecure = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
  static constexpr std::array kPlain = {"http_proxy", "all_proxy", "ALL_PROXY"};
  const auto first = [](const auto& names) -> std::string {
    for (const char* name : names) {
      const char* value = std::getenv(name);
      if (value != nullptr && *value != '\0') return fmt::format("{}={}", name, value);
    }
    return {};
  };
  std::string found = url.scheme == "https" ? first(kSecure) : first(kPlain);
  if (found.empty()) return {Grade::good, "proxy", "none", ""};
  if (const auto at = found.rfind('@'); at != std::string::npos) {
    const auto from = found.find("://") == std::string::npos ? found.find('=') + 1 : found.find("://") + 3;
    found.replace(from, at - from, "...");
  }
  return {Grade::doubtful, "proxy", found, "Requests go through it; name the host in no_proxy if they should not"};
}

struct Answer {
  CURLcode code = CURLE_OK;
  std::string error, body, date;
  long status = 0;
  double seconds = 0;
};

std::size_t takeBody(char* bytes, std::size_t size, std::size_t count, void* answer) {
  static_cast<Answer*>(answer)->body.append(bytes, size * count);
  return size * count;
}

std::size_t takeHeader(char* bytes, std::size_t size, std::size_t count, void* answer) {
  const std::string_view line(bytes, size * count);
  if (line.size() > 5 && curl_strnequal(line.data(), "date:", 5) != 0) {
    static_cast<Answer*>(answer)->date = line.substr(5);
  }
  return size * count;
}

Answer ask(const std::string& url, const std::string& caFile, bool direct) {
  Answer answer;
  const std::unique_ptr<CURL, void (*)(CURL*)> easy(curl_easy_init(), curl_easy_cleanup);
  std::array<char, CURL_ERROR_SIZE> reason{};
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, kSecondsForAnswer);
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, reason.data());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, takeBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(easy.get(), CURLOPT_HEADERFUNCTION, takeHeader);
  curl_easy_setopt(easy.get(), CURLOPT_HEADERDATA, &answer);
  if (!caFile.empty()) curl_easy_setopt(easy.get(), CURLOPT_CAINFO, caFile.c_str());
  if (direct) curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
  answer.code = curl_easy_perform(easy.get());
  answer.error = reason[0] != '\0' ? reason.data() : curl_easy_strerror(answer.code);
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  curl_easy_getinfo(easy.get(), CURLINFO_TOTAL_TIME, &answer.seconds);
  return answer;
}

Finding judgeAnswer(const Answer& answer, const std::string& url) {
  if (answer.code != CURLE_OK) {
    const bool certificate = answer.code == CURLE_PEER_FAILED_VERIFICATION;
    return {Grade::bad, "service", fmt::format("{} gives no answer: {}", url, answer.error),
            certificate ? "Correct the server's certificate, or name its authority as KelvoCAFile in Info.plist"
                        : "Check the address, the network and the proxy; events wait on the device meanwhile"};
  }
  if (answer.status != 200) {
    return {Grade::bad, "service", fmt::format("{} answers with status {}", url, answer.status),
            "Check the address and the application's id at the service"};
  }
  const auto reply = parseJSON(answer.body);
  const auto* object = reply ? reply->get<Dictionary>() : nullptr;
  if (object == nullptr || !object->contains("enabled")) {
    return {Grade::bad, "service", url + " answers with something else than the service",
            "Check the address: no enable status came"};
  }
  if (!(*object)["enabled"].asBool()) {
    return {Grade::bad, "service", "the service has switched collection off for this application",
            "Switch it on at the service"};
  }
  const auto time = fmt::format("{} answers in {:.0f} ms", url, answer.seconds * kMilliseconds);
  if (answer.seconds > kSlowSeconds) return {Grade::doubtful, "service", time, "A slow start-up; look at the network"};
  return {Grade::good, "service", time, ""};
}

Finding judgeClock(const Answer& answer) {
  const std::time_t server = answer.date.empty() ? -1 : curl_getdate(answer.date.c_str(), nullptr);
  if (server < 0) return {Grade::doubtful, "clock", "the service tells no time to compare with", "Compare it yourself"};
  const double skew = std::difftime(std::time(nullptr), server);
  if (std::abs(skew) <= kTolerableClockSkew) return {Grade::good, "clock", "agrees with the service's", ""};
  return {Grade::bad, "clock",
          fmt::format("{:.0f} s {} the service's", std::abs(skew), skew > 0 ? "ahead of" : "behind"),
          "Set it (timedatectl set-ntp true): sessions are dated by it"};
}

void examineService(const Bundle& bundle, std::vector<Finding>& findings) {
  const auto& endpoint = ServiceEndpoint::shared();
  if (endpoint.baseURL.empty()) {
    findings.push_back({Grade::bad, "service", "no service endpoint is configured",
                        "Set KELVO_SERVER_BASE_URL, or KelvoServerBaseURL in Info.plist"});
    return;
  }
  const auto url = HTTPURL::parse(endpoint.baseURL);
  if (!url) {
    findings.push_back({Grade::bad, "service", endpoint.baseURL + " is no URL", "Write https://HOST[:PORT]"});
    return;
  }
  if (url->exposesCleartext()) {
    findings.push_back({Grade::bad, "service", endpoint.baseURL + " is cleartext to another machine: refused",
                        "Use https:; http: is for loopback addresses only"});
    return;
  }
  findings.push_back(examineAuthorities(endpoint.caFile));
  findings.push_back(examineProxy(*url));
  const auto id = appIdOf(bundle);
  const auto path = byReplacing(kKLVSDKEnableURL, "<app-id>", percentEncoded(id.empty() ? "kelvo-inspect" : id));
  const auto answer =
      ask(endpoint.baseURL + path + fmt::format("{:f}", kKLVSDKVersion), endpoint.caFile, url->isLoopback());
  findings.push_back(judgeAnswer(answer, endpoint.baseURL));
  if (answer.code == CURLE_OK) findings.push_back(judgeClock(answer));
}

}  // namespace

std::vector<Finding> examine(const std::optional<std::string>& program, const std::optional<std::string>& home) {
  // The endpoint is read from the main bundle, which is the program's from here on.
  const char* given = std::getenv("KELVO_BUNDLE");
  std::string directory = given != nullptr ? given : "";
  std::string executable = "kelvo-inspect";
  if (program) {
    const auto path = fs::absolute(*program);
    executable = path.filename().string();
    std::error_code failure;
    if (directory.empty()) {
      const auto beside = path.string() + ".bundle";
      directory = fs::is_directory(beside, failure) ? beside : path.parent_path().string();
      ::setenv("KELVO_BUNDLE", directory.c_str(), 1);
    }
  }
  std::vector<Finding> findings;
  if (program && ::access(program->c_str(), X_OK) != 0) {
    findings.push_back({Grade::bad, "program", *program + " cannot be run", "Name the executable that links Kelvo"});
  }
  if (directory.empty()) {
    findings.push_back({Grade::doubtful, "bundle", "not looked at", "Name the program: --program EXECUTABLE"});
  }
  const Bundle bundle(directory, executable);
  if (!directory.empty()) findings.push_back(examineBundle(bundle, directory));
  findings.push_back(examineHome(home ? home : Directories::homeFor(bundle)));
  examineService(bundle, findings);
  return findings;
}

}  // namespace kelvo::inspect
