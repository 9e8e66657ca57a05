#include "shop.h"

#include <kelvo/Qt.h>

Shop::Shop() : pages_(new QStackedWidget) {
  for (const char* name : {"Products", "Basket"}) {
    auto* page = new QWidget;
    page->setObjectName(name);
    pages_->addWidget(page);
  }
  setCentralWidget(pages_);
}

void Shop::openBasket() {
  pages_->setCurrentIndex(1);
}

void Shop::buy() {
  kelvo::qt::logAppEventWithName("Purchase", {{"item", "book"}});
}
