#include <kelvo/QtGui.h>

#include <QQmlApplicationEngine>
#include <QThread>

#include <atomic>

namespace {
std::atomic<bool> isReady{false};
}

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  kelvo::qt::attach(app);
  // The bundle has started the library before main. It collects once the start has ended.
  kelvo::KelvoSDK::onReady([](const auto& status) { isReady = status.state == kelvo::KelvoSDK::State::running; });
  for (int i = 0; i < 200 && !isReady; ++i) QThread::msleep(50);
  const QQmlApplicationEngine engine(QUrl("qrc:/Consumer/Main.qml"));
  return QGuiApplication::exec();
}
