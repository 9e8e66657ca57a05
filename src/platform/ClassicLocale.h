#pragma once

#include <clocale>

namespace kelvo {

/// Numbers with a point, whatever locale the host has set. Never freed.
inline locale_t classicLocale() {
  static const locale_t classic = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return classic;
}

/// Puts the calling thread, and no other, into the classic locale while it lives.
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
