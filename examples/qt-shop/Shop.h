#pragma once

#include <QDialog>
#include <QLabel>
#include <QListWidget>
#include <QMainWindow>
#include <QPushButton>
#include <QStackedWidget>

namespace shop {

class ProductList : public QWidget {
 public:
  ProductList();
  QListWidget* products;
  QPushButton* toBasket;
  QPushButton* toSettings;
};

class ProductDetail : public QWidget {
 public:
  ProductDetail();
  void show(const QString& name, double price);
  QString name;
  double price = 0;
  QPushButton* buy;
  QPushButton* back;

 private:
  QLabel* heading_;
  QLabel* text_;
};

class Basket : public QWidget {
 public:
  Basket();
  QListWidget* items;
  QPushButton* checkOut;
  QPushButton* back;
};

class Settings : public QDialog {
 public:
  explicit Settings(QWidget* parent);
};

/// The window of a small shop. List, detail and basket are pages; the settings are a dialog.
class Window : public QMainWindow {
 public:
  Window();
  ProductList* list;
  ProductDetail* detail;
  Basket* basket;

 private:
  void openProduct(const QListWidgetItem& item);
  void buy();
  void checkOut();
  void openSettings();

  QStackedWidget* pages_;
};

}  // namespace shop
