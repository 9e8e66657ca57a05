#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "journal/KLVJournal.h"
#include "platform/Files.h"
#include "support/TestHome.h"

namespace kelvo::test {

/// A journal in a directory of the test. `open` is the next launch of a process.
class JournalTest : public testing::Test {
 protected:
  static constexpr std::uint64_t kEpoch = 7;
  static constexpr std::uint64_t kSmall = 64 << 10;

  JournalTest() {
    std::filesystem::remove_all(settings.library);
    std::filesystem::create_directories(settings.library);
  }

  /// Ends the present process without finishing anything, and opens the journal in the next one.
  std::vector<KLVJournalEntry> open(const KLVSequenceSet& finished = {}, std::uint64_t epoch = kEpoch) {
    journal = std::make_unique<KLVJournal>();
    return journal->open(settings, epoch, finished.largest(), finished);
  }
  std::uint64_t write(const std::string& text, const std::optional<std::string>& info = std::nullopt) {
    return journal->write(KLVJournalKind::appEvent, 0, Date(), text, info);
  }

  static std::vector<std::string> texts(const std::vector<KLVJournalEntry>& entries) {
    std::vector<std::string> texts;
    for (const auto& entry : entries) texts.push_back(entry.call.text.value_or(""));
    return texts;
  }
  [[nodiscard]] std::string path() const { return joinPath(settings.library, kKLVJournalFile); }

  KLVJournalSettings settings{home() + "/journal", "", kSmall};
  std::unique_ptr<KLVJournal> journal = std::make_unique<KLVJournal>();
};

using Texts = std::vector<std::string>;

}  // namespace kelvo::test
