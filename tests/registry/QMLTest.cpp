#include <gtest/gtest.h>

#include <string>

#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

TEST(RegistryQML, LogsTextsAndNumbersAndRefusesWrongArguments) {
  // Prints the calls, in place of the module for Qt Quick.
  writeFileForTest(home() + "/modules/Kelvo/qmldir", "module Kelvo\nsingleton Kelvo 1.0 Kelvo.qml\n");
  writeFileForTest(home() + "/modules/Kelvo/Kelvo.qml",
                   "pragma Singleton\nimport QtQml\nQtObject {\n"
                   "  function log(name, info) { console.log(name + \" \" + JSON.stringify(info)) }\n"
                   "  function logAggregate(name, info) { log(\"count of \" + name, info) }\n}\n");
  Program host({KELVO_REGISTRY_QML, KELVO_REGISTRY_FORMS "/KelvoEvents.qml", home() + "/modules", "visit()",
                "purchase(0, 12.5, 2)", "purchase(2, 3, 1, 'SPRING')", "purchase('book', 3, 1)", "purchase(0, '3', 1)",
                "purchase(0, 3, 1.5)", "purchase(0, 1001, 1)", "purchase(0, 3, 1, '')", "scroll(1, true)"},
               {{"QT_LOGGING_RULES", "qml.debug=true"}, {"QT_FORCE_STDERR_LOGGING", "1"}});
  const int status = host.wait();
  if (host.output().find("\"QtQml.Models\" is not installed") != std::string::npos) GTEST_SKIP() << host.output();
  EXPECT_EQ(status, 0) << host.output() << host.errors();
  EXPECT_EQ(host.errors(),
            "qml: Visit {}\n"
            "qml: Purchase {\"item\":\"book\",\"price\":12.5,\"amount\":2}\n"
            "qml: Purchase {\"item\":\"e-reader\",\"price\":3,\"amount\":1,\"coupon\":\"SPRING\"}\n"
            "qml: count of Scroll {\"page\":\"basket\",\"fast\":true}\n");
  EXPECT_EQ(host.output(),
            "TypeError: purchase: item is not one of the values\n"
            "TypeError: purchase: price is not a number from 0 to 1000, in EUR\n"
            "TypeError: purchase: amount is not a whole number of at least 1\n"
            "TypeError: purchase: price is not a number from 0 to 1000, in EUR\n"
            "TypeError: purchase: coupon is not a text with at least one character\n");
}

}  // namespace
}  // namespace kelvo::test
