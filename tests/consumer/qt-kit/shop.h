#pragma once

#include <QMainWindow>
#include <QStackedWidget>

/// The code under test: a window with two pages.
class Shop : public QMainWindow {
 public:
  Shop();
  void openBasket();
  void buy();

 private:
  QStackedWidget* pages_;
};
