#include <QDateTime>
#include <QVariant>
#include <chrono>
#include <exception>

#include "kelvo/QtGui.h"

namespace kelvo::qt {
namespace {

Value valueOf(const QVariant& variant);

Dictionary dictionaryOf(const QVariantMap& map) {
  Dictionary dictionary;
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    dictionary.set(entry.key().toStdString(), valueOf(entry.value()));
  }
  return dictionary;
}

Value dateOf(const QDateTime& moment) {
  if (!moment.isValid()) return {};
  return Date(std::chrono::milliseconds(moment.toMSecsSinceEpoch()));
}

Value valueOf(const QVariant& variant) {
  switch (variant.typeId()) {
    case QMetaType::Bool: return variant.toBool();
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong: return variant.toLongLong();
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong: return variant.toULongLong();
    case QMetaType::Float: return variant.toFloat();
    case QMetaType::Double: return variant.toDouble();
    case QMetaType::QByteArray: {
      const QByteArray bytes = variant.toByteArray();
      return Data(bytes.begin(), bytes.end());
    }
    case QMetaType::QDateTime:
    case QMetaType::QDate: return dateOf(variant.toDateTime());
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash: return dictionaryOf(variant.toMap());
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
      Array array;
      for (const QVariant& element : variant.toList()) array.append(valueOf(element));
      return array;
    }
    case QMetaType::Nullptr: return {};  // null in JavaScript
    default: return variant.canConvert<QString>() ? Value(variant.toString().toStdString()) : Value();
  }
}

/// Runs `call`. If it throws (a host's type may, when it is converted to text), logs a warning and drops the call.
template <class F>
void guarded(F&& call) noexcept {
  try {
    call();
  } catch (const std::exception& error) {
    qWarning("kelvo: a call is dropped: %s", error.what());
  } catch (...) {
    qWarning("kelvo: a call is dropped");
  }
}

}  // namespace

Dictionary attributes(const QVariantMap& map) {
  return dictionaryOf(map);
}

void logAppEventWithName(const QString& name, const QVariantMap& info) noexcept {
  guarded([&] { KelvoSDK::logAppEventWithName(name.toStdString(), dictionaryOf(info)); });
}

void logClientEventWithName(const QString& name, const QVariantMap& info) noexcept {
  guarded([&] { KelvoSDK::logClientEventWithName(name.toStdString(), dictionaryOf(info)); });
}

void logAggregateEvent(const QString& name, const QVariantMap& info) noexcept {
  guarded([&] { KelvoSDK::logAggregateEvent(name.toStdString(), dictionaryOf(info)); });
}

void setUserCustomInfo(const QVariantMap& info) noexcept {
  guarded([&] { KelvoSDK::setUserCustomInfo(dictionaryOf(info)); });
}

void setSessionCustomInfo(const QVariantMap& info) noexcept {
  guarded([&] { KelvoSDK::setSessionCustomInfo(dictionaryOf(info)); });
}

}  // namespace kelvo::qt
