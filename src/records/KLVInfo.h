#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "platform/ThreadSafety.h"
#include "records/KLVRecordKeys.h"

namespace kelvo {

/// An object that the database may store.
class KLVStorable {
 public:
  /// Returns false for objects that must not be stored, such as signals that only travel on the bus.
  [[nodiscard]] virtual bool isStorable() const { return true; }

 protected:
  ~KLVStorable() = default;  // never deleted through this type
};

/// Base of every record: an identifier, and one open dictionary of attributes under their storage names. The host's own
/// attributes are nested in it under "__custom_info__".
///
/// A record has two forms. The database and the files hold its storage form. The service receives its upload form, with
/// names translated by `KLVServerAPIHelper`. Thread-safe: each operation is atomic on its own.
class KLVInfo : public KLVStorable {
 public:
  explicit KLVInfo(std::string identifier) : identifier_(std::move(identifier)) {}
  KLVInfo(const KLVInfo&) = delete;
  KLVInfo& operator=(const KLVInfo&) = delete;
  virtual ~KLVInfo() = default;

  /// Returns the name under which the key maps know this class.
  [[nodiscard]] virtual std::string_view className() const { return "KLVInfo"; }

  /// Returns the identifier, empty if the record has none.
  [[nodiscard]] std::string identifier() const;
  void setIdentifier(std::string identifier);

  [[nodiscard]] Dictionary additionalInfo() const;
  void setAdditionalInfo(Dictionary info);
  /// Sets one attribute. The null value removes the key.
  void setInfo(Value value, std::string_view key);

  /// Sets one custom attribute. The null value is stored.
  void setCustomInfo(Value value, std::string_view key);
  /// Replaces all custom attributes.
  void setCustomInfo(Dictionary info);
  [[nodiscard]] Dictionary customInfo() const;

  /// Returns the storage form: "id", and "__additional_info__" with the attributes as one JSON text. Throws
  /// `KLVInvalidArgument` if the attributes cannot be cleaned.
  [[nodiscard]] virtual Dictionary jsonDict() const;
  /// Returns the upload form through this class's key map.
  [[nodiscard]] Dictionary jsonDictModified() const { return jsonDictModifiedforInstanceWithName(className()); }
  /// Returns the upload form through the key map of the class called `name`.
  [[nodiscard]] virtual Dictionary jsonDictModifiedforInstanceWithName(std::string_view name) const;

 protected:
  /// Takes the attributes from a storage form. The constructor has taken its "id" already.
  virtual void restore(const Dictionary& jsonDict);

 private:
  template <class Record>
  friend std::shared_ptr<Record> objectFromJsonDict(const std::optional<Dictionary>& jsonDict);

  mutable Mutex mutex_;
  std::string identifier_ GUARDED_BY(mutex_);
  Dictionary additionalInfo_ GUARDED_BY(mutex_);
};

/// Rebuilds a `Record` from its storage form. Returns nullptr for nullopt. Leaves out attributes that do not parse.
template <class Record>
std::shared_ptr<Record> objectFromJsonDict(const std::optional<Dictionary>& jsonDict) {
  if (!jsonDict) return nullptr;
  auto record = std::make_shared<Record>((*jsonDict)[kKLVId].asText().value_or(""));
  static_cast<KLVInfo&>(*record).restore(*jsonDict);
  return record;
}

/// Sets the columns of `row` on `record`, as `objectFromDictionary` describes.
void importRow(KLVInfo& record, const Dictionary& row);

/// Builds a `Record` from a flat row of columns. "id" becomes the identifier ("undefined" if missing), the JSON text of
/// "reporting_times" becomes an array, and every other column an attribute.
template <class Record>
std::shared_ptr<Record> objectFromDictionary(const Dictionary& row) {
  auto record = std::make_shared<Record>(std::string("undefined"));
  importRow(*record, row);
  return record;
}

}  // namespace kelvo
