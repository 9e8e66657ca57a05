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
#include <fstream>
#include <iterator>
#include <memory>

#include "core/ConsentFile.h"
#include "kelvo-inspect/Journal.h"
#include "kelvo/Value.h"
#include "network/HTTPURL.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "platform/ServiceEndpoint.h"
#include "platform/SwitchedOff.h"
#include "records/KLVSDKInfo.h"
#include "util/KLVPluginName.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Counts.h"

namespace kelvo::inspect {
namespace {

namespace fs = std::filesystem;
using Grade = Finding::Grade;

constexpr long kAnswerTimeoutSeconds = 10;
constexpr double kMillisecondsPerSecond = 1000;
constexpr double kSlowSeconds = 2;
constexpr double kTolerableClockSkew = 60;  // seconds; the device's clock dates the sessions
constexpr mode_t kAccessOfOthers = 077;
constexpr mode_t kAccessBits = 0777;
constexpr long kStatusOK = 200;

/// Returns the application id in the bundle's Info.plist, empty if there is none.
std::string appIdOf(const Bundle& bundle) {
  const auto* kelvo = bundle.infoDictionary()["Kelvo"].get<Dictionary>();
  return kelvo != nullptr ? (*kelvo)["Core"].asText().value_or("") : "";
}

Finding examineBundle(const Bundle& bundle, const std::string& directory) {
  const auto path = bundle.pathForResource("Info", "plist");
  if (!path) {
    return {Grade::doubtful, "bundle", "no Info.plist in " + directory,
            "Correct if the program calls KelvoSDK::start or initializeKelvoWithID; otherwise add one "
            "(kelvo_add_bundle in CMake)"};
  }
  std::string error;
  const auto text = readFile(*path, &error);
  const auto content = text ? parsePropertyList(*text, &error) : std::nullopt;
  if (!content || content->get<Dictionary>() == nullptr) {
    return {Grade::bad, "bundle", *path + " is not a property list: " + error, "Repair it; plistutil shows the place"};
  }
  const auto id = appIdOf(bundle);
  if (id.empty()) {
    return {Grade::doubtful, "bundle", *path + " has no application id under Kelvo / Core",
            "Add it, or call initializeKelvoWithID"};
  }
  return {Grade::good, "bundle", fmt::format("{} starts application \"{}\" at load", *path, id), ""};
}

/// Reports whether the bundle requires consent, and what the home remembers. The host's options may require it, too.
Finding examineConsent(const Bundle& bundle, const std::optional<std::string>& home) {
  const bool isRequired = !bundle.infoDictionary()["KelvoConsent"].isNull();
  const std::string_view required = isRequired ? "required by the bundle" : "not required by the bundle";
  const auto file = home ? KLVConsentFile::read(joinPath(*home, "Library")) : KLVConsentFile();
  const bool isDenied = file.decision == Consent::denied;
  auto result = fmt::format("{}, {}", required, !file.decision ? "undecided" : isDenied ? "denied" : "granted");
  if (file.isErasing) result += ", an erasure is not complete";
  if (!file.deletions.empty()) {
    result += ", " + KLVUtilities::numberOf(file.deletions.size(), "deletion request") + " not answered yet";
  }
  if (isDenied) return {Grade::doubtful, "consent", result, "Nothing is collected until the user grants consent"};
  if (isRequired && !file.decision) {
    return {Grade::doubtful, "consent", result, "Nothing is collected until the program calls setConsent"};
  }
  const bool isPending = file.isErasing || !file.deletions.empty();
  return {isPending ? Grade::doubtful : Grade::good, "consent", result, isPending ? "The next launch goes on" : ""};
}

/// Returns whether `KELVO_PLUGIN` has compiled the class `name` into `file`.
bool containsPlugin(const std::string& file, const std::string& name) {
  std::ifstream stream(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), {}};
  for (auto at = content.find(kPluginMark); at != content.npos; at = content.find(kPluginMark, at + 1)) {
    if (pluginName(content.c_str() + at) == name) return true;
  }
  return false;
}

/// Looks for a class in the program's file and in the bundle's shared object. It may also be in another library of the
/// program, so a missing class is only a doubt.
Finding examinePlugin(const Bundle& bundle, const std::optional<std::string>& program, const std::string& name) {
  if (program && containsPlugin(*program, name)) return {Grade::good, "plug-in", name + " is in " + *program, ""};
  const auto object = bundle.pathForResource(pluginObject(name), "so");
  if (object && containsPlugin(*object, name)) return {Grade::good, "plug-in", name + " is in " + *object, ""};
  const auto searched = object ? *object + " does not contain it"
                               : fmt::format("there is no usable {}.so in {}", pluginObject(name), bundle.directory());
  if (!program) return {Grade::doubtful, "plug-in", name + ": " + searched, "Give the program: --program EXECUTABLE"};
  return {Grade::doubtful, "plug-in", fmt::format("{}: {} does not contain it, and {}", name, *program, searched),
          "Correct the name in Info.plist, or link the class; a class in another library of the program is not seen"};
}

void examinePlugins(const Bundle& bundle, const std::optional<std::string>& program, std::vector<Finding>& findings) {
  for (const auto& [name, isOn] : bundle.infoDictionary()["Kelvo"].asDictionary().value_or(Dictionary())) {
    if (name != "Core" && isOn.asBool()) findings.push_back(examinePlugin(bundle, program, name));
  }
}

Finding examineHome(const std::optional<std::string>& home) {
  if (!home) {
    return {Grade::bad, "home", "there is no home directory", "Set KELVO_HOME or HOME; nothing can be stored"};
  }
  // The program creates missing directories on first use, so check the nearest one that exists.
  fs::path existing = *home;
  std::error_code failure;
  while (!fs::exists(existing, failure) && existing.has_relative_path()) existing = existing.parent_path();
  std::string probe = (existing / "kelvo-inspect.XXXXXX").string();
  const int file = ::mkstemp(probe.data());
  if (file < 0) {
    return {Grade::bad, "home", existing.string() + " cannot be written", "Give the program's user write access"};
  }
  ::close(file);
  ::unlink(probe.c_str());
  if (existing != fs::path(*home)) return {Grade::good, "home", *home + " will be created at the first start", ""};
  if (const auto user = HomeLock::holderOf(joinPath(*home, "Library"))) {
    return {Grade::good, "home", fmt::format("process {} is using {}", *user, *home), ""};
  }
  struct stat facts {};
  const auto library = joinPath(*home, "Library");
  if (::stat(library.c_str(), &facts) == 0 && (facts.st_mode & kAccessOfOthers) != 0) {
    return {Grade::doubtful, "home",
            fmt::format("other users have access to {} (mode {:o})", library, facts.st_mode & kAccessBits),
            "Run chmod 700 on it: it contains the user's activity"};
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
    return {Grade::bad, "authorities", "there is no store of trusted authorities", "apt-get install ca-certificates"};
  }
  const auto text = readFile(store);
  if (!text || text->find("BEGIN CERTIFICATE") == std::string::npos) {
    return {Grade::bad, "authorities", store + " contains no certificate in PEM form",
            caFile.empty() ? "apt-get install --reinstall ca-certificates" : "Correct KelvoCAFile in Info.plist"};
  }
  return {Grade::good, "authorities", store, ""};
}

/// Reports the proxy that the environment sets for `url`, without its user name and password.
Finding examineProxy(const HTTPURL& url) {
  if (url.isLoopback()) return {Grade::good, "proxy", "none for a loopback address", ""};
  // curl ignores HTTP_PROXY, because a web client can set it in a CGI program. So do we.
  static constexpr std::array kSecure = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
  static constexpr std::array kPlain = {"http_proxy", "all_proxy", "ALL_PROXY"};
  const auto first = [](const auto& names) -> std::string {
    for (const char* name : names) {
      const char* value = std::getenv(name);
      if (value != nullptr && *value != '\0') return fmt::format("{}={}", name, withoutCredentials(value));
    }
    return {};
  };
  const std::string found = url.scheme == "https" ? first(kSecure) : first(kPlain);
  if (found.empty()) return {Grade::good, "proxy", "none", ""};
  return {Grade::doubtful, "proxy", found, "Requests use it; to bypass it, add the service's host to no_proxy"};
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
  constexpr std::string_view kName = "date:";
  if (line.size() > kName.size() && curl_strnequal(line.data(), kName.data(), kName.size()) != 0) {
    static_cast<Answer*>(answer)->date = line.substr(kName.size());
  }
  return size * count;
}

/// Requests `url`. `direct` bypasses every proxy.
Answer ask(const std::string& url, const std::string& caFile, bool direct) {
  Answer answer;
  const std::unique_ptr<CURL, void (*)(CURL*)> easy(curl_easy_init(), curl_easy_cleanup);
  std::array<char, CURL_ERROR_SIZE> reason{};
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, kAnswerTimeoutSeconds);
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
    return {Grade::bad, "service", fmt::format("{} does not answer: {}", url, answer.error),
            certificate ? "Correct the server's certificate, or set KelvoCAFile in Info.plist to its authority"
                        : "Check the address, the network and the proxy; events wait on the device until it answers"};
  }
  if (answer.status != kStatusOK) {
    return {Grade::bad, "service", fmt::format("{} answers with status {}", url, answer.status),
            "Check the address and the application's id at the service"};
  }
  const auto reply = parseJSON(answer.body).value_or(Value()).asDictionary().value_or(Dictionary());
  if (!reply.contains("enabled")) {
    return {Grade::bad, "service", url + " answers, but is not the service",
            "Check the address: the answer contains no enable status"};
  }
  if (!reply["enabled"].asBool()) {
    return {Grade::bad, "service", "the service has switched collection off for this application",
            "Switch it on at the service"};
  }
  const auto time = fmt::format("{} answers in {:.0f} ms", url, answer.seconds * kMillisecondsPerSecond);
  if (answer.seconds > kSlowSeconds) return {Grade::doubtful, "service", time, "Slow; check the network"};
  return {Grade::good, "service", time, ""};
}

Finding judgeClock(const Answer& answer) {
  const std::time_t server = answer.date.empty() ? -1 : curl_getdate(answer.date.c_str(), nullptr);
  if (server < 0) return {Grade::doubtful, "clock", "the service sends no time", "Check the clock by hand"};
  const double skew = std::difftime(std::time(nullptr), server);
  if (std::abs(skew) <= kTolerableClockSkew) return {Grade::good, "clock", "agrees with the service's clock", ""};
  return {Grade::bad, "clock",
          fmt::format("{:.0f} s {} the service's clock", std::abs(skew), skew > 0 ? "ahead of" : "behind"),
          "Set it (timedatectl set-ntp true): it dates the sessions"};
}

void examineService(const Bundle& bundle, std::vector<Finding>& findings) {
  const auto& endpoint = ServiceEndpoint::shared();
  if (endpoint.baseURL.empty()) {
    findings.push_back({Grade::bad, "service", "no service endpoint is configured",
                        "Set KELVO_SERVER_BASE_URL, or KelvoServerBaseURL in Info.plist"});
    return;
  }
  const auto shown = withoutCredentials(endpoint.baseURL);
  const auto url = HTTPURL::parse(endpoint.baseURL);
  if (!url) {
    findings.push_back({Grade::bad, "service", "the service endpoint is malformed: " + shown + " is not a URL",
                        "Use the form https://HOST[:PORT]"});
    return;
  }
  if (url->exposesCleartext()) {
    findings.push_back({Grade::bad, "service", shown + " is cleartext to another machine: refused",
                        "Use https:; http: is for loopback addresses only"});
    return;
  }
  findings.push_back(examineAuthorities(endpoint.caFile));
  findings.push_back(examineProxy(*url));
  const auto id = appIdOf(bundle);
  const auto path = byReplacing(kKLVSDKEnableURL, "<app-id>", percentEncoded(id.empty() ? "kelvo-inspect" : id));
  const auto answer =
      ask(endpoint.baseURL + path + fmt::format("{:f}", kKLVSDKVersion), endpoint.caFile, url->isLoopback());
  findings.push_back(judgeAnswer(answer, shown));
  if (answer.code == CURLE_OK) findings.push_back(judgeClock(answer));
}

}  // namespace

std::vector<Finding> examine(const std::optional<std::string>& program, const std::optional<std::string>& home) {
  // KELVO_BUNDLE makes the program's bundle the main bundle, from which `ServiceEndpoint` is read.
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
    findings.push_back({Grade::bad, "program", *program + " cannot be run", "Give the executable that links Kelvo"});
  }
  if (const auto& reason = SwitchedOff::reason()) {
    findings.push_back({Grade::doubtful, "switch", *reason, "No program that links Kelvo collects anything here"});
  }
  if (directory.empty()) {
    findings.push_back({Grade::doubtful, "bundle", "not checked", "Give the program: --program EXECUTABLE"});
  }
  const Bundle bundle(directory, executable);
  if (!directory.empty()) findings.push_back(examineBundle(bundle, directory));
  examinePlugins(bundle, program, findings);
  const auto checked = home ? home : Directories::homeFor(bundle);
  findings.push_back(examineConsent(bundle, checked));
  findings.push_back(examineHome(checked));
  auto journal = checked ? examineJournal(joinPath(*checked, "Library"), bundle.infoDictionary()) : std::nullopt;
  if (journal) findings.push_back(*std::move(journal));
  examineService(bundle, findings);
  return findings;
}

}  // namespace kelvo::inspect
