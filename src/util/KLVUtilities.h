#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

class KLVView;
class View;
class ViewController;
class Window;
struct Color;
struct Font;
struct Rect;

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

  // --- Views of the host's interface: on the main queue only. nullptr stands for no view, in and out.

  /// In a host whose interface is drawn by a cross-platform framework, every view counts and identifiers of views are
  /// native ids. Any thread.
  static void setIsReactNative(bool isReactNative) noexcept;
  [[nodiscard]] static bool isReactNative() noexcept;

  /// Searches the key window. `searchType`: "i" by native id or tag, "t" by tag, "p" by path; any other by tag first,
  /// then by path.
  static std::shared_ptr<View> getViewWithIdentifier(const std::optional<std::string>& identifier,
                                                     std::string_view searchType);
  /// Kept: a tag is searched in the key window, whatever `view` is.
  static std::shared_ptr<View> getViewWithTAG(const std::optional<std::string>& identifier,
                                              const std::shared_ptr<View>& view);
  /// Depth first, `view` itself included.
  static std::shared_ptr<View> getReactNativeViewWithNativeID(const std::string& identifier,
                                                              const std::shared_ptr<View>& view);
  static std::optional<std::string> getNativeIDForView(const View& view);
  /// buy of "[klv_buy_klv]".
  static std::string getNativeIDFromIndentifier(const std::string& identifier);
  /// `path`: steps joined by ":", each a class name, ":" and a position, or a native-id identifier; it may begin at
  /// any depth below `view`. "KLV:" in it is left out. Overwrites the tags of all visible cells below `view`.
  static std::shared_ptr<View> getViewWithPath(const std::string& path, const std::shared_ptr<View>& view);
  /// The same in a tree that is built and sorted.
  static std::shared_ptr<View> getViewWithIdentifier(std::string_view path, const KLVView& root);

  static bool shouldConsiderView(const View& view);
  [[nodiscard]] static const std::vector<std::string>& ignoredViews();
  /// Hangs the considered views below `view` under `root`, those of views that are not considered one level higher,
  /// and writes the tags of cells. `tableView` and `collectionView`: the nearest ones above, nullptr for none.
  static void constructCustomViewHierarchyForView(const View& view, KLVView& root,
                                                  const std::vector<std::string>& ignoredViews, const View* tableView,
                                                  const View* collectionView);
  /// In reading order, at every level; cells by their tags.
  static void sortSubViewsWithRootView(KLVView& root);
  /// A debug line a node: "<>", one "-" a level behind `separator`, and the name.
  static void logKLVViewWithRoot(const KLVView& root, const std::string& separator);
  /// The same of the views as they are.
  static void logViewWithRoot(const View& view, const std::string& separator);

  static std::shared_ptr<Window> keyWindow();
  /// The controller that the user sees: through tab bars, navigations, what is presented, and the last child.
  static std::shared_ptr<ViewController> topViewController(const std::shared_ptr<ViewController>& controller);
  /// Touching edges count as inside.
  static bool isViewRectInsideWindowRect(const Rect& viewRect, const Rect& windowRect);
  /// `size` in points, 16 for one below 1.
  static Font fontWithName(const std::optional<std::string>& name, double size);
  /// `style`: "bold", "italic", "bold_italic" or "bolditalic"; any other is plain.
  static Font fontWithName(const std::optional<std::string>& name, double size,
                           const std::optional<std::string>& style);
  /// "#RRGGBB"; the clear colour for what has no "#" or nothing else.
  static Color colorFromHexString(const std::optional<std::string>& text);

  // --- Actions: each belongs to a campaign, its "pid", which is at a revision, its MID.

  /// PID to MID of a text such as "P1_3,P7_1"; a piece without "_" is skipped, of equal PIDs the last one counts.
  static Dictionary getPIDMIDDictFromString(std::string_view text);
  /// Each action's "_id" to the action; nullopt for none. What has no "_id" is left out.
  static std::optional<Dictionary> iDKeyDictionaryForConfigs(const Array& configs);
  static bool doesConfig(const Dictionary& config, std::string_view containsPID);
  static Dictionary dictionaryByRemovingEntryWithPID(std::string_view pid, const Dictionary& fromConfig);
  /// In order, repeated ones included.
  static std::vector<std::string> getAllPIDsInConfig(const Dictionary& config);
};

}  // namespace kelvo
