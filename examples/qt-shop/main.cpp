// A shop with analytics. Kelvo takes seven lines: attach, initialize and an include here, three events and an include
// in Shop.cpp. Kelvo then reports the screens, the time on each, foreground and background.
#include <QApplication>

#include "Shop.h"
#include "kelvo/Qt.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  kelvo::qt::attach(app);
  kelvo::KelvoSDK::initializeKelvoWithID("tea-shop");
  shop::Window window;
  window.show();
  return QApplication::exec();
}
