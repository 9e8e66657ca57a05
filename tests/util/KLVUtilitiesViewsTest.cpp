#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "kelvo/ViewTree.h"
#include "platform/HostInterface.h"
#include "support/LogCapture.h"
#include "util/KLVUtilities+Interface.h"
#include "util/KLVUtilities+Views.h"
#include "util/KLVView.h"

namespace kelvo::test {
namespace {

/// A view, described by one line of a picture. Each level is indented by two more blanks. The line names the class,
/// then its superclasses, each after a ":", and then any of: "=label" (its name in the tests), "@x,y" (its centre in
/// the window), "#tag", "id=native id", "noid" (an id that is not a text), "key", "hidden", "faded" (alpha 0),
/// "at=section.row" (its place in the table above it).
struct DrawnView final : Window {
  std::string className() const override { return name; }
  std::vector<std::string> superclassNames() const override { return superclasses; }
  Rect frame() const override { return {x - 20, y - 3, 40, 6}; }
  bool isKey() const override { return words.count("key") > 0; }
  bool isHidden() const override { return words.count("hidden") > 0; }
  double alpha() const override { return words.count("faded") > 0 ? 0 : 1; }
  std::int64_t tag() const override { return number; }
  void setTag(std::int64_t tag) override { number = tag; }
  std::optional<Value> nativeID() const override { return id; }
  std::vector<std::shared_ptr<View>> subviews() const override { return {views.begin(), views.end()}; }
  std::optional<IndexPath> indexPathForCell(const View& cell) const override {
    const bool isOurKind = (name == "UITableView") == (cell.className().find("Table") != std::string::npos);
    return isOurKind ? dynamic_cast<const DrawnView&>(cell).place : std::nullopt;
  }

  void draw(const std::string& word) {
    IndexPath path;
    if (word[0] == '=') label = word.substr(1);
    if (word.starts_with("id=")) id = word.substr(3);
    if (word == "noid") id = 7;
    if (std::sscanf(word.c_str(), "at=%ld.%ld", &path.section, &path.row) == 2) place = path;
    std::sscanf(word.c_str(), "@%lf,%lf", &x, &y);
    std::sscanf(word.c_str(), "#%ld", &number);
    words.insert(word);
  }

  std::string name, label;
  std::vector<std::string> superclasses;
  double x = 0, y = 0;
  std::set<std::string> words;
  std::int64_t number = 0;
  std::optional<Value> id;
  std::optional<IndexPath> place;
  std::vector<std::shared_ptr<DrawnView>> views;
};

std::shared_ptr<DrawnView> draw(const std::string& picture) {
  std::vector<std::shared_ptr<DrawnView>> trail;
  std::istringstream lines(picture);
  for (std::string line; std::getline(lines, line);) {
    const auto indentation = line.find_first_not_of(' ');
    if (indentation == std::string::npos) continue;
    auto view = std::make_shared<DrawnView>();
    std::istringstream words(line);
    std::string word;
    words >> word;
    std::istringstream classes(word);
    std::getline(classes, view->name, ':');
    for (std::string above; std::getline(classes, above, ':');) view->superclasses.push_back(above);
    while (words >> word) view->draw(word);
    trail.resize(std::min(trail.size(), indentation / 2));
    if (!trail.empty()) trail.back()->views.push_back(view);
    trail.push_back(view);
  }
  return trail.at(0);
}

std::string labelOf(const std::shared_ptr<View>& view) {
  return view != nullptr ? std::dynamic_pointer_cast<DrawnView>(view)->label : "none";
}

/// Returns the tree as text. A node is its label, or its class without one, and "#" with its tag unless the tag is 0.
/// Children follow in brackets.
std::string textOf(const KLVView& node) {
  const std::string label = labelOf(node.view);
  std::string text = label.empty() ? node.name : label;
  if (node.view->tag() != 0) text += "#" + std::to_string(node.view->tag());
  for (std::size_t i = 0; i < node.subviews.size(); ++i) text += (i == 0 ? "(" : " ") + textOf(node.subviews[i]);
  return node.subviews.empty() ? text : text + ")";
}

KLVView simplified(const std::shared_ptr<View>& view) {
  KLVView root(view);
  KLVUtilities::constructCustomViewHierarchyForView(*view, root, KLVUtilities::ignoredViews(), nullptr, nullptr);
  KLVUtilities::sortSubViewsWithRootView(root);
  return root;
}

struct Tree final : ViewTree {
  std::vector<std::shared_ptr<Window>> windows() override { return all; }
  std::optional<Font> font(const Dictionary& attributes, double size) const override {
    if (attributes[kFontNameAttribute] == Value("Mono-Bold")) return Font{"Mono-Bold", size};
    if (attributes[kFontFamilyAttribute] == Value("Mono"))
      return Font{"Mono-Bold", size};  // this family has no other face
    if (attributes.contains(kFontFaceAttribute)) return Font{"System " + description(attributes), size};
    return std::nullopt;
  }
  std::vector<std::shared_ptr<Window>> all;
};

class Views : public testing::Test {
 protected:
  /// Shows two windows; the second one is `picture`.
  static void show(const std::string& picture) {
    const auto tree = std::make_shared<Tree>();
    tree->all = {draw("UIWindow =behind #5"), draw(picture)};
    HostInterface::setViewTree(tree);
  }
  using Lookup = std::pair<const char*, const char*>;  // an identifier and the label of the view that it finds
  static void expect(const char* type, std::initializer_list<Lookup> lookups) {
    for (const auto& [identifier, found] : lookups) {
      EXPECT_EQ(labelOf(KLVUtilities::getViewWithIdentifier(identifier, type)), found) << type << " " << identifier;
    }
  }
  static void expectNothing(const char* type, std::initializer_list<const char*> identifiers) {
    for (const char* identifier : identifiers) expect(type, {{identifier, "none"}});
  }
};

constexpr const char* kShop = R"(
UIWindow key #-1
  UINavigationBar =bar @160,20
    UILabel =title @160,20
  Panel
    UIButton =buy @200,104 #7
      UILabel =price @200,104
    Shop.Link:UIControl:UIView =link @100,100 #5
  _UIPrivate:UIControl
    UILabel =private @10,110
  Panel hidden
    UILabel =secret @10,60 #9
  Panel faded
    UILabel =ghost @10,62
  UIVisualEffectView
    UILabel =blurred @10,64
  Blur:UIVisualEffectView
    UILabel =shining @10,126
  UITableView =list @160,300
    Wrapper
      UITableViewCell =last @160,310 at=2.0
        UILabel =name @160,310
      Shop.TableCell:UITableViewCell =first @160,350 at=0.3
        UISwitch =switch @200,350
        UILabel =text @100,352
)";

TEST_F(Views, AreFoundByTagAndByPath) {
  const LogCapture log;
  expectNothing("t", {"5"});  // there is no window yet
  EXPECT_EQ(KLVUtilities::getViewWithPath("UILabel:0", nullptr), nullptr);
  show(kShop);
  expect("t", {{"5", "link"}, {"9", "secret"}});  // in hidden views, too
  expect("i", {{"7", "buy"}});
  expectNothing("t", {"99999999999999999999", "bar", "UINavigationBar:0"});
  // An empty position counts as 0.
  expect("p", {{"UINavigationBar:0", "bar"}, {"UINavigationBar:00", "bar"}, {"UINavigationBar:", "bar"}});
  expectNothing("p", {"", "5", "UINavigationBar", "UINavigationBar:1", "UINavigationBar:0:"});
  expect("p", {{"KLV:UINavigationBar:0:UILabel:0", "title"}, {"Shop.Link:1", "link"}});
  // Panels and private views are skipped, but their children count. Only an ignored class itself is left out, not its
  // subclasses.
  expect("p", {{"UIButton:2", "buy"}, {"UIButton:2:UILabel:0", "price"}});
  expect("p", {{"UILabel:3", "private"}, {"UILabel:4", "shining"}});
  // A path begins at any depth: the first match in reading order counts.
  expect("p", {{"UILabel:0", "title"}, {"UITableView:5:UILabel:0", "text"}});
  // The position of a cell is its tag.
  expect("p", {{"UITableView:5:UITableViewCell:20", "last"}, {"UITableView:5:Shop.TableCell:3:UISwitch:1", "switch"}});
  expectNothing("p", {"UITableViewCell:0"});
  expect("x", {{"5", "link"}, {"UIButton:2", "buy"}});
  expectNothing("", {"12345"});
  EXPECT_EQ(log.count("<KLV ERROR> Invalid view ID provided"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> Improper tag given"), 3U);
}

TEST_F(Views, ArePrintedAsATreeWithPathsThatFindThem) {
  const LogCapture log;
  HostInterface::setViewTree(nullptr);
  KLVUtilities::printViewTree();
  EXPECT_EQ(log.count("<KLV WARN> There is no key window whose views could be printed"), 1U);
  show("UIWindow key\n  UITableView =list @0,9\n    UITableViewCell =cell at=2.0\n  Panel\n    UILabel =title @0,1");
  KLVUtilities::printViewTree();
  static_cast<void>(log.waitFor("UITableViewCell:20"));
  std::string tree, found;
  for (const std::string& line : log.lines()) {
    std::istringstream words(line);
    std::string mark, level, first, second;
    words >> mark >> level >> first >> second;
    if (first.starts_with("<>")) tree += first + " ";
    if (first == "Path") found += labelOf(KLVUtilities::getViewWithIdentifier(second, "p")) + " ";
  }
  EXPECT_EQ(tree, "<>UIWindow <>-UILabel <>-UITableView <>--UITableViewCell ");
  EXPECT_EQ(found, "title list cell ");
}

TEST_F(Views, AreFoundByNativeIdWhereAFrameworkDrawsThem) {
  const LogCapture log;
  show(R"(
Root key
  Box =box id=list @0,10
    Text =first id=buy @50,20
    Text =second id=buy @10,20
  Box =odd noid @0,30
  Box hidden
    Text =hidden id=secret
  Box =last id=end @0,40
    Text =bare @0,40
)");
  expectNothing("p", {"Box:0"});
  KLVUtilities::setIsReactNative(true);
  expect("t", {{"[klv_buy_klv]", "first"}, {"[klv_buy_klv]:and:more", "first"}, {"[klv_secret_klv]", "hidden"}});
  expect("i", {{"end", "last"}, {"7", "none"}});
  // The first match in reading order counts.
  expect("p", {{"[klv_buy_klv]", "second"}, {"[klv_list_klv]:[klv_buy_klv]", "second"}, {"Box:1", "odd"}});
  expect("p", {{"[klv_secret_klv]", "none"}, {"KLV:[klv_end_klv]:Text:0", "bare"}});
  // The native id is looked up first, then the path.
  expect("x", {{"[klv_list_klv]:Text:1", "box"}, {"Box:2:Text:0", "bare"}});
  EXPECT_EQ(KLVUtilities::getViewWithTAG(std::nullopt, nullptr), nullptr);
  EXPECT_EQ(log.count("<KLV ERROR> Improper Identifier: (null)"), 1U);
}

/// Cells within cells, in a table and in a collection. One cell is unknown to its table, one is in no container.
constexpr const char* kCells = R"(
UIView
  UITableView
    UITableViewCell =0.3 at=0.3
    UITableViewCell =2.0 at=2.0
    TableCard:UITableViewCell =1.12 at=1.12
      UICollectionView
        UICollectionViewCell =4.5 at=4.5
        UITableViewCell =3.1 at=3.1
    UITableViewCell =unknown #77
  UICollectionViewCell =alone #77 at=6.6
)";

TEST_F(Views, AreSortedInReadingOrderAndCellsByTheirTags) {
  const std::pair<const char*, const char*> cases[] = {
      {"UIView\n  UILabel =right @50,10\n  UILabel =left @10,15", "UIView(left right)"},
      {"UIView\n  UILabel =below @10,16\n  UILabel =above @50,10", "UIView(above below)"},
      {"UIView\n  UILabel =one @5,5\n  UILabel =two @5,5", "UIView(one two)"},
      {"UIView\n  UILabel =c @1,9\n  UILabel =b @2,5\n  UILabel =a @3,0",
       "UIView(c b a)"},  // no order satisfies all three pairs
      {"UITableView\n  UITableViewCell =b @0,1 at=1.0\n  UITableViewCell =a @0,9 at=0.3", "UITableView(b a)"},
      {"UIView\n  UITableView\n    UITableViewCell =cell @9,9 at=0.0\n    UILabel =label @1,9",
       "UIView(UITableView(label cell))"},
      {kCells, "UIView(UITableView(unknown 0.3#3 2.0#20 1.12#112(UICollectionView(3.1#31 4.5#45))) alone)"}};
  for (const auto& [picture, expected] : cases) EXPECT_EQ(textOf(simplified(draw(picture))), expected) << picture;
}

struct Controller final : ViewController {
  explicit Controller(Kind itsKind = Kind::plain) : ofKind(itsKind) {}
  std::string className() const override { return "Controller"; }
  Kind kind() const override { return ofKind; }
  std::vector<std::shared_ptr<ViewController>> children() const override { return below; }
  std::shared_ptr<ViewController> presented() const override { return dialog; }
  std::shared_ptr<ViewController> selected() const override { return tab; }
  std::shared_ptr<ViewController> visible() const override { return page; }
  Kind ofKind;
  std::vector<std::shared_ptr<ViewController>> below;
  std::shared_ptr<ViewController> dialog, tab, page;
};

TEST_F(Views, HaveATopControllerBehindTabsNavigationsAndChildren) {
  using Kind = ViewController::Kind;
  const auto make = [](Kind kind = Kind::plain) { return std::make_shared<Controller>(kind); };
  const auto leaf = make(), parent = make(), navigation = make(Kind::navigation), tabs = make(Kind::tabBar);
  const auto presenting = make();
  parent->below = {make(), leaf};
  navigation->page = parent;
  tabs->tab = navigation;
  tabs->dialog = make();  // the selected tab takes precedence
  presenting->dialog = tabs;
  presenting->below = {make()};
  EXPECT_EQ(KLVUtilities::topViewController(presenting), leaf);
  tabs->tab = nullptr;
  EXPECT_EQ(KLVUtilities::topViewController(tabs), nullptr);
}

TEST_F(Views, FontsAndColoursMatchTheirDescriptions) {
  const auto font = [](const Font& given) { return given.name + " " + description(given.size); };
  EXPECT_EQ(font(KLVUtilities::fontWithName("Any", 12)), " 12") << "the system's font, because there is no view tree";
  show("UIWindow key");
  using Text = std::optional<std::string>;
  std::string fonts;
  for (const auto& [name, size, style] : std::initializer_list<std::tuple<Text, double, Text>>{
           {"Mono-Bold", 12, "plain"}, {"Unknown", 0.9, {}}, {"Mono", 9, "bold"}, {"Mono", 9, "bolditalic"}}) {
    fonts += font(KLVUtilities::fontWithName(name, size, style)) + "; ";
  }
  EXPECT_EQ(fonts, R"(Mono-Bold 12;  16; Mono-Bold 9; System {"NSFontFaceAttribute":"Bold Italic"} 9; )");
  std::string parts;
  for (const Text& text : {Text("#FF8000"), Text("#0xff8000"), Text("#1"), Text("a#00ff"), Text("#ggg"),
                           Text("#12345678"), Text("#123456789"), Text("#"), Text("FF8000"), Text(""), Text()}) {
    const Color made = KLVUtilities::colorFromHexString(text);
    for (const double part : {made.red, made.green, made.blue, made.alpha}) parts += description(part * 255) + " ";
    parts += "; ";
  }
  EXPECT_EQ(parts,
            "255 128 0 255 ; 255 128 0 255 ; 0 0 1 255 ; 0 0 0 255 ; 0 0 0 255 ; 52 86 120 255 ; 255 255 255 255 ; "
            "0 0 0 0 ; 0 0 0 0 ; 0 0 0 0 ; 0 0 0 0 ; ");
}

}  // namespace
}  // namespace kelvo::test
