#pragma once

#include <clocale>

namespace kelvo {

/// Returns the "C" locale, in which the decimal separator is a point. It is independent of the host's locale and is
/// never freed, because threads may still use it while the process exits.
inline locale_t classicLocale() {
  static const locale_t classic = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return classic;
}

/// While an object of this class lives, its thread uses the "C" locale. Other threads keep their locale.
class InClassicLocale {
 public:
  InClassicLocale() : before_(::uselocale(classicLocale())) {}
  InClassicLocale(const InClassicLocale&) = delete;
  InClassicLocale& operator=(const InClassicLocale&) = delete;
  ~InClassicLocale() { ::uselocale(before_); }

 private:
  locale_t before_;
};

}  // namespace kelvo
