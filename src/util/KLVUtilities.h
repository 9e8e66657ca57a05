#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// Stateless helpers that every other folder uses. nullopt stands for an absent object, in and out.
class KLVUtilities {
 public:
  // --- JSON. A failure is logged at error level as "JSON Error: ..." and gives nullopt. The parsers return
  // whatever the text holds, whether or not it is what their name says.

  static std::optional<std::string> jsonDataFromNSDictionary(const std::optional<Dictionary>& dictionary);
  static std::optional<std::string> jsonStringFromNSDictionary(const std::optional<Dictionary>& dictionary);
  static std::optional<std::string> jsonStringFromNSArray(const std::optional<Array>& array);
  static std::optional<Value> dictionaryFromNSData(const std::optional<std::string>& data);
  static std::optional<Value> dictionaryFromJsonString(const std::optional<std::string>& text);
  static std::optional<Value> arrayFromJsonString(const std::optional<std::string>& text);

  // --- Small files in the Library directory.

  /// Replaces Library/`path`; false without a path, without data, or when the write fails.
  static bool saveConfig(const std::optional<std::string>& data, const std::optional<std::string>& path);
  static std::optional<Value> readConfigAtRelativePath(const std::optional<std::string>& path);
  /// `path` is a full path.
  static std::optional<Value> readConfig(const std::string& path);

  /// Kept in the user defaults and flushed at once.
  static void saveHash(const std::string& hash, const std::string& module);
  static std::optional<std::string> getHashForModule(const std::string& module);

  // --- Dates, as text such as 2024-03-05T14:07:09.123+0530 in the device's time zone.

  static void initializeDateFormatter();
  static std::optional<Date> dateFromKLVDateString(const std::optional<std::string>& text);
  static std::string dateKLVStringFromNSDate(Date date);
  /// Seconds since 1970; 0 for text that does not parse.
  static double timeIntervalFromKLVDateString(const std::optional<std::string>& text);
  /// `seconds` since 1970.
  static std::string dateKLVStringFromTimeInterval(std::int64_t seconds);

  // --- Device and installation.

  /// When the Documents directory was created, in milliseconds since 1970; 0 when that cannot be read.
  static std::int64_t installationDate();
  static std::string deviceName();
  /// True at the first call after installation only: it leaves a footprint file.
  static bool isFirstSession();
  /// Upper-case hexadecimal, two digits a byte.
  static std::optional<std::string> stringWithDeviceToken(const std::optional<Data>& token);

  // --- Checks and clean-up.

  static bool isValidObject(const Value& value) { return !value.isNull(); }
  static bool isValidString(const std::optional<std::string>& text) { return text.has_value() && !text->empty(); }
  static bool isInvalidString(const std::optional<std::string>& text) { return !isValidString(text); }
  /// Kept: returns its argument in every case, valid or not.
  static std::optional<std::string> validStringForString(std::optional<std::string> text);
  /// True for the empty text, too.
  static bool isNumericString(std::string_view text);
  /// A dictionary with at least one key.
  static bool isValidDictionary(const Value& value);
  static bool isInvalidDictionary(const Value& value) { return !isValidDictionary(value); }
  /// The second wins on equal keys.
  static Dictionary addTwoDictionaries(const Dictionary& first, const Dictionary& second);
  static Dictionary dictionaryByRemovingNulls(const Dictionary& dictionary);
  /// nullopt for nothing or an empty dictionary. Throws `KLVInvalidArgument` when an array, at whatever depth, is
  /// empty or holds an empty array or dictionary: callers log the reason and drop the call. Shares the content of
  /// a dictionary that has nothing to remove.
  static std::optional<Dictionary> dictionaryByRemovingNullsAndEmptyValues(const std::optional<Dictionary>& dictionary);
  /// As above, element by element; empty texts stay.
  static std::optional<Array> validArrayForArray(const Array& array);
  /// The bucket of a count: "7", "11-20", "101-200", "1000+".
  static std::string rangeForCount(std::int64_t count);
};

}  // namespace kelvo
