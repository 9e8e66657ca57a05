// A host that logs through its registry of events, kelvo-events.json. CMake writes "kelvo-events.h" from that file: an
// event that is not in it, a wrong type, or two arguments in the wrong order do not compile.
//
// Start `kelvo-collector` in one terminal. In another, tell it what to expect, and start this program:
//   kelvo-events expectations kelvo-events.json | curl -T - http://127.0.0.1:8288/debug/expectations
//   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 registry

#include "kelvo-events.h"

#include <chrono>
#include <cstdio>

int main() {
  kelvo::KelvoSDK::start(kelvo::Options("registry"));
  kelvo::Application::didBecomeActive();

  shop::visit();
  shop::scroll(shop::Page::home, shop::Fast(true));
  shop::purchase(shop::Item::eReader, shop::Price(89), shop::Amount(1), shop::Coupon("SPRING"));

  kelvo::Application::willResignActive();
  const auto result = kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(5));
  if (result.outcome != kelvo::FlushOutcome::delivered) std::printf("not delivered: %s\n", result.reason.c_str());
}
