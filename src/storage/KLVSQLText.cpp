#include "storage/KLVSQLText.h"

#include <algorithm>

#include "util/KLVDeliveryRules.h"

namespace kelvo {

KLVSQLText quoted(std::string_view value) {
  constexpr char kQuote = '\'';
  KLVSQLText result{std::string(value), isRefusedValue(value)};
  auto quote = result.refused ? std::string::npos : result.text.find(kQuote);
  while (quote != std::string::npos) {
    result.text.insert(quote, 1, kQuote);
    quote = result.text.find(kQuote, quote + 2);
  }
  return result;
}

KLVSQLText plainName(std::string_view name) {
  constexpr std::string_view kFirst = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
  constexpr std::string_view kAll = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_0123456789";
  const bool isPlain = name.find_first_of(kFirst) == 0 && name.find_first_not_of(kAll) == std::string_view::npos;
  return {std::string(name), !isPlain};
}

bool isRefusedValue(std::string_view value) {
  return value.find('\0') != std::string_view::npos ||
         (!KLVDeliveryRules::current().doublesQuotes && value.find('\'') != std::string_view::npos);
}

KLVSQLText joined(const Dictionary& parameters, std::string_view first, std::string_view then,
                  fmt::string_view format) {
  KLVSQLText all;
  std::string_view separator = first;
  for (const auto& [key, value] : parameters) {
    const KLVSQLText entry = sqlText(format, plainName(key), quoted(description(value)));
    all.text.append(separator).append(entry.text);
    all.refused = all.refused || entry.refused;
    separator = then;
  }
  return all;
}

KLVSQLText joinedKeys(const Dictionary& parameters, fmt::string_view format) {
  KLVSQLText all;
  std::string_view separator = " ";
  for (const auto& entry : parameters) {
    const KLVSQLText name = sqlText(format, plainName(entry.first));
    all.text.append(separator).append(name.text);
    all.refused = all.refused || name.refused;
    separator = ", ";
  }
  return all;
}

const KLVSQLText& KLVInsertText::text(std::string_view table, const Dictionary& row) {
  const auto hasSameKey = [](const auto& one, const auto& other) { return one.first == other.first; };
  if (!text_.text.empty() && table == table_ &&
      std::equal(row.begin(), row.end(), row_.begin(), row_.end(), hasSameKey))
    return text_;
  table_ = table;
  row_ = Dictionary();
  for (const auto& entry : row) row_.set(entry.first, nullptr);
  text_ = sqlText("INSERT INTO '{}' ({}) VALUES ({})", quoted(table), joinedKeys(row, "{}"), joinedKeys(row, ":{}"));
  return text_;
}

std::string quotedName(std::string_view name) {
  std::string quoted = "\"";
  for (const char each : name) quoted.append(each == '"' ? 2 : 1, each);
  return quoted + '"';
}

}  // namespace kelvo
