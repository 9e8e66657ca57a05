#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

#include "platform/ClassicLocale.h"
#include "platform/Files.h"

namespace kelvo {
namespace {

constexpr int kDeepestNesting = 128;
constexpr std::chrono::seconds kStartOfPlistDates{978307200};  // 2001-01-01 00:00:00 UTC

struct NodeDeleter {
  void operator()(plist_t node) const noexcept { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct MemoryDeleter {
  void operator()(void* memory) const noexcept { std::free(memory); }
};
template <class T>
using Memory = std::unique_ptr<T, MemoryDeleter>;

// --- Checks before parsing. The parser is recursive, so it must not get a text with deep nesting.

/// Returns whether no nesting of `<array>` and `<dict>` is too deep. Skips everything else in the text.
bool isShallowXML(std::string_view text) {
  const auto skipped = [&text](std::string_view start, std::string_view end) {
    if (!text.starts_with(start)) return false;
    text.remove_prefix(std::min(text.find(end), text.size()));
    return true;
  };
  int depth = 0;
  for (auto tag = text.find('<'); tag != std::string_view::npos; tag = text.find('<')) {
    text.remove_prefix(tag);
    if (skipped("<!--", "-->") || skipped("<![CDATA[", "]]>") || skipped("<?", "?>")) continue;
    text.remove_prefix(1);
    const bool ends = text.starts_with('/');
    if (ends) text.remove_prefix(1);
    const std::size_t name = text.starts_with("array") ? 5 : text.starts_with("dict") ? 4 : 0;
    if (name == 0) continue;
    text.remove_prefix(name);
    if (ends) {
      depth = std::max(depth - 1, 0);
      continue;
    }
    const auto last = text.find_first_not_of(" \t\r\n");
    const bool empty = last != std::string_view::npos && text.substr(last).starts_with("/>");
    if (!empty && ++depth > kDeepestNesting) return false;
  }
  return true;
}

/// Visits the containers of a binary property list. One object may have many parents there, so a small file can
/// describe an endless tree. The number of visits is therefore limited.
class BinaryShape {
 public:
  explicit BinaryShape(std::string_view text) : text_(text) {}

  bool isShallow() {
    if (text_.size() < kTrailerSize) return false;
    const std::size_t trailer = text_.size() - kTrailerSize;
    offsetSize_ = number(trailer + kOffsetSizeAt, 1);
    referenceSize_ = number(trailer + kReferenceSizeAt, 1);
    objects_ = number(trailer + kObjectCountAt, kWide);
    table_ = number(trailer + kOffsetTableAt, kWide);
    return objects_ <= text_.size() && visit(number(trailer + kRootAt, kWide), 0);
  }

 private:
  // The trailer at the end of the file: positions of its fields, in bytes.
  static constexpr std::size_t kTrailerSize = 32;
  static constexpr std::size_t kOffsetSizeAt = 6;
  static constexpr std::size_t kReferenceSizeAt = 7;
  static constexpr std::size_t kObjectCountAt = 8;
  static constexpr std::size_t kRootAt = 16;
  static constexpr std::size_t kOffsetTableAt = 24;
  static constexpr std::size_t kWide = 8;  // bytes of the trailer's wide fields, and of the largest number

  // An object starts with a byte of two halves: its kind, and its count or `kCountFollows`.
  static constexpr std::uint64_t kWideText = 0x6;  // two bytes a character; other texts have one
  static constexpr std::uint64_t kArray = 0xA;
  static constexpr std::uint64_t kDictionary = 0xD;
  static constexpr std::uint64_t kCountFollows = 0xF;
  static constexpr std::uint64_t kLowerHalf = 0xF;

  static constexpr int kMostVisits = 1'000'000;

  /// Returns the big-endian number of `size` bytes at `offset`, 0 if the text has no such bytes.
  [[nodiscard]] std::uint64_t number(std::uint64_t offset, std::uint64_t size) const {
    if (size == 0 || size > kWide || offset > text_.size() || text_.size() - offset < size) return 0;
    std::uint64_t result = 0;
    for (const char byte : text_.substr(offset, size)) result = result << 8 | static_cast<unsigned char>(byte);
    return result;
  }

  /// Returns whether a key has no zero character. The parser would end the process at such a key.
  [[nodiscard]] bool isWholeKey(std::uint64_t kind, std::uint64_t offset, std::uint64_t count) const {
    const std::uint64_t width = kind == kWideText ? 2 : 1;
    for (std::uint64_t i = 0; i < count; ++i) {
      if (number(offset + i * width, width) == 0) return false;
    }
    return true;
  }

  bool visit(std::uint64_t object, int depth, bool asKey = false) {
    if (object >= objects_ || depth > kDeepestNesting || --budget_ < 0) return false;
    std::uint64_t offset = number(table_ + object * offsetSize_, offsetSize_);
    const std::uint64_t marker = number(offset, 1);
    const std::uint64_t kind = marker >> 4;
    const bool isContainer = kind == kArray || kind == kDictionary;
    if (!isContainer && !asKey) return true;
    ++offset;
    std::uint64_t count = marker & kLowerHalf;
    if (count == kCountFollows) {  // the count follows as an integer object
      const std::uint64_t size = std::uint64_t{1} << (number(offset, 1) & kLowerHalf);
      count = number(offset + 1, size);
      offset += 1 + size;
    }
    if (count > text_.size()) return false;
    if (!isContainer) return isWholeKey(kind, offset, count);
    const std::uint64_t keys = kind == kDictionary ? count : 0;
    for (std::uint64_t i = 0; i < keys + count; ++i) {
      if (!visit(number(offset + i * referenceSize_, referenceSize_), depth + 1, i < keys)) return false;
    }
    return true;
  }

  std::string_view text_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t objects_ = 0;
  std::uint64_t table_ = 0;
  int budget_ = kMostVisits;
};

// --- From nodes to values

Value valueOf(plist_t node);

Value arrayOf(plist_t node) {
  Array result;
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  const Memory<void> owner(iterator);
  plist_t item = nullptr;
  for (plist_array_next_item(node, iterator, &item); item != nullptr; plist_array_next_item(node, iterator, &item)) {
    result.append(valueOf(item));
  }
  return result;
}

Value dictionaryOf(plist_t node) {
  Dictionary result;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  const Memory<void> owner(iterator);
  for (;;) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, &key, &item);
    const Memory<char> keyOwner(key);
    if (item == nullptr) return result;
    if (key != nullptr) result.set(key, valueOf(item));
  }
}

Value integerOf(plist_t node) {
  std::uint64_t number = 0;
  plist_get_uint_val(node, &number);
  return static_cast<std::int64_t>(number);
}

Value dateOf(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  return Date(kStartOfPlistDates + std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds));
}

Value dataOf(plist_t node) {
  std::uint64_t size = 0;
  const char* bytes = plist_get_data_ptr(node, &size);
  return bytes == nullptr ? Data() : Data(bytes, bytes + size);
}

Value textOf(plist_t node) {
  std::uint64_t size = 0;
  const char* text = plist_get_string_ptr(node, &size);
  return text == nullptr ? std::string() : std::string(text, size);
}

Value valueOf(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return flag != 0;
    }
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return number;
    }
    case PLIST_UINT: return integerOf(node);
    case PLIST_STRING: return textOf(node);
    case PLIST_ARRAY: return arrayOf(node);
    case PLIST_DICT: return dictionaryOf(node);
    case PLIST_DATE: return dateOf(node);
    case PLIST_DATA: return dataOf(node);
    default: return nullptr;
  }
}

// --- From values to nodes

plist_t nodeOf(const Value& value, int depth);

plist_t arrayNode(const Array& array, int depth) {
  plist_t result = plist_new_array();
  for (const Value& value : array) {
    if (plist_t node = nodeOf(value, depth)) plist_array_append_item(result, node);
  }
  return result;
}

plist_t dictionaryNode(const Dictionary& dictionary, int depth) {
  plist_t result = plist_new_dict();
  for (const auto& [key, value] : dictionary) {
    if (plist_t node = nodeOf(value, depth)) plist_dict_set_item(result, key.c_str(), node);
  }
  return result;
}

plist_t dateNode(Date date) {
  using std::chrono::microseconds;
  const auto since = date.time_since_epoch() - kStartOfPlistDates;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
  using Limits = std::numeric_limits<std::int32_t>;
  if (seconds.count() < Limits::min() || seconds.count() > Limits::max()) return nullptr;
  const auto rest = std::chrono::duration_cast<microseconds>(since - seconds);
  return plist_new_date(static_cast<std::int32_t>(seconds.count()), static_cast<std::int32_t>(rest.count()));
}

/// Returns nullptr if a property list cannot represent the value.
plist_t nodeOf(const Value& value, int depth) {
  if (const auto* text = value.get<std::string>()) return plist_new_string(text->c_str());
  if (const auto* flag = value.get<bool>()) return plist_new_bool(*flag ? 1 : 0);
  if (const auto* number = value.get<std::int64_t>()) return plist_new_uint(static_cast<std::uint64_t>(*number));
  if (const auto* number = value.get<std::uint64_t>()) {
    // A number above the signed range would be read back as negative. As text, it keeps its digits and its value.
    if (*number > std::numeric_limits<std::int64_t>::max()) return plist_new_string(description(value).c_str());
    return plist_new_uint(*number);
  }
  if (value.isNumber()) return std::isfinite(value.asDouble()) ? plist_new_real(value.asDouble()) : nullptr;
  if (const auto* date = value.get<Date>()) return dateNode(*date);
  if (const auto* bytes = value.get<Data>()) {
    return plist_new_data(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  }
  if (depth >= kDeepestNesting) return nullptr;
  if (const auto* array = value.get<Array>()) return arrayNode(*array, depth + 1);
  if (const auto* dictionary = value.get<Dictionary>()) return dictionaryNode(*dictionary, depth + 1);
  return nullptr;
}

std::nullopt_t refused(std::string* error, const char* what) {
  if (error != nullptr) *error = what;
  return std::nullopt;
}

}  // namespace

std::optional<Value> parsePropertyList(std::string_view text, std::string* error) {
  if (text.empty()) return refused(error, "it is empty");
  if (text.size() > std::numeric_limits<std::uint32_t>::max()) return refused(error, "it is too large");
  const auto size = static_cast<std::uint32_t>(text.size());
  const bool binary = plist_is_binary(text.data(), size) != 0;
  if (binary ? !BinaryShape(text).isShallow() : !isShallowXML(text)) {
    return refused(error, "it is damaged or nests too deep");
  }
  const InClassicLocale numbersWithAPoint;
  plist_t root = nullptr;
  plist_from_memory(text.data(), size, &root);
  if (root == nullptr) return refused(error, "it is no property list");
  const Node owner(root);
  return valueOf(root);
}

std::optional<Dictionary> readPropertyList(const std::string& path, std::string* error) {
  return readPropertyList(openToRead(path), error);
}

std::optional<Dictionary> readPropertyList(const Descriptor& file, std::string* error) {
  const auto text = readFile(file, error);
  const auto content = text ? parsePropertyList(*text, error) : std::nullopt;
  if (!content) return std::nullopt;
  auto dictionary = content->asDictionary();
  return dictionary ? std::move(dictionary) : refused(error, "its root is no dictionary");
}

std::string serialisePropertyList(const Dictionary& content) {
  const InClassicLocale numbersWithAPoint;
  const Node root(dictionaryNode(content, 1));
  char* text = nullptr;
  std::uint32_t size = 0;
  plist_to_xml(root.get(), &text, &size);
  const Memory<char> owner(text);
  return text == nullptr ? std::string() : std::string(text, size);
}

}  // namespace kelvo
