#include <new>

#include "c/Interface.h"

using namespace kelvo;

namespace {

void set(kelvo_attributes* attributes, const char* key, const auto& value) noexcept {
  if (attributes == nullptr || key == nullptr) return;
  c::guarded([&] { attributes->values.set(key, Value(value)); });
}

}  // namespace

kelvo_attributes* kelvo_attributes_create(void) {
  return new (std::nothrow) kelvo_attributes;
}

void kelvo_attributes_free(kelvo_attributes* attributes) {
  delete attributes;
}

void kelvo_attributes_set_text(kelvo_attributes* attributes, const char* key, const char* value) {
  set(attributes, key, value);
}

void kelvo_attributes_set_integer(kelvo_attributes* attributes, const char* key, int64_t value) {
  set(attributes, key, value);
}

void kelvo_attributes_set_unsigned(kelvo_attributes* attributes, const char* key, uint64_t value) {
  set(attributes, key, value);
}

void kelvo_attributes_set_number(kelvo_attributes* attributes, const char* key, double value) {
  set(attributes, key, value);
}

void kelvo_attributes_set_bool(kelvo_attributes* attributes, const char* key, bool value) {
  set(attributes, key, value);
}

void kelvo_attributes_set_json(kelvo_attributes* attributes, const char* key, const char* json) {
  if (const auto value = c::value(__func__, json)) set(attributes, key, *value);
}
