#include <kelvo/KelvoSDK.h>
#include <csignal>
#include <cstdlib>

int main() {
  sigset_t ends;  // blocked before the first thread starts, so that only sigwait receives them
  sigemptyset(&ends);
  for (const int signal : {SIGTERM, SIGINT}) sigaddset(&ends, signal);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  kelvo::Options options("thumbnailer");
  if (const char* directory = std::getenv("STATE_DIRECTORY")) options.home = directory;
  kelvo::KelvoSDK::start(options);
  kelvo::Application::didBecomeActive();  // a service is active as long as it runs
  kelvo::KelvoSDK::logAppEventWithName("Started", {{"workers", 4}});

  int signal = 0;
  sigwait(&ends, &signal);  // the service works in its threads meanwhile
  kelvo::KelvoSDK::logAppEventWithName("Stopped", {{"signal", signal}});
  kelvo::Application::willResignActive();
  kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
}
