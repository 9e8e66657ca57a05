#include "adapters/quick/KelvoAttached.h"

#include <memory>

#include "adapters/quick/ItemToolkit.h"
#include "kelvo/KelvoSDK.h"
#include "kelvo/QtGui.h"

namespace kelvo::qt {

KelvoAttached::KelvoAttached(QObject& object) : QObject(&object) {
  ItemToolkit::ofApplication();
}

KelvoAttached* KelvoAttached::qmlAttachedProperties(QObject* object) {
  return std::make_unique<KelvoAttached>(*object).release();
}

void KelvoAttached::setScreen(const QString& name) {
  if (name == screen_) return;
  screen_ = name;
  ItemToolkit::ofApplication().mark(*parent(), name);
  Q_EMIT screenChanged();
}

void KelvoAttached::log(const QString& name, const QVariantMap& info) const {
  logAppEventWithName(name, info);
}

void KelvoAttached::logAggregate(const QString& name, const QVariantMap& info) const {
  logAggregateEvent(name, info);
}

void KelvoAttached::setUserIdentifier(const QString& identifier) const {
  KelvoSDK::setUserIdentifier(identifier.toStdString());
}

void KelvoAttached::setUserCustomInfo(const QVariantMap& info) const {
  qt::setUserCustomInfo(info);
}

void KelvoAttached::setSessionCustomInfo(const QVariantMap& info) const {
  qt::setSessionCustomInfo(info);
}

}  // namespace kelvo::qt
