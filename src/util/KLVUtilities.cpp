#include "util/KLVUtilities.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>

#include "platform/Clock.h"
#include "platform/Device.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr const char* kKLVSDKFootprintFile = "com.kelvo.SDK.footprint";
constexpr const char* kKLVFootprintKey = "klv_footprint_time";
constexpr const char* kFirstSessionKey = "klv_is_first_session";  // what earlier versions left behind

// --- JSON

template <class Container>
std::optional<std::string> jsonOf(const std::optional<Container>& container) {
  std::string error = "there is nothing to write";
  auto text = container ? jsonText(*container, &error) : std::nullopt;
  if (!text) KLV_ERROR("JSON Error: {}", error);
  return text;
}

std::optional<Value> valueOf(const std::optional<std::string>& text) {
  std::string error = "there is nothing to parse";
  auto value = text ? parseJSON(*text, &error) : std::nullopt;
  if (!value) KLV_ERROR("JSON Error: {}", error);
  return value;
}

/// The value of a file, which must be an array or a dictionary.
std::optional<Value> containerOf(const std::string& text, std::string& error) {
  auto value = parseJSON(text, &error);
  if (!value || value->get<Array>() != nullptr || value->get<Dictionary>() != nullptr) return value;
  error = "neither an array nor an object at offset 0";
  return std::nullopt;
}

std::optional<std::string> contentOfConfig(const std::string& path) {
  FileError error;
  auto content = readFile(path, &error);
  if (!content) KLV_ERROR("opening config file: {}", error);
  return content;
}

// --- Dates

struct Moment {
  std::int64_t seconds = 0;  ///< since 1970
  int milliseconds = 0;      ///< 0 to 999
};

std::string textOf(Moment moment) {
  const std::time_t seconds = moment.seconds;
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return "";  // a year that no calendar holds
  const long offset = local.tm_gmtoff / 60;
  const long distance = offset < 0 ? -offset : offset;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}{}{:02}{:02}", 1900L + local.tm_year, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, moment.milliseconds,
                     offset < 0 ? '-' : '+', distance / 60, distance % 60);
}

/// The number in the digits [start, start + size) of `text`, or -1.
int digits(std::string_view text, std::size_t start, std::size_t size) {
  int number = 0;
  for (const char digit : text.substr(start, size)) {
    if (digit < '0' || digit > '9') return -1;
    number = number * 10 + (digit - '0');
  }
  return number;
}

std::optional<Moment> momentOf(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00.000+0000";
  if (text.size() != kForm.size()) return std::nullopt;
  const char sign = text[23];
  if (sign != '+' && sign != '-') return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i != 23 && (kForm[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kForm[i])) return std::nullopt;
  }
  std::tm utc{};
  utc.tm_year = digits(text, 0, 4) - 1900;
  utc.tm_mon = digits(text, 5, 2) - 1;
  utc.tm_mday = digits(text, 8, 2);
  utc.tm_hour = digits(text, 11, 2);
  utc.tm_min = digits(text, 14, 2);
  utc.tm_sec = digits(text, 17, 2);
  const int offsetHours = digits(text, 24, 2);
  const int offsetMinutes = digits(text, 26, 2);
  if (utc.tm_hour > 23 || utc.tm_min > 59 || utc.tm_sec > 59 || offsetHours > 23 || offsetMinutes > 59) {
    return std::nullopt;
  }
  const std::tm given = utc;
  const std::int64_t seconds = timegm(&utc);
  if (utc.tm_mon != given.tm_mon || utc.tm_mday != given.tm_mday) return std::nullopt;  // there is no 30 February
  const std::int64_t offset = offsetHours * 3600 + offsetMinutes * 60;
  return Moment{sign == '-' ? seconds + offset : seconds - offset, digits(text, 20, 3)};
}

}  // namespace

std::optional<std::string> KLVUtilities::jsonDataFromNSDictionary(const std::optional<Dictionary>& dictionary) {
  return jsonOf(dictionary);
}
std::optional<std::string> KLVUtilities::jsonStringFromNSDictionary(const std::optional<Dictionary>& dictionary) {
  return jsonOf(dictionary);
}
std::optional<std::string> KLVUtilities::jsonStringFromNSArray(const std::optional<Array>& array) {
  return jsonOf(array);
}
std::optional<Value> KLVUtilities::dictionaryFromNSData(const std::optional<std::string>& data) {
  return valueOf(data);
}
std::optional<Value> KLVUtilities::dictionaryFromJsonString(const std::optional<std::string>& text) {
  return valueOf(text);
}
std::optional<Value> KLVUtilities::arrayFromJsonString(const std::optional<std::string>& text) {
  return valueOf(text);
}

bool KLVUtilities::saveConfig(const std::optional<std::string>& data, const std::optional<std::string>& path) {
  if (!path) return false;
  KLV_DEBUG("Saving config at path: {}", *path);
  return data && writeFileAtomically(Directories::inLibrary(*path), *data);
}

std::optional<Value> KLVUtilities::readConfigAtRelativePath(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  const std::string actualPath = Directories::inLibrary(*path);
  KLV_INFO("Fetching config at path: {} with actual path: {}", *path, actualPath);
  const auto content = contentOfConfig(actualPath);
  if (!content) return std::nullopt;
  std::string error;
  auto value = containerOf(*content, error);
  if (!value) KLV_ERROR("parsing json file {}", error);
  return value;
}

std::optional<Value> KLVUtilities::readConfig(const std::string& path) {
  const auto content = contentOfConfig(path);
  if (!content) return std::nullopt;
  std::string error;
  auto value = containerOf(*content, error);
  if (!value) KLV_ERROR("parsing json file {})", error);  // Kept: the closing parenthesis of this one.
  return value;
}

void KLVUtilities::saveHash(const std::string& hash, const std::string& module) {
  KLV_DEBUG("Saving hash: {} for module: {}", hash, module);
  UserDefaults::standard().set(fmt::format("klv_{}_hash", module), hash);
  if (UserDefaults::standard().synchronize()) {
    KLV_DEBUG("Hash saved successfully");
  } else {
    KLV_ERROR("Couldn't save enable SDK state");  // Kept: the words of another failure.
  }
}

std::optional<std::string> KLVUtilities::getHashForModule(const std::string& module) {
  return UserDefaults::standard().string(fmt::format("klv_{}_hash", module));
}

/// Reads the time zone, so that no later conversion has to.
void KLVUtilities::initializeDateFormatter() {
  ::tzset();
}

std::optional<Date> KLVUtilities::dateFromKLVDateString(const std::optional<std::string>& text) {
  const auto moment = text ? momentOf(*text) : std::nullopt;
  if (!moment) return std::nullopt;
  using std::chrono::floor, std::chrono::seconds;
  const bool holds = moment->seconds > floor<seconds>(Date::min()).time_since_epoch().count() &&
                     moment->seconds < floor<seconds>(Date::max()).time_since_epoch().count();
  if (!holds) return std::nullopt;
  return Date(seconds(moment->seconds) + std::chrono::milliseconds(moment->milliseconds));
}

std::string KLVUtilities::dateKLVStringFromNSDate(Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
  const auto rest = std::chrono::floor<std::chrono::milliseconds>(date - seconds);
  return textOf({seconds.time_since_epoch().count(), static_cast<int>(rest.count())});
}

double KLVUtilities::timeIntervalFromKLVDateString(const std::optional<std::string>& text) {
  const auto moment = text ? momentOf(*text) : std::nullopt;
  return moment ? static_cast<double>(moment->seconds) + moment->milliseconds / 1000.0 : 0;
}

std::string KLVUtilities::dateKLVStringFromTimeInterval(std::int64_t seconds) {
  return textOf({seconds, 0});
}

std::int64_t KLVUtilities::installationDate() {
  struct statx facts {};
  const char* path = Directories::documents().c_str();
  if (::statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME, &facts) != 0) return 0;
  // Not every file system keeps the time of creation.
  const auto& time = (facts.stx_mask & STATX_BTIME) != 0 ? facts.stx_btime : facts.stx_mtime;
  return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
}

std::string KLVUtilities::deviceName() {
  return Device::machine();
}

bool KLVUtilities::isFirstSession() {
  if (fileExists(Directories::inLibrary(kKLVSDKFootprintFile))) return false;
  saveConfig(jsonText(Dictionary{{kKLVFootprintKey, description(Clock::now())}}), kKLVSDKFootprintFile);
  UserDefaults& defaults = UserDefaults::standard();
  if (!defaults.contains(kFirstSessionKey)) return true;
  defaults.remove(kFirstSessionKey);
  return false;
}

std::optional<std::string> KLVUtilities::stringWithDeviceToken(const std::optional<Data>& token) {
  if (!token) return std::nullopt;
  std::string text;
  for (const std::uint8_t byte : *token) fmt::format_to(std::back_inserter(text), "{:02X}", byte);
  return text;
}

std::string KLVUtilities::rangeForCount(std::int64_t count) {
  if (count >= 1001) return "1000+";
  if (count == 1000) return "901-1000";
  if (count >= 100) {
    const std::int64_t hundreds = (count - 1) / 100;
    return fmt::format("{}01-{}00", hundreds, hundreds + 1);
  }
  if (count >= 10) {
    const std::int64_t tens = (count - 1) / 10;
    return fmt::format("{}1-{}0", tens, tens + 1);
  }
  return fmt::format("{}", count);
}

}  // namespace kelvo
