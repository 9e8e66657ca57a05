// A shop with analytics. What is added for it are seven lines: attach, initialize and an include here, and three events
// and an include in Shop.cpp. Screens, the time on each, foreground and background follow by themselves.
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
