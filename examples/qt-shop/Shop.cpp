#include "Shop.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QLineEdit>
#include <QVBoxLayout>

#include "kelvo/Qt.h"

namespace shop {
namespace {

struct Product {
  const char* name;
  double price;
};
constexpr Product kProducts[] = {{"Tea pot", 32.5}, {"Tea cup", 9.9}, {"Green tea, 100 g", 7.25}, {"Kettle", 48}};

QPushButton* button(QWidget* page, const char* name, const QString& text) {
  auto* made = new QPushButton(text, page);  // NOLINT: Qt's parents own their children
  made->setObjectName(name);
  page->layout()->addWidget(made);
  return made;
}

QLabel* label(QWidget* page, const QString& text) {
  auto* made = new QLabel(text, page);  // NOLINT
  page->layout()->addWidget(made);
  return made;
}

QListWidget* listOf(QWidget* page, const char* name) {
  auto* made = new QListWidget(page);  // NOLINT
  made->setObjectName(name);
  page->layout()->addWidget(made);
  return made;
}

}  // namespace

ProductList::ProductList() {
  setWindowTitle("Products");
  new QVBoxLayout(this);  // NOLINT
  label(this, "Choose a product");
  products = listOf(this, "products");
  for (const Product& product : kProducts) {
    auto* item = new QListWidgetItem(QString("%1 (%2)").arg(product.name).arg(product.price), products);  // NOLINT
    item->setData(Qt::UserRole, product.name);
    item->setData(Qt::UserRole + 1, product.price);
  }
  toBasket = button(this, "toBasket", "Basket");
  toSettings = button(this, "toSettings", "Settings");
}

ProductDetail::ProductDetail() {
  setWindowTitle("Product");
  new QVBoxLayout(this);  // NOLINT
  heading_ = label(this, "");
  text_ = label(this, "");
  buy = button(this, "buy", "Put into basket");
  back = button(this, "backToList", "Back");
}

void ProductDetail::show(const QString& itsName, double itsPrice) {
  name = itsName;
  price = itsPrice;
  heading_->setText("<h2>" + name.toHtmlEscaped() + "</h2>");
  text_->setText(QString("It costs %1.").arg(price));
}

Basket::Basket() {
  setWindowTitle("Basket");
  new QVBoxLayout(this);  // NOLINT
  label(this, "In your basket");
  items = listOf(this, "items");
  checkOut = button(this, "checkOut", "Check out");
  back = button(this, "backFromBasket", "Back");
}

Settings::Settings(QWidget* parent) : QDialog(parent) {
  setWindowTitle("Settings");
  auto* layout = new QVBoxLayout(this);                              // NOLINT
  layout->addWidget(new QCheckBox("Tell me about offers", this));    // NOLINT
  layout->addWidget(new QLineEdit("customer@example.com", this));    // NOLINT
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);  // NOLINT
  layout->addWidget(buttons);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
}

Window::Window()
    : list(new ProductList), detail(new ProductDetail), basket(new Basket), pages_(new QStackedWidget) {  // NOLINT
  setWindowTitle("Tea shop");
  resize(420, 480);
  setCentralWidget(pages_);
  for (QWidget* page : {static_cast<QWidget*>(list), static_cast<QWidget*>(detail), static_cast<QWidget*>(basket)}) {
    pages_->addWidget(page);
  }
  connect(list->products, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) { openProduct(*item); });
  connect(list->toBasket, &QPushButton::clicked, this, [this] { pages_->setCurrentWidget(basket); });
  connect(list->toSettings, &QPushButton::clicked, this, [this] { openSettings(); });
  connect(detail->buy, &QPushButton::clicked, this, [this] { buy(); });
  connect(detail->back, &QPushButton::clicked, this, [this] { pages_->setCurrentWidget(list); });
  connect(basket->checkOut, &QPushButton::clicked, this, [this] { checkOut(); });
  connect(basket->back, &QPushButton::clicked, this, [this] { pages_->setCurrentWidget(list); });
}

void Window::openProduct(const QListWidgetItem& item) {
  detail->show(item.data(Qt::UserRole).toString(), item.data(Qt::UserRole + 1).toDouble());
  pages_->setCurrentWidget(detail);
}

void Window::buy() {
  basket->items->addItem(detail->name);
  kelvo::qt::logAppEventWithName("Add to basket", {{"item", detail->name}, {"price", detail->price}});
  pages_->setCurrentWidget(basket);
}

void Window::checkOut() {
  kelvo::qt::logAppEventWithName("Check out", {{"items", basket->items->count()}});
  basket->items->clear();
  pages_->setCurrentWidget(list);
}

void Window::openSettings() {
  auto* settings = new Settings(this);  // NOLINT
  settings->setAttribute(Qt::WA_DeleteOnClose);
  settings->open();
  kelvo::qt::logAppEventWithName("Settings opened");
}

}  // namespace shop
