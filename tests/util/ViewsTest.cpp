#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "kelvo/ViewTree.h"
#include "platform/HostInterface.h"
#include "support/LogCapture.h"
#include "util/KLVUtilities.h"
#include "util/KLVView.h"

namespace kelvo::test {
namespace {

/// A view of a drawn tree. A line draws one, two blanks deeper for each level: the class, behind ":" what it derives
/// from, and any of: "=label" (what tests call it), "@x,y" (its centre in the window), "#tag", "id=native id", "noid"
/// (an id that is no text), "key", "hidden", "faded" (alpha 0), "at=section.row" (its place in the table above).
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
    const std::string value = word.substr(std::min(word.size(), word.find_first_of("=@#") + 1));
    std::int64_t first = 0, second = 0;
    if (word[0] == '=') label = value;
    if (word[0] == '#') number = std::stoll(value);
    if (word[0] == '@' && std::sscanf(value.c_str(), "%lf,%lf", &x, &y) != 2) ADD_FAILURE() << word;
    if (word.substr(0, 3) == "id=") id = value;
    if (word == "noid") id = 7;
    words.insert(word);
    if (std::sscanf(word.c_str(), "at=%ld.%ld", &first, &second) == 2) place = IndexPath{first, second};
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

/// The simplified tree, sorted, a node as its label or, without one, its class; children in brackets.
std::string textOf(const KLVView& node) {
  const std::string label = labelOf(node.view);
  std::string text = label.empty() ? node.name : label;
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
    if (attributes[kFontFamilyAttribute] == Value("Mono")) return Font{"Mono-Bold", size};  // has no other face
    if (attributes.contains(kFontFaceAttribute)) return Font{"System " + description(attributes), size};
    return std::nullopt;
  }
  std::vector<std::shared_ptr<Window>> all;
};

class Views : public testing::Test {
 protected:
  Views() { KLVUtilities::setIsReactNative(false); }
  /// Makes `picture` the second window.
  static void show(const std::string& picture) {
    const auto tree = std::make_shared<Tree>();
    tree->all = {draw("UIWindow =behind #5"), draw(picture)};
    HostInterface::setViewTree(tree);
  }
  struct Search {
    const char* type;
    const char* identifier;
    const char* found;
  };
  void expect(std::initializer_list<Search> searches) {
    for (const auto& [type, identifier, found] : searches) {
      EXPECT_EQ(labelOf(KLVUtilities::getViewWithIdentifier(identifier, type)), found) << type << " " << identifier;
    }
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
  EXPECT_EQ(KLVUtilities::getViewWithIdentifier("5", "t"), nullptr) << "there is no window";
  EXPECT_EQ(KLVUtilities::getViewWithPath("UILabel:0", nullptr), nullptr);
  show(kShop);
  expect({{"t", "5", "link"},
          {"i", "7", "buy"},
          {"t", "9", "secret"},  // a tag is found wherever it is
          {"t", "99999999999999999999", "none"},
          {"t", "bar", "none"},
          {"t", "UINavigationBar:0", "none"},
          {"p", "5", "none"},
          {"p", "UINavigationBar:0", "bar"},
          {"p", "KLV:UINavigationBar:0:UILabel:0", "title"},
          {"p", "UINavigationBar:00", "bar"},
          {"p", "UINavigationBar:", "bar"},  // an empty position counts as 0
          {"p", "UINavigationBar", "none"},
          {"p", "UINavigationBar:1", "none"},
          {"p", "UINavigationBar:0:", "none"},
          {"p", "UIButton:2", "buy"},  // lifted out of its panel
          {"p", "UIButton:2:UILabel:0", "price"},
          {"p", "Shop.Link:1", "link"},
          {"p", "UILabel:0", "title"},    // begins at any depth: the first one in reading order
          {"p", "UILabel:3", "private"},  // lifted out of a private view
          {"p", "UILabel:4", "shining"},  // only views of exactly an ignored class are left out
          {"p", "UITableView:5:Shop.TableCell:3:UISwitch:1", "switch"},
          {"p", "Shop.TableCell:3:UILabel:0", "text"},
          {"p", "UITableView:5:UITableViewCell:20", "last"},
          {"p", "UITableViewCell:0", "none"},  // a cell goes by its tag
          {"p", "UITableView:5:UILabel:0", "text"},
          {"x", "5", "link"},
          {"x", "UIButton:2", "buy"},
          {"", "12345", "none"},
          {"p", "", "none"}});
  for (const char* line : {"<KLV ERROR> Invalid view ID provided", "<KLV DEBUG> Searching for view with TAG: 12345",
                           "<KLV DEBUG> Searching for view with nativeID/TAG: bar", "<KLV ERROR> Improper tag given",
                           "<KLV DEBUG> Searching for view with path: 12345"}) {
    EXPECT_TRUE(log.waitFor(line)) << line;
  }
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
  expect({{"p", "Box:0", "none"}});
  KLVUtilities::setIsReactNative(true);
  expect({{"i", "[klv_buy_klv]", "first"},
          {"t", "[klv_buy_klv]:and:more", "first"},
          {"i", "end", "last"},
          {"i", "[klv_secret_klv]", "hidden"},
          {"i", "7", "none"},
          {"p", "[klv_buy_klv]", "second"},  // in reading order
          {"p", "[klv_list_klv]:[klv_buy_klv]", "second"},
          {"p", "[klv_secret_klv]", "none"},
          {"p", "KLV:[klv_end_klv]:Text:0", "bare"},
          {"p", "Box:1", "odd"},
          {"x", "[klv_list_klv]:Text:1", "box"},  // the id alone is looked at first
          {"x", "Box:2:Text:0", "bare"}});
  EXPECT_EQ(KLVUtilities::getViewWithTAG(std::nullopt, nullptr), nullptr);
  for (const char* line :
       {"<KLV ERROR> Improper Identifier: (null)", "<KLV DEBUG> Searching for view with nativeID: [klv_buy_klv]",
        "<KLV DEBUG> Getting NativeID for view: Box", "<KLV DEBUG> Responds to selector - YES",
        "<KLV DEBUG> Responded to selector with value: buy", "<KLV DEBUG> Responds to selector - NO"}) {
    EXPECT_TRUE(log.waitFor(line)) << line;
  }
}

TEST_F(Views, StandInReadingOrderAndCellsInThatOfTheirTags) {
  const std::pair<const char*, const char*> cases[] = {
      {"UIView\n  UILabel =right @50,14\n  UILabel =left @10,10", "UIView(left right)"},
      {"UIView\n  UILabel =right @50,10\n  UILabel =left @10,15", "UIView(left right)"},
      {"UIView\n  UILabel =below @10,16\n  UILabel =above @50,10", "UIView(above below)"},
      {"UIView\n  UILabel =one @5,5\n  UILabel =two @5,5", "UIView(one two)"},
      {"UIView\n  UILabel =c @1,9\n  UILabel =b @2,5\n  UILabel =a @3,0", "UIView(c b a)"},  // no order is right here
      {"UITableView\n  UITableViewCell =b @0,1 at=1.0\n  UITableViewCell =a @0,9 at=0.3", "UITableView(b a)"},
      {"UIView\n  UITableView\n    UITableViewCell =b @0,1 at=1.12\n    UITableViewCell =a @0,9 at=0.3",
       "UIView(UITableView(a b))"},
      {"UIView\n  UITableView\n    UITableViewCell =cell @9,9 at=0.0\n    UILabel =label @1,9",
       "UIView(UITableView(label cell))"}};
  for (const auto& [picture, expected] : cases) EXPECT_EQ(textOf(simplified(draw(picture))), expected) << picture;
}

TEST_F(Views, OfCellsAreGivenTagsOfSectionAndRow) {
  const auto root = draw(R"(
UIView
  UITableView
    UITableViewCell =0.3 at=0.3
    UITableViewCell =2.0 at=2.0
    TableCard:UITableViewCell =1.12 at=1.12
      UICollectionView
        UICollectionViewCell =4.5 at=4.5
        UITableViewCell =3.1 at=3.1
    UITableViewCell =unknown #77
    UITableViewCell =hidden #77 at=5.5 hidden
  UICollectionViewCell =alone #77 at=6.6
)");
  static_cast<void>(simplified(root));
  std::string tags;
  const std::function<void(const DrawnView&)> list = [&](const DrawnView& view) {
    if (!view.label.empty()) tags += view.label + ":" + std::to_string(view.number) + " ";
    for (const auto& subview : view.views) list(*subview);
  };
  list(*root);
  EXPECT_EQ(tags, "0.3:3 2.0:20 1.12:112 4.5:45 3.1:31 unknown:0 hidden:77 alone:0 ");
}

TEST_F(Views, ArePrintedAsATree) {
  const LogCapture log;
  const auto root = draw("UIView\n  Panel\n    UIButton @0,9\n      UILabel\n    UISwitch @0,1");
  KLVUtilities::logKLVViewWithRoot(simplified(root), "");
  KLVUtilities::logViewWithRoot(*root, "+");
  EXPECT_TRUE(log.waitFor("<>+--UISwitch "));
  std::string printed;
  for (const auto& line : log.lines()) printed += line.substr(12, line.find(' ', 12) - 11);  // behind "<KLV DEBUG> "
  EXPECT_EQ(printed,
            "<>UIView <>-UISwitch <>-UIButton <>--UILabel <>+UIView <>+-Panel <>+--UIButton <>+---UILabel "
            "<>+--UISwitch ");
}

struct Controller final : ViewController {
  std::string className() const override { return "Controller"; }
  Kind kind() const override { return itsKind; }
  std::vector<std::shared_ptr<ViewController>> children() const override { return below; }
  std::shared_ptr<ViewController> presented() const override { return dialog; }
  std::shared_ptr<ViewController> selected() const override { return tab; }
  std::shared_ptr<ViewController> visible() const override { return page; }
  Kind itsKind = Kind::plain;
  std::vector<std::shared_ptr<ViewController>> below;
  std::shared_ptr<ViewController> dialog, tab, page;
};

TEST_F(Views, HaveAControllerOnTop) {
  const auto make = [] { return std::make_shared<Controller>(); };
  const auto leaf = make(), parent = make(), navigation = make(), tabs = make(), presenting = make();
  parent->below = {make(), leaf};
  navigation->itsKind = ViewController::Kind::navigation;
  navigation->page = parent;
  tabs->itsKind = ViewController::Kind::tabBar;
  tabs->tab = navigation;
  tabs->dialog = make();  // what is selected comes first
  presenting->dialog = tabs;
  presenting->below = {make()};
  EXPECT_EQ(KLVUtilities::topViewController(presenting), leaf);
  tabs->tab = nullptr;
  EXPECT_EQ(KLVUtilities::topViewController(tabs), nullptr);
}

TEST_F(Views, HaveRectanglesFontsAndColours) {
  const Rect window{0, 0, 100, 50};
  EXPECT_TRUE(KLVUtilities::isViewRectInsideWindowRect({0, 0, 100, 50}, window));
  for (const Rect& outside : {Rect{-1, 0, 9, 9}, Rect{0, -1, 9, 9}, Rect{92, 0, 9, 9}, Rect{0, 42, 9, 9}}) {
    EXPECT_FALSE(KLVUtilities::isViewRectInsideWindowRect(outside, window)) << outside.x << "," << outside.y;
  }
  const auto font = [](const Font& given) { return given.name + " " + description(given.size); };
  EXPECT_EQ(font(KLVUtilities::fontWithName("Any", 12)), " 12") << "no tree, the system's font";
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
