#include <QtQml/qqmlmoduleregistration.h>
#include <QCoreApplication>

#include <memory>

#include "adapters/quick/ItemToolkit.h"
#include "adapters/quick/KelvoAttached.h"

/// The registration of the module `Kelvo`. Never destroyed, so that no destructor runs at exit.
///
/// `Kelvo::quick` names this variable to the linker as undefined. It so takes this file from the static library,
/// although no code of the host refers to it.
extern "C" const QQmlModuleRegistration* const kelvo_quick_module;

namespace {

/// Called by the engine at the first `import Kelvo`, on any thread. The toolkit follows on the main thread: searches
/// need it even if no object uses the type.
void registerTypes() {
  using namespace kelvo::qt;
  qmlRegisterUncreatableType<KelvoAttached>("Kelvo", 1, 0, "Kelvo", "Kelvo has attached properties and methods only");
  QObject* application = QCoreApplication::instance();
  if (application == nullptr) return;
  QMetaObject::invokeMethod(
      application, [] { ItemToolkit::ofApplication(); }, Qt::QueuedConnection);
}

}  // namespace

const QQmlModuleRegistration* const kelvo_quick_module =
    std::make_unique<QQmlModuleRegistration>("Kelvo", registerTypes).release();
