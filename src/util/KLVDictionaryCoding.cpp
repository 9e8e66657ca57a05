#include "util/KLVDictionaryCoding.h"

#include <cstring>
#include <utility>

namespace kelvo {
namespace {

constexpr int kDeepest = 64;  // levels; the host's arguments have no more

/// The first byte of a value. The numbers are in the file, so they never change.
enum class Tag : std::uint8_t {
  null = 0,
  no = 1,
  yes = 2,
  integer = 3,
  unsignedInteger = 4,
  single = 5,
  number = 6,
  text = 7,
  data = 8,
  date = 9,
  array = 10,
  dictionary = 11,
};

constexpr unsigned kBitsOfByte = 7;
constexpr std::uint64_t kMore = 0x80;  // another byte of the count follows

/// Writes to `target` while there is room. Counts all bytes.
struct Encoder {
  std::byte* const target;
  const std::size_t room;
  std::size_t size = 0;

  void bytes(const void* source, std::size_t count) noexcept {
    if (count > 0 && size + count <= room) std::memcpy(target + size, source, count);
    size += count;
  }
  void byte(std::uint8_t value) noexcept {
    if (size < room) target[size] = static_cast<std::byte>(value);
    ++size;
  }
};

void put(Encoder& encoder, Tag tag) {
  encoder.byte(static_cast<std::uint8_t>(tag));
}

void putCount(Encoder& encoder, std::uint64_t count) {
  for (; count >= kMore; count >>= kBitsOfByte) encoder.byte(static_cast<std::uint8_t>(count | kMore));
  encoder.byte(static_cast<std::uint8_t>(count));
}

template <class Bytes>
void putBytes(Encoder& encoder, const Bytes& bytes) {
  putCount(encoder, bytes.size());
  encoder.bytes(bytes.data(), bytes.size());
}

template <class Number>
void putNumber(Encoder& encoder, Tag tag, Number number) {
  put(encoder, tag);
  encoder.bytes(&number, sizeof(number));
}

bool put(Encoder& encoder, const Dictionary& dictionary, int levels);

/// Returns false if the value has more than `levels` levels.
bool put(Encoder& encoder, const Value& value, int levels) {
  if (const auto* text = value.get<std::string>()) {
    put(encoder, Tag::text);
    putBytes(encoder, *text);
  } else if (const auto* integer = value.get<std::int64_t>()) {
    putNumber(encoder, Tag::integer, *integer);
  } else if (const auto* large = value.get<std::uint64_t>()) {
    putNumber(encoder, Tag::unsignedInteger, *large);
  } else if (const auto* number = value.get<double>()) {
    putNumber(encoder, Tag::number, *number);
  } else if (const auto* flag = value.get<bool>()) {
    put(encoder, *flag ? Tag::yes : Tag::no);
  } else if (const auto* single = value.get<float>()) {
    putNumber(encoder, Tag::single, *single);
  } else if (const auto* inner = value.get<Dictionary>()) {
    put(encoder, Tag::dictionary);
    return put(encoder, *inner, levels);
  } else if (const auto* array = value.get<Array>()) {
    if (levels == 0) return false;
    put(encoder, Tag::array);
    putCount(encoder, array->size());
    for (const Value& element : *array) {
      if (!put(encoder, element, levels - 1)) return false;
    }
  } else if (const auto* data = value.get<Data>()) {
    put(encoder, Tag::data);
    putBytes(encoder, *data);
  } else if (const auto* date = value.get<Date>()) {
    putNumber(encoder, Tag::date, std::int64_t{date->time_since_epoch().count()});
  } else {
    put(encoder, Tag::null);
  }
  return true;
}

bool put(Encoder& encoder, const Dictionary& dictionary, int levels) {
  if (levels == 0) return false;
  putCount(encoder, dictionary.size());
  for (const auto& [key, value] : dictionary) {
    putBytes(encoder, key);
    if (!put(encoder, value, levels - 1)) return false;
  }
  return true;
}

/// Takes values from the front of `rest`. Each function returns nullopt if they are not there.
struct Decoder {
  std::string_view rest;

  std::optional<std::string_view> bytes(std::uint64_t count) {
    if (count > rest.size()) return std::nullopt;
    const auto taken = rest.substr(0, count);
    rest.remove_prefix(count);
    return taken;
  }

  std::optional<std::uint64_t> count() {
    std::uint64_t count = 0;
    for (unsigned shift = 0; shift < 64 && !rest.empty(); shift += kBitsOfByte) {
      const auto byte = static_cast<std::uint8_t>(rest.front());
      rest.remove_prefix(1);
      count |= (byte & ~kMore) << shift;
      if ((byte & kMore) == 0) return count;
    }
    return std::nullopt;
  }

  /// The number of members of a container. Each takes a byte at least, so a damaged number never costs memory.
  std::optional<std::uint64_t> members() {
    const auto number = count();
    return number && *number <= rest.size() ? number : std::nullopt;
  }

  std::optional<std::string_view> text() {
    const auto size = count();
    return size ? bytes(*size) : std::nullopt;
  }

  template <class Number>
  std::optional<Number> number() {
    const auto source = bytes(sizeof(Number));
    if (!source) return std::nullopt;
    Number number{};
    std::memcpy(&number, source->data(), sizeof(number));
    return number;
  }

  template <class Number>
  std::optional<Value> numberValue() {
    const auto found = number<Number>();
    return found ? std::optional<Value>(Value(*found)) : std::nullopt;
  }

  std::optional<Value> value(int levels) {
    const auto tag = number<std::uint8_t>();
    if (!tag) return std::nullopt;
    switch (static_cast<Tag>(*tag)) {
      case Tag::null: return Value();
      case Tag::no: return Value(false);
      case Tag::yes: return Value(true);
      case Tag::integer: return numberValue<std::int64_t>();
      case Tag::unsignedInteger: return numberValue<std::uint64_t>();
      case Tag::single: return numberValue<float>();
      case Tag::number: return numberValue<double>();
      case Tag::text: {
        const auto found = text();
        return found ? std::optional<Value>(Value(*found)) : std::nullopt;
      }
      case Tag::data: {
        const auto found = text();
        return found ? std::optional<Value>(Value(Data(found->begin(), found->end()))) : std::nullopt;
      }
      case Tag::date: {
        const auto found = number<std::int64_t>();
        return found ? std::optional<Value>(Value(Date(Date::duration(*found)))) : std::nullopt;
      }
      case Tag::array: return array(levels);
      case Tag::dictionary: {
        auto found = dictionary(levels);
        return found ? std::optional<Value>(Value(*std::move(found))) : std::nullopt;
      }
    }
    return std::nullopt;
  }

  std::optional<Value> array(int levels) {
    const auto size = members();
    if (levels == 0 || !size) return std::nullopt;
    Array array;
    for (std::uint64_t i = 0; i < *size; ++i) {
      auto element = value(levels - 1);
      if (!element) return std::nullopt;
      array.append(*std::move(element));
    }
    return Value(std::move(array));
  }

  std::optional<Dictionary> dictionary(int levels) {
    const auto size = members();
    if (levels == 0 || !size) return std::nullopt;
    Dictionary dictionary;
    for (std::uint64_t i = 0; i < *size; ++i) {
      const auto key = text();
      auto found = key ? value(levels - 1) : std::nullopt;
      if (!found) return std::nullopt;
      dictionary.set(*key, *std::move(found));
    }
    return dictionary;
  }
};

}  // namespace

KLVCodedDictionary::KLVCodedDictionary(const Dictionary* dictionary) noexcept : dictionary_(dictionary) {
  if (dictionary == nullptr) return;
  Encoder encoder{form_.data(), form_.size()};
  if (put(encoder, *dictionary, kDeepest)) {
    size_ = encoder.size;
  } else {
    size_.reset();
  }
}

void KLVCodedDictionary::copyTo(std::byte* target) const noexcept {
  if (*size_ <= form_.size()) {
    std::memcpy(target, form_.data(), *size_);
  } else {
    Encoder encoder{target, *size_};
    static_cast<void>(put(encoder, *dictionary_, kDeepest));
  }
}

std::optional<std::string> codedForm(const Dictionary& dictionary) {
  const KLVCodedDictionary coded(&dictionary);
  if (!coded.size()) return std::nullopt;
  std::string form(*coded.size(), '\0');
  coded.copyTo(reinterpret_cast<std::byte*>(form.data()));
  return form;
}

std::optional<Dictionary> decodeDictionary(std::string_view bytes) {
  Decoder decoder{bytes};
  auto dictionary = decoder.dictionary(kDeepest);
  if (!decoder.rest.empty()) return std::nullopt;
  return dictionary;
}

}  // namespace kelvo
