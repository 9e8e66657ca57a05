#pragma once

#include <QtQml/qqml.h>
#include <QObject>
#include <QString>
#include <QVariantMap>

namespace kelvo::qt {

/// The QML type `Kelvo` of the module `Kelvo`: attached properties and methods, of any object in QML.
///
///     import Kelvo
///     Page {
///         Kelvo.screen: "Basket"
///         Button { onClicked: Kelvo.log("Purchase", {item: "book", price: 12.5}) }
///     }
///
/// Thread: the main thread only.
class KelvoAttached final : public QObject {
  Q_OBJECT
  /// The name of the screen that this object is: an item, a window, a popup or a `Loader`. Empty for none, which is the
  /// default. The library ignores the part up to the last ".". Screens of the same name count as one screen.
  Q_PROPERTY(QString screen READ screen WRITE setScreen NOTIFY screenChanged FINAL)

 public:
  explicit KelvoAttached(QObject& object);

  /// Makes the attached object of `object`, which owns it. Called by the QML engine.
  static KelvoAttached* qmlAttachedProperties(QObject* object);

  [[nodiscard]] QString screen() const { return screen_; }
  void setScreen(const QString& name);

  /// Call the functions of `KelvoSDK` with the same meaning; `kelvo::qt::attributes` converts `info`. They work from
  /// every object, and need no screen.
  Q_INVOKABLE void log(const QString& name, const QVariantMap& info = {}) const;
  Q_INVOKABLE void logAggregate(const QString& name, const QVariantMap& info = {}) const;
  Q_INVOKABLE void setUserIdentifier(const QString& identifier) const;
  Q_INVOKABLE void setUserCustomInfo(const QVariantMap& info) const;
  Q_INVOKABLE void setSessionCustomInfo(const QVariantMap& info) const;

 Q_SIGNALS:
  void screenChanged();

 private:
  QString screen_;
};

}  // namespace kelvo::qt

QML_DECLARE_TYPEINFO(kelvo::qt::KelvoAttached, QML_HAS_ATTACHED_PROPERTIES)
