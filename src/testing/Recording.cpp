#include "testing/Recording.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "core/HostSettings.h"
#include "core/KLVController.h"
#include "facade/ExitWork.h"
#include "journal/KLVJournalEntry.h"
#include "journal/KLVJournalPlace.h"
#include "kelvo/KelvoSDK.h"
#include "platform/Clock.h"
#include "platform/Context.h"
#include "platform/Directories.h"
#include "platform/Thread.h"
#include "records/KLVInfo.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVLogger.h"
#include "util/KLVObserver.h"

namespace kelvo {
namespace testing {
namespace {

constexpr std::chrono::seconds kBetweenLaunches(1);

std::atomic<Recording*> presentRecording{nullptr};

/// Returns why the library does not take a call now, empty if it does, or may do so later.
std::string reasonOfRefusal() {
  auto& controller = KLVController::sharedController();
  const bool isDecided = controller.hasStarted() || controller.consent() == Consent::denied;
  return isDecided ? controller.reasonNotToCollect().value_or("") : "";
}

/// Makes a directory in TMPDIR, else in memory, where a commit need not wait for a disk.
std::string freshDirectory() {
  const bool usesMemory = std::getenv("TMPDIR") == nullptr && ::access("/dev/shm", W_OK | X_OK) == 0;
  const auto parent = usesMemory ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path();
  std::string path = (parent / "kelvo-testing-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("There is no temporary directory for the home");
  return path;
}

}  // namespace

Recording::Recording() {
  Recording* none = nullptr;
  if (!presentRecording.compare_exchange_strong(none, this)) {
    throw std::logic_error("Another kelvo::testing::Recorder lives: end it before you make the next one");
  }
  try {
    home_ = freshDirectory();
  } catch (...) {
    presentRecording = nullptr;
    throw;
  }
  context::endLaunch();
  context::end();  // of what the host did while there was no recorder
  context::restartClock();
}

Recording::~Recording() {
  const auto journal = KLVJournalSettings::current();  // the file may be outside of the home
  endLaunch();
  static_cast<void>(removeJournalFiles(journal));
  presentRecording = nullptr;
  std::error_code ignored;
  std::filesystem::remove_all(home_, ignored);
}

Recording* Recording::present() noexcept {
  return presentRecording.load();
}

void Recording::startWith(Options options) {
  if (options.appId.empty()) options.appId = "test";
  options.home.clear();
  options_ = std::move(options);
}

/// Begins a launch in this process: runs the library's load hook, then the host's start.
void Recording::beginLaunch() {
  Directories::chooseHome(home_);
  holdThreads();
  KLVController::sharedController().initialize();
  HostSettings::shared().dropHeldLine();
  KLVLogger::setLogLevel(KLVLogger::Level::error);
  context::beginLaunch();
  if (!options_) return;
  KelvoSDK::start(*options_);
  waitForWork();
}

void Recording::endLaunch() {
  static_cast<void>(context::waitUntilIdle());
  context::endLaunch();
  finishAtExit();
  static_cast<void>(context::waitUntilIdle());
  context::end();
  Clock::advance(kBetweenLaunches);
}

bool Recording::runKilled(const std::function<void()>& code) {
  const std::string delivered = home_ + "/delivered-by-killed";
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("No process can be forked");
  if (child == 0) {
    try {
      useInForkedChild();
      service.copyTo(delivered);
      beginLaunch();
      code();
      ::kill(::getpid(), SIGKILL);
    } catch (const std::exception& fault) {
      ::write(STDERR_FILENO, fault.what(), std::char_traits<char>::length(fault.what()));
    } catch (...) {
    }
    ::_exit(EXIT_FAILURE);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  service.takeCopies(delivered);
  ::unlink(delivered.c_str());
  Clock::advance(kBetweenLaunches);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

void Recording::called(const KLVCallRecord& record) {
  Call call{nameOf(static_cast<KLVJournalKind>(record.kind)), std::string(record.text.value_or("")),
            record.info != nullptr ? *record.info : Dictionary(), record.time, reasonOfRefusal()};
  const Lock lock(mutex_);
  calls_.push_back(std::move(call));
}

void Recording::entered(const KLVInfo& screen) {
  const Lock lock(mutex_);
  screens_.push_back(screen.additionalInfo()[kKLVName].asText().value_or(screen.identifier()));
}

std::vector<Call> Recording::calls() const {
  const Lock lock(mutex_);
  return calls_;
}

std::vector<std::string> Recording::screens() const {
  const Lock lock(mutex_);
  return screens_;
}

void waitForWork() {
  if (onLibraryThread()) throw std::logic_error("A callback of the library must not wait for the library");
  if (!context::waitUntilIdle()) throw std::runtime_error("The library is still at work after a minute");
}

}  // namespace testing

void observer::called(const KLVCallRecord& record) noexcept {
  if (auto* const recording = testing::Recording::present()) recording->called(record);
}

void observer::entered(const KLVInfo& screen) {
  if (auto* const recording = testing::Recording::present()) recording->entered(screen);
}

}  // namespace kelvo
