#pragma once

// The templates of `FMKLVDatabase`. Only `FMKLVDatabase.h` includes this header, at its end.

namespace kelvo {

FMKLVDatabase::ResultSet FMKLVDatabase::executeQuery(const std::string& sql, const FMKLVBindable auto&... arguments) {
  return queryWithArguments(sql, FMKLVArguments(arguments...));
}

bool FMKLVDatabase::executeUpdate(const std::string& sql, const FMKLVBindable auto&... arguments) {
  return updateWithArguments(sql, FMKLVArguments(arguments...), nullptr);
}

bool FMKLVDatabase::executeUpdateWithErrorAndBindings(const std::string& sql, FMKLVError* error,
                                                      const FMKLVBindable auto&... arguments) {
  return updateWithArguments(sql, FMKLVArguments(arguments...), error);
}

bool FMKLVDatabase::update(const std::string& sql, FMKLVError* error, const FMKLVBindable auto&... arguments) {
  return updateWithArguments(sql, FMKLVArguments(arguments...), error);
}

FMKLVDatabase::ResultSet FMKLVDatabase::executeQueryWithFormat(const std::string& format,
                                                               const FMKLVBindable auto&... values) {
  return queryWithFormat(format, FMKLVArguments::list(values...));
}

bool FMKLVDatabase::executeUpdateWithFormat(const std::string& format, const FMKLVBindable auto&... values) {
  return updateWithFormat(format, FMKLVArguments::list(values...));
}

int FMKLVDatabase::intForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->intForColumnIndex(0) : 0;
}

long FMKLVDatabase::longForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->longForColumnIndex(0) : 0;
}

bool FMKLVDatabase::boolForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row && row->boolForColumnIndex(0);
}

double FMKLVDatabase::doubleForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->doubleForColumnIndex(0) : 0;
}

std::optional<std::string> FMKLVDatabase::stringForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->stringForColumnIndex(0) : std::nullopt;
}

std::optional<Data> FMKLVDatabase::dataForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->dataForColumnIndex(0) : std::nullopt;
}

std::optional<Date> FMKLVDatabase::dateForQuery(const std::string& sql, const FMKLVBindable auto&... values) {
  const auto row = firstRow(sql, FMKLVArguments(values...));
  return row ? row->dateForColumnIndex(0) : std::nullopt;
}

}  // namespace kelvo
