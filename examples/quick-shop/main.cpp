// A shop in Qt Quick with analytics. Kelvo takes an include and two lines here. In the QML files, it takes `import
// Kelvo`, a name for each screen, and a call for each event. Kelvo then reports the time on each screen, foreground and
// background.
#include <QGuiApplication>
#include <QQmlApplicationEngine>

#include "kelvo/QtGui.h"

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  kelvo::qt::attach(app);
  kelvo::KelvoSDK::initializeKelvoWithID("tea-shop");
  QQmlApplicationEngine engine(QUrl("qrc:/shop/Main.qml"));
  return QGuiApplication::exec();
}
