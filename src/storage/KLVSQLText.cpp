#include "storage/KLVSQLText.h"

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

bool isRefusedValue(std::string_view value) {
  return value.find('\0') != std::string_view::npos ||
         (!KLVDeliveryRules::current().doublesQuotes && value.find('\'') != std::string_view::npos);
}

KLVSQLText joined(const Dictionary& parameters, std::string_view first, std::string_view then,
                  fmt::string_view format) {
  KLVSQLText all;
  std::string_view separator = first;
  for (const auto& [key, value] : parameters) {
    const KLVSQLText entry = sqlText(format, key, quoted(description(value)));
    all.text.append(separator).append(entry.text);
    all.refused = all.refused || entry.refused;
    separator = then;
  }
  return all;
}

}  // namespace kelvo
