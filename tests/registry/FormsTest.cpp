#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <type_traits>

#include "kelvo-events.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

using namespace acme::shop;
using MaybeCoupon = std::optional<Coupon>;

template <class... Arguments>
inline constexpr bool kBuys = std::is_invocable_v<decltype(&purchase), Arguments...>;

// What the registry allows compiles, and nothing else.
static_assert(kBuys<Item, Price, Amount, MaybeCoupon>);
static_assert(!kBuys<Price, Item, Amount, MaybeCoupon>, "swapped arguments");
static_assert(!kBuys<Item, Amount, Price, MaybeCoupon>, "swapped numbers");
static_assert(!kBuys<Item, double, Amount, MaybeCoupon>, "a bare number");
static_assert(!kBuys<const char*, Price, Amount, MaybeCoupon>, "a bare text");
static_assert(!kBuys<Item, Price, MaybeCoupon>, "a missing argument");
static_assert(std::is_constructible_v<Price, int> && std::is_constructible_v<Price, double>);
static_assert(!std::is_constructible_v<Price, const char*> && !std::is_constructible_v<Price, bool>);
static_assert(std::is_constructible_v<Amount, std::size_t> && !std::is_constructible_v<Amount, double>);
static_assert(std::is_constructible_v<Fast, bool> && !std::is_constructible_v<Fast, int>);
static_assert(!std::is_constructible_v<Coupon, std::nullptr_t> && !std::is_constructible_v<Coupon, int>);
static_assert(std::is_invocable_v<decltype(&scroll), Page, Fast> && std::is_invocable_v<decltype(&visit)>);

/// Writes a form of a registry of awkward texts, and returns its path.
std::string awkward(const std::string& form, const std::string& name) {
  const std::string file = home() + "/awkward.json", output = home() + "/" + name;
  writeFileForTest(file, R"({"events": [{"name": "Did \"x\"??/", "code": "new", "owner": "C:\\team\\", "meaning":
    "What??/ <b> @home */ -- \\", "attributes": [
      {"name": "attributes", "meaning": "m", "type": "text", "values": ["linux", "default", "2nd", {"text": "+", "code": "Plus"}]},
      {"name": "int", "meaning": "m", "type": "number", "optional": true},
      {"name": "kelvo std", "meaning": "m", "type": "integer", "min": -9007199254740992},
      {"name": "signals", "meaning": "m", "type": "boolean", "optional": true}]}]})");
  Program tool({KELVO_EVENTS_PROGRAM, form, file, "--output", output}, {});
  EXPECT_EQ(tool.wait(), 0) << tool.errors();
  return output;
}

/// Compiles a source that includes `header`, with all warnings. Returns the messages.
std::string compile(const std::string& header, const std::string& name, std::vector<std::string> command) {
  const std::string source = home() + "/" + name;
  writeFileForTest(source, "#include \"" + header + "\"\nint main(void) { return 0; }\n");
  for (const char* flag :
       {"-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-I" KELVO_INCLUDE}) {
    command.emplace_back(flag);
  }
  command.push_back(source);
  Program compiler(command, {});
  const int status = compiler.wait();
  return status == 0 ? "" : "it does not compile: " + compiler.errors();
}

TEST(RegistryForms, WordsOfTheLanguageMacrosAndQuotesDoNotBreakTheCode) {
  const std::string header = awkward("cpp", "awkward.h");
  for (const char* standard : {"-std=c++17", "-std=gnu++17"}) {
    EXPECT_EQ(compile(header, "awkward.cpp", {KELVO_CXX_COMPILER, standard, "-Weffc++"}), "") << contentOf(header);
  }
}

TEST(RegistryForms, TheCFormCompilesWithoutWarnings) {
  if (!std::filesystem::exists(KELVO_INCLUDE "/kelvo/kelvo.h")) GTEST_SKIP() << "there is no kelvo/kelvo.h";
  for (const std::string& header :
       {awkward("c", "awkward-c.h"), std::string(KELVO_REGISTRY_FORMS "/kelvo-events-c.h")}) {
    for (const char* standard : {"-std=c99", "-std=c2x"}) {
      EXPECT_EQ(compile(header, "awkward.c", {KELVO_C_COMPILER, standard, "-Wstrict-prototypes"}), "")
          << contentOf(header);
    }
  }
  const std::string wrong = home() + "/wrong.h", begin = "#include \"" KELVO_REGISTRY_FORMS "/kelvo-events-c.h\"\n";
  const auto call = [&](const std::string& arguments) {
    writeFileForTest(wrong, begin + "void f(void); void f(void) { acme_shop_purchase(" + arguments + "); }\n");
    return compile(wrong, "wrong.c", {KELVO_C_COMPILER, "-std=c99"});
  };
  const std::string item = "acme_shop_Item_book", price = "(acme_shop_Price){12.5}", amount = "(acme_shop_Amount){1}";
  EXPECT_EQ(call(item + ", " + price + ", " + amount + ", NULL"), "");
  EXPECT_NE(call(item + ", " + amount + ", " + price + ", NULL"), "");
  EXPECT_NE(call(item + ", 12.5, " + amount + ", NULL"), "");
}

TEST(RegistryForms, ThePageEscapesWhatMarkdownWouldRead) {
  const std::string page = contentOf(awkward("page", "awkward.md"));
  const char* text = R"(What??/ \<b> @home \*/ -- \\. Owner: C:\\team\\.)";
  EXPECT_NE(page.find(text), std::string::npos) << page;
  EXPECT_NE(page.find("| attributes | m | linux, default, 2nd, + | yes |"), std::string::npos) << page;
}

}  // namespace
}  // namespace kelvo::test
