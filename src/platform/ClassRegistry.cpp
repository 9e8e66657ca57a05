#include "platform/ClassRegistry.h"

#include <exception>
#include <map>
#include <mutex>

#include "platform/Immortal.h"
#include "platform/Problem.h"

namespace kelvo {
namespace {

struct Factories {
  std::mutex mutex;
  std::map<std::string, ClassRegistry::Factory, std::less<>> byName;
};

Factories& factories() {
  static Immortal<Factories> instance;
  return *instance;
}

ClassRegistry::Factory factoryOf(std::string_view className) {
  const std::lock_guard lock(factories().mutex);
  const auto found = factories().byName.find(className);
  return found == factories().byName.end() ? nullptr : found->second;
}

}  // namespace

void ClassRegistry::add(std::string_view className, Factory factory) {
  const std::lock_guard lock(factories().mutex);
  factories().byName.insert_or_assign(std::string(className), std::move(factory));
}

std::shared_ptr<void> ClassRegistry::make(std::string_view className) {
  const Factory factory = factoryOf(className);
  if (!factory) return nullptr;
  try {
    return factory();
  } catch (const std::exception& exception) {
    reportProblem("ClassRegistry", std::string(className) + " could not be made: " + exception.what());
  } catch (...) {
    reportProblem("ClassRegistry", std::string(className) + " could not be made");
  }
  return nullptr;
}

}  // namespace kelvo
