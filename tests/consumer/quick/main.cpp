#include <kelvo/QtGui.h>

#include <QQmlApplicationEngine>
#include <QThread>

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  kelvo::qt::attach(app);
  // The bundle has started the library before main. The device id exists once the start has ended.
  for (int i = 0; i < 200 && !kelvo::KelvoSDK::getDeviceID(); ++i) QThread::msleep(50);
  const QQmlApplicationEngine engine(QUrl("qrc:/Consumer/Main.qml"));
  return QGuiApplication::exec();
}
