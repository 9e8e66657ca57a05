#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// What may be asked before something is written to the database.
class KLVStorable {
 public:
  /// False for signals that only travel on the bus.
  [[nodiscard]] virtual bool isStorable() const { return true; }

 protected:
  ~KLVStorable() = default;
};

/// Base of every record: an identifier and one open dictionary of attributes under their storage names; the
/// caller's own attributes are nested in it under "__custom_info__".
///
/// A record has a storage form, which the database and the files hold, and an upload form, whose names are
/// translated through the maps of `KLVServerAPIHelper`. Each operation is safe from any thread on its own.
class KLVInfo : public KLVStorable {
 public:
  explicit KLVInfo(std::string identifier) : identifier_(std::move(identifier)) {}
  KLVInfo(const KLVInfo&) = delete;
  KLVInfo& operator=(const KLVInfo&) = delete;
  virtual ~KLVInfo() = default;

  /// The name under which the key maps know this class.
  [[nodiscard]] virtual std::string_view className() const { return "KLVInfo"; }

  /// Empty when the record has none.
  [[nodiscard]] std::string identifier() const;
  void setIdentifier(std::string identifier);

  [[nodiscard]] Dictionary additionalInfo() const;
  void setAdditionalInfo(Dictionary info);
  /// The null value removes the key.
  void setInfo(Value value, std::string_view key);

  void setCustomInfo(Value value, std::string_view key);
  /// Replaces all custom attributes.
  void setCustomInfo(Dictionary info);
  [[nodiscard]] Dictionary customInfo() const;

  /// Storage form: "id", and "__additional_info__" with the attributes as one JSON text. Throws
  /// `KLVInvalidArgument` when the attributes cannot be cleaned.
  [[nodiscard]] virtual Dictionary jsonDict() const;
  /// Upload form through this class's key map.
  [[nodiscard]] Dictionary jsonDictModified() const { return jsonDictModifiedforInstanceWithName(className()); }
  /// Upload form through the key map of the class called `name`.
  [[nodiscard]] virtual Dictionary jsonDictModifiedforInstanceWithName(std::string_view name) const;

 protected:
  /// Takes the attributes of a storage form; its "id" was taken by the constructor.
  virtual void restore(const Dictionary& jsonDict);

 private:
  template <class Record>
  friend std::shared_ptr<Record> objectFromJsonDict(const std::optional<Dictionary>& jsonDict);

  mutable std::mutex mutex_;
  std::string identifier_;
  Dictionary additionalInfo_;
};

/// Rebuilds a `Record` from its storage form; nullptr for nullopt. Attributes that do not parse are left out.
template <class Record>
std::shared_ptr<Record> objectFromJsonDict(const std::optional<Dictionary>& jsonDict) {
  if (!jsonDict) return nullptr;
  const auto* identifier = (*jsonDict)["id"].template get<std::string>();
  auto record = std::make_shared<Record>(identifier != nullptr ? *identifier : std::string());
  static_cast<KLVInfo&>(*record).restore(*jsonDict);
  return record;
}

/// Sets the columns of `row` on `record`, as `objectFromDictionary` says.
void importRow(KLVInfo& record, const Dictionary& row);

/// Builds a `Record` from a flat row of columns: "id" becomes the identifier ("undefined" without), the text of
/// "reporting_times" an array, every other column an attribute.
template <class Record>
std::shared_ptr<Record> objectFromDictionary(const Dictionary& row) {
  auto record = std::make_shared<Record>(std::string("undefined"));
  importRow(*record, row);
  return record;
}
}  // namespace kelvo
