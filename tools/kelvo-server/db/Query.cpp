#include "kelvo-server/db/Query.h"

#include <libpq-fe.h>

#include <algorithm>
#include <bit>
#include <concepts>

namespace kelvo::server::db {
namespace {

// The types' numbers are part of the protocol.
template <class T>
constexpr std::uint32_t kTypeNumber = 0;
template <>
constexpr std::uint32_t kTypeNumber<bool> = 16;
template <>
constexpr std::uint32_t kTypeNumber<Bytes> = 17;
template <>
constexpr std::uint32_t kTypeNumber<std::int64_t> = 20;
template <>
constexpr std::uint32_t kTypeNumber<std::int32_t> = 23;
template <>
constexpr std::uint32_t kTypeNumber<std::string> = 25;
template <>
constexpr std::uint32_t kTypeNumber<double> = 701;
template <>
constexpr std::uint32_t kTypeNumber<Time> = 1184;

template <std::unsigned_integral T>
void appendBigEndian(std::string& bytes, T number) {
  for (int shift = (static_cast<int>(sizeof number) - 1) * 8; shift >= 0; shift -= 8) {
    bytes += static_cast<char>((number >> shift) & 0xFFU);
  }
}

std::string binary(bool value) {
  return {value ? '\1' : '\0'};
}
std::string binary(std::int32_t number) {
  std::string bytes;
  appendBigEndian(bytes, static_cast<std::uint32_t>(number));
  return bytes;
}
std::string binary(std::int64_t number) {
  std::string bytes;
  appendBigEndian(bytes, static_cast<std::uint64_t>(number));
  return bytes;
}
std::string binary(double number) {
  return binary(std::bit_cast<std::int64_t>(number));
}
std::string binary(Time time) {
  return binary(time.microseconds);
}
std::string_view binary(const std::string& text) {
  return text;
}
std::string_view binary(const Bytes& bytes) {
  return bytes.content;
}

}  // namespace

Time Time::fromMilliseconds(std::int64_t milliseconds) noexcept {
  constexpr std::int64_t kEndOf9999 = 253402300799000;
  return {epoch().microseconds + std::clamp<std::int64_t>(milliseconds, 1, kEndOf9999) * 1000};
}

template <class T>
void ArrayParameter<T>::add(const T& element) {
  const auto& content = binary(element);
  appendBigEndian(bytes_, static_cast<std::uint32_t>(content.size()));
  bytes_ += content;
  ++count_;
}

template <class T>
void ArrayParameter<T>::addNull() {
  appendBigEndian(bytes_, UINT32_MAX);
  ++count_;
  hasNull_ = true;
}

template <class T>
Parameter ArrayParameter<T>::take() {
  std::string header;
  appendBigEndian(header, std::uint32_t{1});  // dimensions
  appendBigEndian(header, std::uint32_t{hasNull_});
  appendBigEndian(header, kTypeNumber<T>);
  appendBigEndian(header, static_cast<std::uint32_t>(count_));
  appendBigEndian(header, std::uint32_t{1});  // index of the first element
  bytes_.replace(0, kHeader, header);
  return std::move(bytes_);
}

template class ArrayParameter<bool>;
template class ArrayParameter<Bytes>;
template class ArrayParameter<std::int32_t>;
template class ArrayParameter<std::int64_t>;
template class ArrayParameter<std::string>;
template class ArrayParameter<double>;
template class ArrayParameter<Time>;

Parameter parameter(std::string_view text) {
  return std::string(text);
}

Rows::Rows(pg_result* result) : result_(result, PQclear) {}

std::size_t Rows::size() const {
  return static_cast<std::size_t>(PQntuples(result_.get()));
}

std::string Rows::text(std::size_t row, int column) const {
  const int at = static_cast<int>(row);
  return {PQgetvalue(result_.get(), at, column), static_cast<std::size_t>(PQgetlength(result_.get(), at, column))};
}

bool Rows::isNull(std::size_t row, int column) const {
  return PQgetisnull(result_.get(), static_cast<int>(row), column) != 0;
}

bool Failure::isAboutData() const {
  // Data exception, integrity constraint, a limit of the program (an index entry that is too long, for example).
  const std::string_view group = std::string_view(state).substr(0, 2);
  return group == "22" || group == "23" || group == "54";
}

}  // namespace kelvo::server::db
