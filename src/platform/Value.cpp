#include "kelvo/Value.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <functional>
#include <limits>
#include <memory>

#include "platform/Immortal.h"

namespace kelvo {
namespace {

/// The content of an array or a dictionary, which its copies share. Counts the copies. `nextDead` links the contents
/// that wait to be deleted.
struct Shared {
  Shared() = default;
  Shared(const Shared&) noexcept {}
  Shared& operator=(const Shared&) = delete;
  virtual ~Shared() = default;

  std::atomic<std::size_t> references{1};
  Shared* nextDead = nullptr;
};

template <class Rep>
Rep* retained(Rep* rep) noexcept {
  if (rep != nullptr) rep->references.fetch_add(1, std::memory_order_relaxed);
  return rep;
}

/// Deletes `shared`, which nothing refers to any more. A nested call only adds its content to a list, and the outermost
/// call deletes the list. So the depth of the stack does not grow with the depth of the nesting.
void bury(Shared* shared) noexcept {
  thread_local Shared* dead = nullptr;
  thread_local bool burying = false;
  shared->nextDead = std::exchange(dead, shared);
  if (burying) return;
  burying = true;
  while (dead != nullptr) {
    const std::unique_ptr<Shared> next(dead);
    dead = next->nextDead;
  }
  burying = false;
}

void release(Shared* shared) noexcept {
  if (shared != nullptr && shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1) bury(shared);
}

/// Returns the content for writing. Creates it if there is none, and copies it if it is shared.
template <class Rep>
Rep& owned(Rep*& rep) {
  if (rep == nullptr) {
    rep = std::make_unique<Rep>().release();
  } else if (rep->references.load(std::memory_order_acquire) != 1) {
    auto copy = std::make_unique<Rep>(*rep);
    release(std::exchange(rep, copy.release()));
  }
  return *rep;
}

}  // namespace

// --- Array

struct Array::Rep : Shared {
  std::vector<Value> values;
};

Array::Array(std::initializer_list<Value> values) {
  if (values.size() > 0) own().values = values;
}
Array::Array(const Array& other) noexcept : rep_(retained(other.rep_)) {}
Array& Array::operator=(Array other) noexcept {
  std::swap(rep_, other.rep_);
  return *this;
}
Array::~Array() {
  release(rep_);
}

Array::Rep& Array::own() {
  return owned(rep_);
}

std::size_t Array::size() const noexcept {
  return rep_ == nullptr ? 0 : rep_->values.size();
}
const Value& Array::operator[](std::size_t index) const noexcept {
  return rep_->values[index];
}
const Value* Array::begin() const noexcept {
  return rep_ == nullptr ? nullptr : rep_->values.data();
}
const Value* Array::end() const noexcept {
  return rep_ == nullptr ? nullptr : rep_->values.data() + size();
}

void Array::append(Value value) {
  own().values.push_back(std::move(value));
}

// --- Dictionary

/// The entries in order. A dictionary with many entries also has a hash table of their positions.
struct Dictionary::Rep : Shared {
  static constexpr std::size_t kLargestWithoutIndex = 16;
  static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t positionPlusOne = 0;  // 0: free
  };

  Rep() = default;
  /// A copy is made to be changed: it has room for a few more entries.
  Rep(const Rep& other) : Shared(other), slots(other.slots) {
    constexpr std::size_t kRoom = 4;
    entries.reserve(other.entries.size() + kRoom);
    entries = other.entries;
  }

  static std::uint32_t hashOf(std::string_view key) noexcept {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(key));
  }

  [[nodiscard]] std::size_t position(std::string_view key) const noexcept {
    if (slots.empty()) {
      for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].first == key) return i;
      }
      return kNone;
    }
    const std::uint32_t hash = hashOf(key);
    for (std::size_t i = hash & (slots.size() - 1);; i = (i + 1) & (slots.size() - 1)) {
      const Slot& slot = slots[i];
      if (slot.positionPlusOne == 0) return kNone;
      if (slot.hash == hash && entries[slot.positionPlusOne - 1].first == key) return slot.positionPlusOne - 1;
    }
  }

  /// Appends an entry made of `parts`. Its key must be new.
  template <class... Parts>
  void append(Parts&&... parts) {
    // Grows in small steps, because most dictionaries have few entries and grow no more.
    if (entries.size() == entries.capacity()) {
      entries.reserve(entries.size() + std::max<std::size_t>(4, entries.size() / 4));
    }
    entries.emplace_back(std::forward<Parts>(parts)...);
    if (slots.size() >= 2 * entries.size()) {
      fill(entries.size() - 1);
    } else if (entries.size() > kLargestWithoutIndex) {
      index();
    }
  }

  void removeAt(std::size_t position) {
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
    slots.clear();
    if (entries.size() > kLargestWithoutIndex) index();
  }

  void index() {
    slots.assign(std::bit_ceil(4 * entries.size()), Slot{});
    for (std::size_t i = 0; i < entries.size(); ++i) fill(i);
  }

  void fill(std::size_t position) noexcept {
    const std::uint32_t hash = hashOf(entries[position].first);
    std::size_t i = hash & (slots.size() - 1);
    while (slots[i].positionPlusOne != 0) i = (i + 1) & (slots.size() - 1);
    slots[i] = {hash, static_cast<std::uint32_t>(position + 1)};
  }

  std::vector<Entry> entries;
  std::vector<Slot> slots;  ///< empty, or a power of two in size; at least half of the slots are free
};

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  if (entries.size() == 0) return;
  Rep& rep = own();
  rep.entries.reserve(entries.size());
  for (const Entry& entry : entries) {
    if (const std::size_t position = rep.position(entry.first); position != Rep::kNone) {
      rep.entries[position].second = entry.second;
    } else {
      rep.append(entry);
    }
  }
}
Dictionary::Dictionary(const Dictionary& other) noexcept : rep_(retained(other.rep_)) {}
Dictionary& Dictionary::operator=(Dictionary other) noexcept {
  std::swap(rep_, other.rep_);
  return *this;
}
Dictionary::~Dictionary() {
  release(rep_);
}

Dictionary::Rep& Dictionary::own() {
  return owned(rep_);
}

std::size_t Dictionary::size() const noexcept {
  return rep_ == nullptr ? 0 : rep_->entries.size();
}
const Dictionary::Entry* Dictionary::begin() const noexcept {
  return rep_ == nullptr ? nullptr : rep_->entries.data();
}
const Dictionary::Entry* Dictionary::end() const noexcept {
  return rep_ == nullptr ? nullptr : rep_->entries.data() + size();
}

const Value* Dictionary::find(std::string_view key) const noexcept {
  const std::size_t position = rep_ == nullptr ? Rep::kNone : rep_->position(key);
  return position == Rep::kNone ? nullptr : &rep_->entries[position].second;
}

const Value& Dictionary::operator[](std::string_view key) const noexcept {
  static Immortal<Value> null;
  const Value* value = find(key);
  return value == nullptr ? *null : *value;
}

void Dictionary::set(std::string_view key, Value value) {
  // own() may destroy the content that `key` points into, so `key` is not used after it.
  const std::size_t position = rep_ == nullptr ? Rep::kNone : rep_->position(key);
  if (position != Rep::kNone) {
    own().entries[position].second = std::move(value);
    return;
  }
  std::string name(key);
  own().append(std::move(name), std::move(value));
}

void Dictionary::remove(std::string_view key) {
  const std::size_t position = rep_ == nullptr ? Rep::kNone : rep_->position(key);
  if (position != Rep::kNone) own().removeAt(position);
}

}  // namespace kelvo
